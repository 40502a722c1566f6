// SPDX-License-Identifier: GPL-2.0-only
// Delivery: frames without bytes, and snap lengths at the length of the frame.
#include "module_fixture.h"

namespace {

using namespace packets;

class Lengths : public ModuleTest {
protected:
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

// A buffer without bytes is dropped as if a filter had accepted it, with a filter and without.
TEST_F(Lengths, empty__is_dropped_by_the_filter_or_its_absence)
{
	const struct {
		const char *name;
		int type;
		Meta meta;
		size_t left; // bytes that the socket gets; 0: dropped
	} rows[] = {
		{ "raw, no bytes", kRaw, { .l2_len = 0, .total = 0 }, 0 },
		{ "raw, one byte", kRaw, { .l2_len = 0, .total = 1 }, 1 },
		{ "raw, header only", kRaw, { .l2_len = 14, .total = 14 }, 14 },
		{ "dgram, no bytes", kDgram, { .l2_len = 0, .total = 0 }, 0 },
		{ "dgram, header only", kDgram, { .l2_len = 14, .total = 14 }, 0 },
		{ "dgram, one byte behind the header", kDgram, { .l2_len = 14, .total = 15 }, 1 },
	};
	for (auto &row : rows)
		for (bool filtered : { false, true }) {
			SCOPED_TRACE(testing::Message() << row.name << ", filter " << filtered);
			Sock s;
			s.capture(PACKET_LEV2_LOC, PACKET_COPY, row.type);
			s.sk->has_filter = filtered;
			s.sk->verdict = row.left ? -1 : 0;
			frame(PACKET_LEV2_LOC, row.meta, lldp);
			ASSERT_EQ(s.queued(), row.left ? 1u : 0u);
			EXPECT_EQ(s.po().filter_drops, row.left ? 0u : 1u);
			EXPECT_EQ(s.po().recv_packets, row.left ? 1u : 0u);
			if (row.left)
				EXPECT_EQ(s.buffer().len, row.left);
		}
}

// A snap length of the whole frame cuts nothing: no call that could fail.
TEST_F(Lengths, snap__at_the_length_of_the_frame)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	s.sk->has_filter = true;
	kernel().nonlinear_skbs = true;
	const int whole = static_cast<int>(lldp.size());
	kernel().fail(Fail::kSkbTrim);
	for (int snap : { whole, whole + 1 }) {
		s.sk->verdict = snap;
		frame(PACKET_LEV2_LOC, {}, lldp);
	}
	EXPECT_EQ(s.queued(), 2u);
	EXPECT_EQ(s.po().trim_fail_drops, 0u);
	s.sk->verdict = whole - 1;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.po().trim_fail_drops, 1u);
}

} // namespace
