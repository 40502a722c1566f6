/* SPDX-License-Identifier: GPL-2.0-only */
#include "samples.h"
#include "tlv.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using lldp::Bytes;
using lldp::Tlv;
using lldp::TlvReader;
using Step = lldp::TlvReader::Step;

TEST(tlv, append__header_of_7_bits_type_and_9_bits_length)
{
	Bytes out{ 0xff };
	lldp::append_tlv(out, lldp::tlv_ttl, Bytes{ 0x00, 0x78 });
	EXPECT_EQ(out, from_hex("ff 0602 0078"));

	out.clear();
	lldp::append_tlv(out, lldp::tlv_organisation, Bytes(lldp::kLongestTlvValue, 0xaa));
	ASSERT_EQ(out.size(), 513u);
	EXPECT_EQ(out[0], 0xff);
	EXPECT_EQ(out[1], 0xff);
	EXPECT_EQ(out[512], 0xaa);
}

TEST(tlv, append__refuses_a_value_beyond_511_bytes)
{
	Bytes out;
	EXPECT_THROW(lldp::append_tlv(out, 1, Bytes(512)), std::length_error);
	EXPECT_TRUE(out.empty());
}

TEST(tlv, reader__one_after_the_other_and_nothing_behind_the_end)
{
	Bytes bytes = from_hex("0602 0078 0a00 fe01 aa 0000 0602 0001");
	TlvReader reader(bytes);
	Tlv tlv;
	ASSERT_EQ(reader.next(tlv), Step::kTlv);
	EXPECT_EQ(tlv.type, lldp::tlv_ttl);
	EXPECT_EQ(Bytes(tlv.value.begin(), tlv.value.end()), (Bytes{ 0, 0x78 }));
	ASSERT_EQ(reader.next(tlv), Step::kTlv);
	EXPECT_EQ(tlv.type, lldp::tlv_system_name);
	EXPECT_TRUE(tlv.value.empty());
	ASSERT_EQ(reader.next(tlv), Step::kTlv);
	EXPECT_EQ(tlv.type, lldp::tlv_organisation);
	EXPECT_EQ(reader.next(tlv), Step::kEnd);
	EXPECT_EQ(reader.next(tlv), Step::kEnd);
}

TEST(tlv, reader__every_way_to_end)
{
	struct {
		const char *hex;
		Step step;
	} const cases[] = {
		{ "", Step::kEnd }, // no End TLV: the frame's end will do
		{ "0000", Step::kEnd },      { "0000ff", Step::kEnd }, // padding is of no meaning
		{ "02", Step::kBroken },                               // half a header
		{ "0001", Step::kBroken },   // an End TLV whose value is not there
		{ "000100", Step::kBroken }, // and one whose value is
		{ "0201", Step::kBroken },   // a byte too few
		{ "03ff00", Step::kBroken },
	};
	for (const auto &each : cases) {
		Bytes bytes = from_hex(each.hex);
		TlvReader reader(bytes);
		Tlv tlv;
		EXPECT_EQ(reader.next(tlv), each.step) << each.hex;
		EXPECT_EQ(reader.next(tlv), each.step) << each.hex << " once more";
	}
}

} // namespace
