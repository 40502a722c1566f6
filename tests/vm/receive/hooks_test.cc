// SPDX-License-Identifier: GPL-2.0-only
// The hooks themselves: what they answer, what they write into the frame's header, whom they ask, what they trace.
#include <string>

#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

class Hooks : public VmTest {
protected:
	void TearDown() override
	{
		lab::set_rnfp(false, -1);
		lab::set_rnfp(true, -1);
		VmTest::TearDown();
	}
};

struct Point {
	uint32_t location;
	Hook hook;
};
constexpr Point kTakers[] = {
	{ PACKET_LOCAL_LOC, Hook::Local }, { PACKET_LEV2_LOC, Hook::Lev2 },
	{ PACKET_IPv4_LOC, Hook::Ipv4 },   { PACKET_IPv6_LOC, Hook::Ipv6 },
	{ PACKET_WLAN_LOC, Hook::WlanIn }, { PACKET_WLAN_LOC, Hook::WlanOut }
};

TEST_F(Hooks, the_forward_reason_follows_the_kind)
{
	struct Row {
		uint8_t kind, reason;
	};
	for (Point point : kTakers) {
		Socket socket = capture(point.location, PACKET_FETCH, all());
		for (Row row :
		     { Row{ 2, 13 }, { 1, 7 }, { 27, 7 }, { 0, 1 }, { 3, 1 }, { 255, 1 } }) {
			Frame frame = plain();
			frame.kind = row.kind;
			EXPECT_EQ(put(point.hook, frame), lab::kTaken);
			EXPECT_EQ(lab::last_forward_reason(), row.reason)
				<< lab::symbol(point.hook) << " kind " << int(row.kind);
		}
		socket.drain();
	}
}

TEST_F(Hooks, a_copied_frame_keeps_its_reason)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	put(Hook::Lev2, plain());
	EXPECT_EQ(lab::last_forward_reason(), 0);
	socket.drain();
}

TEST_F(Hooks, either_drop_service_makes_a_taker_answer_drop)
{
	for (Point point : kTakers) {
		Socket socket = capture(point.location, PACKET_FETCH, all());
		for (bool wlan : { false, true }) {
			lab::set_rnfp(wlan, 1);
			EXPECT_EQ(put(point.hook, plain()), lab::kDrop)
				<< lab::symbol(point.hook) << wlan;
			EXPECT_EQ(lab::rnfp_calls(wlan), 1u);
			EXPECT_FALSE(socket.receive_now());
			lab::set_rnfp(wlan, 0);
			EXPECT_EQ(put(point.hook, plain()), lab::kTaken);
			EXPECT_TRUE(socket.receive());
			lab::set_rnfp(wlan, -1);
		}
	}
}

TEST_F(Hooks, the_first_drop_service_spares_the_second)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	lab::set_rnfp(false, 1);
	lab::set_rnfp(true, 0);
	EXPECT_EQ(put(Hook::Lev2, plain()), lab::kDrop);
	EXPECT_EQ(lab::rnfp_calls(true), 0u);
}

TEST_F(Hooks, a_copy_asks_no_drop_service)
{
	lab::set_rnfp(false, 1);
	lab::set_rnfp(true, 1);
	for (Point point : kTakers) {
		Socket socket = capture(point.location, PACKET_COPY, all());
		EXPECT_EQ(put(point.hook, plain()), lab::kGoOn);
		EXPECT_TRUE(socket.receive());
	}
	EXPECT_EQ(lab::rnfp_calls(false) + lab::rnfp_calls(true), 0u);
}

TEST_F(Hooks, a_clone_that_fails_loses_the_copy_only)
{
	for (Point point : kTakers) {
		Socket socket = capture(point.location, PACKET_COPY, all());
		lab::fail(lab::Fail::Clone, 1);
		EXPECT_EQ(put(point.hook, plain()), lab::kGoOn);
		EXPECT_FALSE(socket.receive_now());
		EXPECT_EQ(socket.stats().packets, 0u) << "and nothing is counted";
		EXPECT_EQ(put(point.hook, plain()), lab::kGoOn);
		EXPECT_TRUE(socket.receive());
	}
}

TEST_F(Hooks, a_taker_makes_no_clone)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all());
	uint64_t clones = lab::books().clones;
	put(Hook::Lev2, plain());
	EXPECT_EQ(lab::books().clones, clones);
	socket.drain();
}

TEST_F(Hooks, the_tag_in_the_buffer_word_and_the_context_change_nothing)
{
	for (Point point : kTakers)
		for (uint32_t treatment : { PACKET_COPY, PACKET_FETCH }) {
			Socket socket = capture(point.location, treatment, all());
			for (int tag : { 0, 1 })
				for (bool softirq : { false, true }) {
					Frame frame = plain();
					frame.tag = tag;
					frame.softirq = softirq;
					EXPECT_EQ(put(point.hook, frame, 1),
						  treatment == PACKET_FETCH ? lab::kTaken
									    : lab::kGoOn)
						<< lab::symbol(point.hook) << " tag " << tag
						<< " softirq " << softirq;
					auto packet = socket.receive();
					ASSERT_TRUE(packet);
					EXPECT_EQ(packet->bytes, frame.bytes);
				}
		}
}

TEST_F(Hooks, an_unmatched_frame_costs_no_clone)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	uint64_t clones = lab::books().clones;
	put(Hook::Lev2, plain());
	EXPECT_EQ(lab::books().clones, clones);
}

TEST_F(Hooks, mpls_and_trill_are_there_and_have_no_rules)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all());
	EXPECT_EQ(lab::inject_unregistered(Hook::Mpls, plain()), lab::kGoOn);
	EXPECT_EQ(lab::inject_unregistered(Hook::Trill, plain()), lab::kGoOn);
	Frame marked = plain();
	marked.flags = lab::kTraceMark;
	lab::clear_printk();
	lab::inject_unregistered(Hook::Mpls, marked);
	EXPECT_TRUE(HasLineLike(
		lab::printk_lines(),
		"MOX-PACKET-RCV: rcv pkt %p, loc PACKET_MPLS_LOC, src_intf: port-a, src_ifx: 211, in vsd: 0"));
	lab::clear_printk();
	lab::inject_unregistered(Hook::Trill, marked);
	EXPECT_TRUE(HasLineLike(
		lab::printk_lines(),
		"MOX-PACKET-RCV: rcv pkt %p, loc PACKET_TRILL_LOC, src_intf: port-a, src_ifx: 211, in vsd: 0"));
	EXPECT_FALSE(socket.receive_now());
}

} // namespace
