/* SPDX-License-Identifier: GPL-2.0-only */
#include "lldpdu.h"
#include "samples.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using lldp::Bytes;
using lldp::Lldpdu;

TEST(lldpdu, encode__to_the_byte)
{
	EXPECT_EQ(lldp::encode(sample_pdu()), from_hex(sample_hex()));
}

TEST(lldpdu, encode__only_what_is_there)
{
	Lldpdu pdu;
	pdu.chassis = { lldp::chassis_local, { 'x' } };
	pdu.port = { lldp::port_local, { 'y' } };
	pdu.ttl = 0xfffe;
	EXPECT_EQ(lldp::encode(pdu), from_hex("0202 07 78 0402 07 79 0602 fffe 0000"));
	pdu.system_name = "";
	EXPECT_EQ(lldp::encode(pdu), from_hex("0202 07 78 0402 07 79 0602 fffe 0a00 0000"));
}

TEST(lldpdu, encode__cuts_texts_to_255_bytes)
{
	Lldpdu pdu = lldp::shutdown_of(sample_pdu());
	pdu.system_description = std::string(300, 'd');
	auto read = lldp::decode(lldp::encode(pdu));
	ASSERT_TRUE(read.pdu) << read.error;
	EXPECT_EQ(read.pdu->system_description, std::string(255, 'd'));
	EXPECT_EQ(read.tlvs_discarded, 0u);
}

TEST(lldpdu, encode__refuses_what_no_lldpdu_holds)
{
	auto with = [](auto change) {
		Lldpdu pdu = sample_pdu();
		change(pdu);
		return pdu;
	};
	EXPECT_THROW(lldp::encode(with([](Lldpdu &pdu) { pdu.chassis.value.clear(); })),
		     std::length_error);
	EXPECT_THROW(lldp::encode(with([](Lldpdu &pdu) { pdu.port.value.resize(256); })),
		     std::length_error);
	EXPECT_THROW(lldp::encode(with([](Lldpdu &pdu) { pdu.management[0].address.clear(); })),
		     std::length_error);
	EXPECT_THROW(lldp::encode(with([](Lldpdu &pdu) { pdu.management[0].address.resize(32); })),
		     std::length_error);
	EXPECT_NO_THROW(lldp::encode(with([](Lldpdu &pdu) {
		pdu.port.value.resize(255);
		pdu.management[0].address.resize(31);
	})));
}

TEST(lldpdu, shutdown__the_ids_and_ttl_0_and_nothing_else)
{
	EXPECT_EQ(lldp::encode(lldp::shutdown_of(sample_pdu())),
		  from_hex("0207 04 020000000301 0405 05 65746830 0602 0000 0000"));
}

TEST(lldpdu, decode__all_that_encode_wrote)
{
	auto read = lldp::decode(from_hex(sample_hex()));
	ASSERT_TRUE(read.pdu) << read.error;
	EXPECT_EQ(*read.pdu, sample_pdu());
	EXPECT_EQ(read.tlvs_discarded, 0u);
	EXPECT_EQ(read.tlvs_unrecognised, 0u);
}

TEST(lldpdu, decode__what_is_refused_as_a_whole)
{
	struct {
		const char *why;
		const char *hex;
	} const cases[] = {
		{ "nothing at all", "" },
		{ "only an end", "0000" },
		{ "port id first", "0405 05 65746830 0207 04 020000000301 0602 0079 0000" },
		{ "no port id", "0207 04 020000000301 0602 0079 0000" },
		{ "no TTL", "0207 04 020000000301 0405 05 65746830 0000" },
		{ "TTL last", "0207 04 020000000301 0405 05 65746830 0a01 61 0602 0079 0000" },
		{ "chassis id of 0 bytes", "0200 0405 05 65746830 0602 0079 0000" },
		{ "chassis id without a value", "0201 04 0405 05 65746830 0602 0079 0000" },
		{ "port id without a value", "0207 04 020000000301 0401 05 0602 0079 0000" },
		{ "TTL of 1 byte", "0207 04 020000000301 0405 05 65746830 0601 79 0000" },
		{ "TTL of 0 bytes", "0207 04 020000000301 0405 05 65746830 0600 0000" },
		{ "chassis id twice",
		  "0207 04 020000000301 0405 05 65746830 0602 0079 0207 04 020000000301 0000" },
		{ "port id twice",
		  "0207 04 020000000301 0405 05 65746830 0602 0079 0405 05 65746830 0000" },
		{ "TTL twice", "0207 04 020000000301 0405 05 65746830 0602 0079 0602 0079 0000" },
		{ "end with a value", "0207 04 020000000301 0405 05 65746830 0602 0079 0001 00" },
		{ "half a header at the end",
		  "0207 04 020000000301 0405 05 65746830 0602 0079 0a" },
		{ "a TLV beyond the frame",
		  "0207 04 020000000301 0405 05 65746830 0602 0079 0a05 61626364" },
	};
	for (const auto &each : cases) {
		auto read = lldp::decode(from_hex(each.hex));
		EXPECT_FALSE(read.pdu) << each.why;
		EXPECT_NE(read.error, nullptr) << each.why;
	}
}

TEST(lldpdu, decode__ids_at_their_longest)
{
	std::string mandatory_behind = "0405 05 65746830 0602 0079 0000";
	Bytes good = from_hex("0300 07"), bad = from_hex("0301 07");
	good.insert(good.end(), 255, 'c');
	bad.insert(bad.end(), 256, 'c');
	for (Bytes *each : { &good, &bad }) {
		Bytes behind = from_hex(mandatory_behind);
		each->insert(each->end(), behind.begin(), behind.end());
	}
	auto read = lldp::decode(good);
	ASSERT_TRUE(read.pdu) << read.error;
	EXPECT_EQ(read.pdu->chassis.value, Bytes(255, 'c'));
	EXPECT_FALSE(lldp::decode(bad).pdu);
}

TEST(lldpdu, decode__without_an_end_tlv_and_with_padding)
{
	std::string body = std::string(sample_mandatory) + std::string(sample_optional);
	auto without = lldp::decode(from_hex(body));
	ASSERT_TRUE(without.pdu) << without.error;
	EXPECT_EQ(*without.pdu, sample_pdu());
	auto padded = lldp::decode(from_hex(body + "0000 ffffffff 0000"));
	ASSERT_TRUE(padded.pdu) << padded.error;
	EXPECT_EQ(*padded.pdu, sample_pdu());
}

TEST(lldpdu, decode__a_longer_ttl_counts_with_its_first_two_bytes)
{
	auto read = lldp::decode(from_hex("0202 07 78 0402 07 79 0604 0102 ffff 0000"));
	ASSERT_TRUE(read.pdu) << read.error;
	EXPECT_EQ(read.pdu->ttl, 0x0102);
}

/** Optional TLVs behind good mandatory ones: how many are discarded and how many are not known. */
TEST(lldpdu, decode__an_optional_tlv_costs_only_itself)
{
	struct {
		const char *what;
		std::string hex;
		unsigned discarded, unrecognised;
	} const cases[] = {
		{ "none", "", 0, 0 },
		{ "empty texts", "0800 0a00 0c00", 0, 0 },
		{ "a second name", "0a01 61 0a01 62", 1, 0 },
		{ "a second port description", "0801 61 0801 61", 1, 0 },
		{ "a second system description", "0c01 61 0c01 61", 1, 0 },
		{ "capabilities of 3 bytes", "0e03 000400", 1, 0 },
		{ "capabilities of 5 bytes", "0e05 0004000400", 1, 0 },
		{ "second capabilities", "0e04 00040004 0e04 00080008", 1, 0 },
		{ "an address of 0 bytes", "1000", 1, 0 },
		{ "an address whose length says 0", "1008 00 01 02 00000007 00", 1, 0 },
		{ "an address of a family alone", "1008 01 01 02 00000007 00", 1, 0 },
		{ "an address longer than its TLV", "100c 06 01 0a000009 02 00000007 00", 1, 0 },
		{ "an address without the rest", "1006 05 01 0a000009", 1, 0 },
		{ "an address with an identifier", "100e 05 01 0a000009 02 00000007 02 2b06", 0,
		  0 },
		{ "an address whose identifier is too short",
		  "100d 05 01 0a000009 02 00000007 02 2b", 1, 0 },
		{ "an address with a byte behind it", "100d 05 01 0a000009 02 00000007 00 ff", 1,
		  0 },
		{ "two addresses",
		  "100c 05 01 0a000009 02 00000007 00 100c 05 01 0a00000a 02 00000007 00", 0, 0 },
		{ "the same address twice",
		  "100c 05 01 0a000009 02 00000007 00 100c 05 01 0a000009 02 00000007 00", 1, 0 },
		{ "reserved types", "1200 fc02 0102", 0, 2 },
		{ "an organisation's", "fe04 0080c2 01", 0, 1 },
		{ "an organisation's too short to say whose", "fe03 0080c2", 1, 0 },
	};
	for (const auto &each : cases) {
		auto read = lldp::decode(
			from_hex("0202 07 78 0402 07 79 0602 0079" + each.hex + "0000"));
		ASSERT_TRUE(read.pdu) << each.what << ": " << read.error;
		EXPECT_EQ(read.tlvs_discarded, each.discarded) << each.what;
		EXPECT_EQ(read.tlvs_unrecognised, each.unrecognised) << each.what;
		EXPECT_EQ(read.pdu->ttl, 0x79) << each.what;
	}
}

TEST(lldpdu, decode__the_first_of_two_counts)
{
	auto read = lldp::decode(from_hex("0202 07 78 0402 07 79 0602 0079 0a01 61 0a01 62 0000"));
	ASSERT_TRUE(read.pdu);
	EXPECT_EQ(read.pdu->system_name, "a");
}

TEST(lldpdu, decode__addresses_at_their_longest)
{
	std::string mandatory = "0202 07 78 0402 07 79 0602 0079";
	Bytes longest = from_hex(mandatory + "1027 20 00"),
	      longer = from_hex(mandatory + "1028 21 00");
	longest.insert(longest.end(), 31, 0xaa);
	longer.insert(longer.end(), 32, 0xaa);
	for (Bytes *each : { &longest, &longer }) {
		Bytes behind = from_hex("02 00000007 00 0000");
		each->insert(each->end(), behind.begin(), behind.end());
	}
	auto good = lldp::decode(longest);
	ASSERT_TRUE(good.pdu) << good.error;
	ASSERT_EQ(good.pdu->management.size(), 1u);
	EXPECT_EQ(good.pdu->management[0].address, Bytes(31, 0xaa));
	auto bad = lldp::decode(longer);
	ASSERT_TRUE(bad.pdu) << bad.error;
	EXPECT_TRUE(bad.pdu->management.empty());
	EXPECT_EQ(bad.tlvs_discarded, 1u);
}

TEST(lldpdu, frame__header_and_padding)
{
	Bytes frame = lldp::frame_of(sample_mac, Bytes{ 0, 0 });
	ASSERT_EQ(frame.size(), 60u);
	EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 16),
		  from_hex("0180c200000e 020000000301 88cc 0000"));
	EXPECT_EQ(Bytes(frame.begin() + 16, frame.end()), Bytes(44, 0));
	EXPECT_EQ(lldp::frame_of(sample_mac, Bytes(100)).size(), 114u);

	auto inner = lldp::lldpdu_of(frame);
	ASSERT_TRUE(inner);
	EXPECT_EQ(inner->size(), 46u);
}

TEST(lldpdu, frame__of_another_kind)
{
	Bytes frame = lldp::frame_of(sample_mac, Bytes{ 0, 0 });
	Bytes other_type = frame, other_group = frame;
	other_type[13] = 0xcd;
	other_group[5] = 0x03;
	EXPECT_FALSE(lldp::lldpdu_of(other_type));
	EXPECT_FALSE(lldp::lldpdu_of(other_group));
	for (std::size_t length = 0; length < 14; ++length)
		EXPECT_FALSE(lldp::lldpdu_of(lldp::View(frame).first(length))) << length;
	EXPECT_TRUE(lldp::lldpdu_of(lldp::View(frame).first(14)));
}

} // namespace
