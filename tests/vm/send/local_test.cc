// SPDX-License-Identifier: GPL-2.0-only
// One socket sends, another captures at LOCAL, where every frame about to leave passes: what the second one sees, whether
// the frame still leaves, and what the first one gets as its result.
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/send.h"

namespace {

using namespace vm;

class Local : public SendTest {
protected:
	Send frame(size_t length = 60) const
	{
		Send send;
		send.data = counting(length);
		if (length >= 14) {
			send.data[12] = 0x88;
			send.data[13] = 0xb5;
		}
		send.to(lab::kPortA);
		return send;
	}
	/// Sends and waits until the copy thread has delivered.
	Trial sent(Socket &socket, const Send &send, bool debug = false)
	{
		Trial trial = attempt(socket, send, debug);
		EXPECT_TRUE(lab::settle());
		return trial;
	}
};

/// Treatments, and whether the frame still leaves.
struct Treatment {
	uint32_t number;
	bool leaves;
};
constexpr Treatment kTreatments[] = { { PACKET_COPY, true },
				      { PACKET_FETCH, false },
				      { PACKET_TRAP, false } };

TEST_F(Local, a_copy_lets_it_leave_and_a_taker_does_not)
{
	for (Treatment treatment : kTreatments) {
		SCOPED_TRACE(treatment.number);
		Socket sender(SOCK_RAW),
			listener = capture(PACKET_LOCAL_LOC, treatment.number, all());
		Trial trial = sent(sender, frame());
		EXPECT_EQ(trial.result, 60)
			<< "taken is not lost: the platform answers as for a frame that left";
		EXPECT_EQ(trial.counters, SendCounters{ .sent = 1 });
		EXPECT_EQ(trial.left.size(), treatment.leaves ? 1u : 0u);
		auto packet = listener.receive();
		ASSERT_TRUE(packet);
		EXPECT_EQ(packet->bytes, frame().data);
		EXPECT_FALSE(listener.receive_now()) << "once";
	}
}

TEST_F(Local, a_sender_that_listens_receives_itself)
{
	for (Treatment treatment : kTreatments) {
		Socket socket = capture(PACKET_LOCAL_LOC, treatment.number, ethertype(0x88b5));
		sent(socket, frame());
		auto packet = socket.receive();
		ASSERT_TRUE(packet) << treatment.number;
		EXPECT_EQ(packet->bytes, frame().data);
	}
}

TEST_F(Local, what_was_sent_comes_back_whole_at_any_length)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	int room = 1 << 20;
	ASSERT_EQ(::setsockopt(listener.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room), 0);
	for (size_t length : { 14, 15, 60, 1514, 9000, 60000 }) {
		EXPECT_EQ(sent(sender, frame(length)).result, ssize_t(length));
		auto packet = listener.receive();
		ASSERT_TRUE(packet) << length;
		EXPECT_EQ(packet->bytes, frame(length).data) << length;
	}
}

TEST_F(Local, too_short_for_a_header_shows_no_byte_that_was_not_sent)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	for (size_t length : { 1, 6, 13 }) {
		EXPECT_EQ(sent(sender, frame(length)).result, ssize_t(length));
		if (auto packet = listener.receive(200)) {
			EXPECT_EQ(packet->bytes, frame(length).data) << length;
		}
	}
}

TEST_F(Local, the_receive_record_prints_what_the_send_record_held)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	ASSERT_EQ(listener.ctrl(true), 0);
	Send send = frame().with({});
	mox_packet_ctrl_info &out = send.control;
	out.pkt_ifx = lab::kPortB;
	out.pkt_origifx = 0x11223344;
	out.pkt_l2ifx = 0x55667788;
	out.vlan = 0x0abc;
	out.inner_vlan = 0x0def;
	out.word28 = 0xdeadbeef;
	out.half38 = 0x7e7f;
	out.wlan_id = 0x0102;
	out.ap_wlan_id = 0x0304;
	out.radio_id = 0x05;
	out.proxy_capture = 0x06;
	out.flags = MOX_SEND_EF_40000 | MOX_SEND_PROXY_CAPTURE;
	sent(sender, send);
	auto packet = listener.receive();
	ASSERT_TRUE(packet);
	const mox_packet_ctrl_info &in = packet->info;
	EXPECT_EQ(in.pkt_ifx, lab::kPortB);
	EXPECT_EQ(packet->addr.sll_ifindex, int(lab::kPortB));
	EXPECT_EQ(in.pkt_origifx, out.pkt_origifx);
	EXPECT_EQ(in.pkt_l2ifx, out.pkt_l2ifx);
	EXPECT_EQ(in.vlan, 0xabc0)
		<< "a received record has the id above the priority, a sent one in its low bits";
	EXPECT_EQ(in.inner_vlan, out.inner_vlan);
	EXPECT_EQ(in.word28, out.word28);
	EXPECT_EQ(in.half38, out.half38);
	EXPECT_EQ(in.wlan_id, out.wlan_id);
	EXPECT_EQ(in.ap_wlan_id, out.ap_wlan_id);
	EXPECT_EQ(in.radio_id, out.radio_id);
	EXPECT_EQ(in.proxy_capture, out.proxy_capture);
	EXPECT_EQ(in.flags, 0x4u) << "efbuff flag 0x40000";
	EXPECT_EQ(in.l2_len, 14);
}

TEST_F(Local, a_frame_from_no_interface_names_none)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	ASSERT_EQ(listener.ctrl(true), 0);
	sent(sender, frame());
	auto packet = listener.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(packet->info.pkt_ifx, 0u);
	EXPECT_EQ(packet->addr.sll_ifindex, 0);
}

TEST_F(Local, rules_see_the_ethernet_header_that_a_datagram_got)
{
	Socket sender(SOCK_DGRAM),
		wanted = capture(PACKET_LOCAL_LOC, PACKET_COPY, ethertype(0x88b6)),
		other = capture(PACKET_LOCAL_LOC, PACKET_COPY, ethertype(0x88b5));
	Send send = frame(46);
	send.to(lab::kPortA, 6, 0x88b6);
	sent(sender, send);
	auto packet = wanted.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(Bytes(packet->bytes.begin(), packet->bytes.begin() + 6),
		  Bytes(kPeerMac, kPeerMac + 6));
	EXPECT_EQ(Bytes(packet->bytes.begin() + 6, packet->bytes.begin() + 12),
		  Bytes(kLocalMac[0], kLocalMac[0] + 6));
	EXPECT_EQ(Bytes(packet->bytes.begin() + 14, packet->bytes.end()), send.data);
	EXPECT_FALSE(other.receive_now());
}

TEST_F(Local, a_drop_service_that_objects_makes_the_send_fail)
{
	for (ServiceId id : { kDropService, kDropWlanService })
		for (Treatment treatment : kTreatments) {
			SCOPED_TRACE(std::to_string(id.instance) + " treatment " +
				     std::to_string(treatment.number));
			Socket sender(SOCK_RAW),
				listener = capture(PACKET_LOCAL_LOC, treatment.number, all());
			publish(id, 0, 1);
			Trial trial = sent(sender, frame());
			withdraw(id);
			// Only takers ask; a copy is none of the service's business.
			EXPECT_EQ(trial.error, treatment.leaves ? 0 : ENETUNREACH);
			EXPECT_EQ(trial.counters,
				  (treatment.leaves ? SendCounters{ .sent = 1 }
						    : SendCounters{ .ef_send = 1 }));
			EXPECT_EQ(trial.left.size(), treatment.leaves ? 1u : 0u);
			EXPECT_EQ(listener.drain(), treatment.leaves ? 1u : 0u);
		}
}

TEST_F(Local, an_access_point_captures_what_leaves_at_WLAN_too)
{
	Socket sender(SOCK_RAW),
		listener = capture(PACKET_WLAN_LOC, PACKET_COPY, ethertype(0x888e));
	Send send = frame();
	send.data[12] = 0x88;
	send.data[13] = 0x8e;
	EXPECT_EQ(sent(sender, send).left.size(), 1u);
	auto packet = listener.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(packet->bytes, send.data);
}

TEST_F(Local, other_locations_do_not_see_what_is_sent)
{
	Socket sender(SOCK_RAW);
	std::vector<Socket> listeners;
	for (uint32_t location :
	     { PACKET_LEV2_LOC, PACKET_IPv4_LOC, PACKET_IPv6_LOC, PACKET_RESV_LOC })
		listeners.push_back(capture(location, PACKET_FETCH, all()));
	Send send = frame();
	const uint8_t lldp[] = { 0x01, 0x80, 0xc2, 0, 0, 0x0e };
	std::memcpy(send.data.data(), lldp, sizeof lldp);
	EXPECT_EQ(sent(sender, send).left.size(), 1u);
	for (Socket &listener : listeners)
		EXPECT_FALSE(listener.receive_now());
}

TEST_F(Local, a_debug_send_is_traced_by_the_hook)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	Send send = frame().with({});
	send.control.pkt_ifx = lab::kPortB;
	for (uint32_t flags : { 0u, uint32_t(MOX_SEND_DEBUG) }) {
		send.control.flags = flags;
		Trial trial = sent(sender, send, true);
		EXPECT_EQ(
			bool(HasLineLike(
				trial.lines,
				"MOX-PACKET-RCV: rcv pkt %p, loc PACKET_LOCAL_LOC, src_intf: port-b, "
				"src_ifx: 212, in vsd: 0")),
			flags != 0);
	}
	listener.drain();
}

TEST_F(Local, a_clone_that_fails_costs_the_listener_its_copy_and_nothing_else)
{
	Socket sender(SOCK_RAW), listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	lab::fail(lab::Fail::Clone, 1);
	Trial trial = sent(sender, frame());
	EXPECT_EQ(trial.result, 60);
	EXPECT_EQ(trial.left.size(), 1u);
	EXPECT_FALSE(listener.receive_now());
}

TEST_F(Local, an_unprivileged_process_may_send)
{
	pid_t child = ::fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		if (::setgid(65534) || ::setuid(65534))
			::_exit(2);
		Socket socket(SOCK_RAW);
		::_exit(frame().by(socket.fd()) == 60 ? 0 : 1);
	}
	int status = -1;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(platform().left().all.size(), 1u);
}

TEST_F(Local, the_platforms_interfaces_know_no_namespace)
{
	std::thread([&] {
		ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
		Socket socket(SOCK_RAW);
		EXPECT_EQ(leaves(socket, frame()).ifindex, lab::kPortA);
	}).join();
}

} // namespace
