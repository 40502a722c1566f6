// SPDX-License-Identifier: GPL-2.0-only
// Delivery: who gets a frame, what it looks like, what is dropped and counted.
#include "module_fixture.h"

namespace {

using namespace packets;
namespace ef = platform::ef;

class Deliver : public ModuleTest {
protected:
	// The seven locations by hook, and one frame that every one of them passes on.
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

TEST_F(Deliver, frame__arrives_whole_with_its_headers_marked)
{
	Sock raw, dgram;
	raw.capture(PACKET_LEV2_LOC, PACKET_COPY);
	dgram.capture(PACKET_LEV2_LOC, PACKET_COPY, kDgram);
	frame(PACKET_LEV2_LOC, { .outer_tci = 0xe123 }, lldp);
	ASSERT_EQ(raw.queued(), 1u);
	const sk_buff &r = raw.buffer();
	EXPECT_EQ(::Bytes(r.data(), r.data() + r.len), lldp);
	EXPECT_EQ(r.mac, 0u);
	EXPECT_EQ(r.network, 14u);
	EXPECT_EQ(r.iif, 7u);
	EXPECT_EQ(r.vlan, 0x123);
	EXPECT_FALSE(r.has_dev);
	EXPECT_EQ(r.owner, raw.sk);
	EXPECT_EQ(raw.sk->rmem, int(r.truesize));
	EXPECT_EQ(raw.sk->data_ready, 1u);
	EXPECT_EQ(raw.po().recv_packets, 1u);
	ASSERT_EQ(dgram.queued(), 1u);
	const sk_buff &d = dgram.buffer();
	EXPECT_EQ(::Bytes(d.data(), d.data() + d.len), ::Bytes(lldp.begin() + 14, lldp.end()));
	EXPECT_EQ(g_alloc_skb_num, 2u);
}

TEST_F(Deliver, dgram__without_layer2_header_loses_nothing)
{
	Sock s;
	s.capture(PACKET_IPv4_LOC, PACKET_COPY, kDgram);
	::Bytes ip = ipv4(1, { 10, 0, 0, 1 }, ::Bytes(30, 1));
	frame(PACKET_IPv4_LOC, { .kind = 1, .l2_len = 0 }, ip);
	ASSERT_EQ(s.queued(), 1u);
	EXPECT_EQ(s.buffer().len, ip.size());
	EXPECT_EQ(s.ctrl().flags, 0x1000u);
	EXPECT_EQ(s.ctrl().eth_type, 0);
}

TEST_F(Deliver, dgram__shorter_than_its_layer2_header_stays_as_it_is)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY, kDgram);
	frame(PACKET_LEV2_LOC, { .l2_len = 14, .total = 10 }, eth(0x88cc));
	ASSERT_EQ(s.queued(), 1u);
	EXPECT_EQ(s.buffer().len, 10u);
}

TEST_F(Deliver, ctrl__every_field_and_nothing_else)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	::Bytes b = efbuff({ .kind = 2, .inner_tci = 0xfabc, .outer_tci = 0xa123, .source = port },
			   lldp);
	auto put = [&](size_t at, auto v) { memcpy(&b[at], &v, sizeof v); };
	put(64, 0x64646464u);
	put(68, 0x68686868u);
	put(72, u8{ 0x72 });
	put(144, u8{ 0x91 });
	put(146, u16{ 0x9293 });
	put(148, u16{ 0x9495 });
	put(172, 0x17217217u);
	put(188, u16{ 0x1881 });
	void *e = efmp().efbuff(b);
	hook(mox_packet_lev2_rcv, e);
	drain();
	ASSERT_EQ(s.queued(), 1u);
	mox_packet_ctrl_info want{};
	want.pkt_ifx = 7;
	want.pkt_origifx = 0x68686868;
	want.pkt_l2ifx = 0x64646464;
	want.eth_type = __builtin_bswap16(0x88cc);
	want.vlan = 0x1235; // id 0x123 above priority 5
	want.word28 = 0x17217217;
	want.inner_vlan = want.ex_inner_vlan = 0x0abc;
	want.l2_len = 14;
	want.half38 = 0x1881;
	want.wlan_id = 0x9293;
	want.ap_wlan_id = 0x9495;
	want.radio_id = 0x91;
	want.proxy_capture = 0x72;
	EXPECT_EQ(memcmp(s.buffer().cb, &want, 48), 0);
}

TEST_F(Deliver, ctrl__flags)
{
	const struct {
		u32 flags, wlan;
		u16 l2;
		u32 want;
	} cases[] = {
		{ 0, 0, 14, 0 },
		{ 0x4000, 0, 14, 0x00020002 },
		{ 0x40000, 0, 14, 0x4 },
		{ 0x80, 0, 14, 0x800 },
		{ 0, 0, 0, 0x1000 },
		{ 0, 0x800000, 14, 0x80000 },
		{ 0xffffffff, 0xffb3ffff | 0x800000, 0, 0x000a1802 | 0x20004 },
		{ 0xfffbbf7f, 0xff7bffff & ~0x48000u, 14, 0 },
	};
	for (auto &c : cases) {
		Sock s;
		s.capture(PACKET_IPv4_LOC, PACKET_COPY);
		frame(PACKET_IPv4_LOC,
		      { .kind = 1, .l2_len = c.l2, .wlan_flags = c.wlan, .flags = c.flags },
		      eth(0x0800) + ipv4(1, { 10, 0, 0, 1 }, {}));
		ASSERT_EQ(s.queued(), 1u);
		EXPECT_EQ(s.ctrl().flags, c.want) << std::hex << c.flags;
	}
}

TEST_F(Deliver, order__regulars_in_treatment_order_until_a_trap)
{
	Sock copy, fetch, trap, late_trap, local;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	fetch.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	local.capture(PACKET_LEV2_LOC, PACKET_COPY_LOCAL);
	std::vector<const void *> order;
	kernel().at[Point::kDataReady] = [&](const void *sk) { order.push_back(sk); };
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(order, (std::vector<const void *>{ fetch.sk, copy.sk, local.sk }));
	order.clear();
	trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	late_trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(order, (std::vector<const void *>{ late_trap.sk }));
}

TEST_F(Deliver, order__local_fetch_stands_before_traps)
{
	Sock trap, local;
	trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	local.capture(PACKET_LEV2_LOC, PACKET_FETCH_LOCAL);
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(local.queued(), 1u);
	EXPECT_EQ(trap.queued(), 1u);
}

TEST_F(Deliver, trap__stops_even_when_its_socket_is_full)
{
	Sock copy, trap;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	trap.sk->rcvbuf = 100;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(trap.po().rcvbuf_full_drops, 1u);
	EXPECT_EQ(trap.queued(), 0u);
	EXPECT_EQ(copy.queued(), 0u);
}

TEST_F(Deliver, trap__without_a_buffer_does_not_stop)
{
	Sock copy, trap;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	kernel().fail(Fail::kSkbAlloc);
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(trap.queued(), 0u);
	EXPECT_EQ(copy.queued(), 1u);
	EXPECT_EQ(g_packet_thread_debug.alloc_skb_failed, 1u);
	EXPECT_EQ(g_alloc_skb_num, 1u);
	EXPECT_EQ(trap.refs(), 3u);
}

TEST_F(Deliver, treatment_none_and_other_vsd_get_nothing)
{
	Sock none, vsd, copy;
	none.capture(PACKET_LEV2_LOC, PACKET_TREATMENT_NONE);
	vsd.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	vsd.po().vsd = 3;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(none.queued() + vsd.queued(), 0u);
	EXPECT_EQ(copy.queued(), 1u);
	EXPECT_EQ(vsd.refs(), 3u);
}

TEST_F(Deliver, reserved_locations_get_only_their_interfaces_frames)
{
	Sock two, three, resv;
	two.capture(PACKET_LEV2_RESV_LOC, PACKET_COPY);
	three.capture(PACKET_LEV3_RESV_LOC, PACKET_COPY);
	resv.capture(PACKET_RESV_LOC, PACKET_COPY);
	frame(PACKET_RESV_LOC, { .dest = fake::word(efmp().interfaces[4094]) }, lldp);
	frame(PACKET_RESV_LOC, { .dest = fake::word(efmp().interfaces[4095]) }, lldp);
	frame(PACKET_RESV_LOC, { .dest = fake::word(efmp().interfaces[4095]) }, lldp);
	frame(PACKET_RESV_LOC, {}, lldp);
	EXPECT_EQ(two.queued(), 1u);
	EXPECT_EQ(three.queued(), 2u);
	EXPECT_EQ(resv.queued(), 4u);
}

TEST_F(Deliver, location_number_has_no_say_in_what_is_delivered)
{
	for (u32 location : { 1u, 2u, 3u, 4u, 7u }) {
		Sock s;
		s.capture(location, PACKET_FETCH);
		frame(location, {}, lldp);
		EXPECT_EQ(s.queued(), 1u) << location;
	}
}

// --------------------------------------------------------------------------
// Drops

TEST_F(Deliver, filter__its_accepted_packets_are_dropped_its_rejected_delivered_whole)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	s.sk->has_filter = true;
	s.sk->verdict = 0;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.queued(), 0u);
	EXPECT_EQ(s.po().filter_drops, 1u);
	EXPECT_EQ(g_alloc_skb_num, 0u);
	for (int verdict : { -1, -12, -2147483647 }) {
		s.sk->verdict = verdict;
		frame(PACKET_LEV2_LOC, {}, lldp);
		EXPECT_EQ(s.buffer(s.queued() - 1).len, lldp.size());
	}
	EXPECT_EQ(s.queued(), 3u);
	EXPECT_EQ(s.po().recv_packets, 3u);
}

TEST_F(Deliver, filter__sees_the_dgram_packet_without_its_header_and_may_trim)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY, kDgram);
	s.sk->has_filter = true;
	s.sk->verdict = 20; // no kernel answers so; the reading allows it
	frame(PACKET_LEV2_LOC, {}, lldp);
	ASSERT_EQ(s.queued(), 1u);
	EXPECT_EQ(s.buffer().len, 20u);
	s.sk->verdict = 46;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.buffer(1).len, 46u);
}

TEST_F(Deliver, rcvbuf__the_sum_must_stay_below_the_limit)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	int one = fake::truesize(lldp.size());
	s.sk->rcvbuf = 2 * one;
	frame(PACKET_LEV2_LOC, {}, lldp);
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.queued(), 1u);
	EXPECT_EQ(s.po().rcvbuf_full_drops, 1u);
	s.sk->rcvbuf = 2 * one + 1;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.queued(), 2u);
	EXPECT_EQ(s.po().recv_packets, 2u);
	EXPECT_EQ(s.sk->data_ready, 2u);
}

TEST_F(Deliver, drops__are_traced_for_marked_packets_only)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	auto lines = [&](u32 flags) {
		kernel().log.clear();
		frame(PACKET_LEV2_LOC, { .flags = flags }, lldp);
		return kernel().log.empty() ? "" : kernel().log.back().text;
	};
	s.sk->has_filter = true;
	EXPECT_EQ(lines(0), "");
	EXPECT_EQ(lines(0x4000), tagged("MOX-PACKET-FW: drop packet by socket filter rules.\n"));
	s.sk->has_filter = false;
	s.sk->rcvbuf = 10;
	EXPECT_EQ(lines(0), "");
	EXPECT_EQ(lines(0x4000),
		  tagged("MOX-PACKET-FW: drop packet for socket recvbuff is full.\n"));
	kernel().fail(Fail::kSkbAlloc);
	EXPECT_EQ(lines(0), "");
	kernel().fail(Fail::kSkbAlloc);
	EXPECT_EQ(lines(0x4000), tagged("MOX-PACKET-FW: alloc skb failed.\n"));
}

TEST_F(Deliver, drops__trim_failure)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	s.sk->has_filter = true;
	s.sk->verdict = 20;
	kernel().nonlinear_skbs = true;
	kernel().fail(Fail::kSkbTrim);
	frame(PACKET_LEV2_LOC, { .flags = 0x4000 }, lldp);
	EXPECT_EQ(s.po().trim_fail_drops, 1u);
	EXPECT_EQ(s.queued(), 0u);
	EXPECT_EQ(g_alloc_skb_num, 0u);
	EXPECT_EQ(kernel().log.back().text,
		  tagged("MOX-PACKET-FW: drop packet for trim skb fail.\n"));
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(s.buffer().len, 20u);
}

// --------------------------------------------------------------------------
// Trace

TEST_F(Deliver, trace__lines_of_a_location)
{
	const struct {
		u32 location, treatment;
		const char *loc, *what;
	} cases[] = {
		{ 1, PACKET_COPY, "PACKET_LOCAL_LOC", "packet-copy" },
		{ 2, PACKET_TRAP, "PACKET_LEV2_LOC", "packet-trap" },
		{ 3, PACKET_FETCH, "PACKET_IPv4_LOC", "packet-fetch" },
		{ 4, PACKET_COPY, "PACKET_IPv6_LOC", "packet-copy" },
		{ 7, PACKET_TRAP, "PACKET_RESV_LOC", "packet-trap" },
		{ 9, PACKET_COPY, "PACKET_LEV2_RESV_LOC", "packet-copy" },
		{ 10, PACKET_COPY, "PACKET_LEV3_RESV_LOC", "packet-copy" },
	};
	kernel().comm = "lldpd";
	for (auto &c : cases) {
		SCOPED_TRACE(c.loc);
		Sock s;
		s.capture(c.location, c.treatment);
		u32 dest = c.location == 9 ? 4094 : 4095;
		void *e = make({ .flags = 0x4000,
				 .outer_tci = 0x0fff,
				 .code = 1,
				 .sub_code = 2,
				 .source = port,
				 .dest = fake::word(efmp().interfaces[dest]) },
			       lldp);
		hook(kHooks[std::min(c.location, 7u) - 1].func, e);
		const void *queued =
			g_cpu_pkt_que[0][kHooks[std::min(c.location, 7u) - 1].queue].head;
		char address[16];
		snprintf(address, sizeof address, "%08x", fake::word(queued));
		kernel().log.clear();
		drain();
		EXPECT_EQ(
			kernel().text(),
			tagged(std::string("MOX-PACKET-FW: rcv pkt: ") + address + ", loc " +
			       c.loc + ", " + c.what +
			       " by process lldpd in vsd 0 sk_refcnt 4.\n") +
				tagged("MOX-PACKET-FW: src_intf: eth7, src_ifx: 7\n") +
				tagged("MOX-PACKET-FW: src_mac: 02:00:00:00:00:02, dst_mac: 02:00:00:00:00:01, "
				       "eth_type: 88cc, vid: 4095\n") +
				tagged("MOX-PACKET-RCV: code: 1, sub_code: 2\n") +
				tagged("MOX-PACKET-FW: packet type: 2\n"));
	}
}

TEST_F(Deliver, trace__local_treatments_are_called_fetch)
{
	Sock copy, local;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	local.capture(PACKET_LEV2_LOC, PACKET_COPY_LOCAL);
	frame(PACKET_LEV2_LOC, { .flags = 0x4000 }, lldp);
	EXPECT_EQ(kernel().count_said("packet-copy by process"), 1u);
	EXPECT_EQ(kernel().count_said("packet-fetch by process"), 1u);
}

TEST_F(Deliver, trace__ip_lines_have_the_forward_tag)
{
	Sock v4, v6;
	v4.capture(PACKET_IPv4_LOC, PACKET_COPY);
	v6.capture(PACKET_IPv6_LOC, PACKET_COPY);
	frame(PACKET_IPv4_LOC, { .kind = 1, .flags = 0x4000 },
	      eth(0x0800) + ipv4(17, { 10, 0, 0, 1 }, ports(68, 67, 9)));
	EXPECT_TRUE(kernel().said(tagged(
		"MOX-PACKET-FW: ip: 10.0.0.1, ip protocol: 17, dst port: 67, src port: 68\n")));
	const std::string ip =
		"MOX-PACKET-FW: ip: 2001:0000:0000:0000:0000:0000:0000:0001, ip protocol: ";
	const ::Bytes host = addr6(0x20, 1, 1);
	frame(PACKET_IPv6_LOC, { .kind = 27, .flags = 0x4000 },
	      eth(0x86dd) + ipv6(17, host, ports(1, 2)));
	EXPECT_TRUE(kernel().said(tagged(ip + "17, dst port: 2, src port: 1\n")));
	frame(PACKET_IPv6_LOC, { .kind = 27, .flags = 0x4000 },
	      eth(0x86dd) + ipv6(58, host, { 135, 0, 0, 0 }));
	EXPECT_TRUE(kernel().said(tagged(ip + "58, icmpv6 type: 135\n")));
	frame(PACKET_IPv6_LOC, { .kind = 27, .flags = 0x4000 }, eth(0x86dd) + ipv6(59, host, {}));
	EXPECT_TRUE(kernel().said(tagged(ip + "0\n")));
}

TEST_F(Deliver, trace__unmarked_packets_print_nothing_whatever_the_switches)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	memset(mox_packet_debug + 1, 1, sizeof mox_packet_debug - 1);
	kernel().log.clear();
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_TRUE(kernel().log.empty());
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

// --------------------------------------------------------------------------
// WLAN

TEST_F(Deliver, wlan__trap_copies_and_stops_no_other)
{
	Sock trap, copy, fetch;
	copy.capture(PACKET_WLAN_LOC, PACKET_COPY);
	trap.capture(PACKET_WLAN_LOC, PACKET_TRAP);
	EXPECT_EQ(frame(PACKET_WLAN_LOC, { .wlan_flags = 0x48000 }, lldp), 0u);
	EXPECT_EQ(trap.queued(), 1u);
	EXPECT_EQ(copy.queued(), 1u);
	trap.release();
	fetch.capture(PACKET_WLAN_LOC, PACKET_FETCH);
	EXPECT_EQ(frame(PACKET_WLAN_LOC, { .wlan_flags = 0x48000 }, lldp), 3u);
	EXPECT_EQ(copy.queued(), 2u);
}

TEST_F(Deliver, wlan__vsd_and_treatment_none_get_nothing)
{
	Sock none, vsd, copy;
	none.capture(PACKET_WLAN_LOC, PACKET_TREATMENT_NONE);
	vsd.capture(PACKET_WLAN_LOC, PACKET_COPY);
	vsd.po().vsd = 1;
	copy.capture(PACKET_WLAN_LOC, PACKET_COPY);
	frame(PACKET_WLAN_LOC, { .wlan_flags = 0x40000 }, lldp);
	EXPECT_EQ(none.queued() + vsd.queued(), 0u);
	EXPECT_EQ(copy.queued(), 1u);
}

TEST_F(Deliver, wlan__trace_lines)
{
	Sock s;
	s.capture(PACKET_WLAN_LOC, PACKET_COPY);
	const struct {
		u32 flags;
		::Bytes bytes;
		const char *first;
	} cases[] = {
		{ 0x48000, lldp,
		  "rcv wlan mgnt pkt: %s, loc PACKET_WLAN_LOC, packet-copy by process captured in vsd 0.\n" },
		{ 0x40000, lldp,
		  "rcv wlan data pkt: %s, loc PACKET_WLAN_LOC, packet-copy by process captured in vsd 0.\n" },
		{ 0, eth(0x888e) + ::Bytes{ 1, 3 },
		  "rcv pkt: %s, eth type 34958, eapol type 3, loc PACKET_WLAN_LOC, "
		  "packet-copy by process captured in vsd 0.\n" },
	};
	for (auto &c : cases) {
		void *e = make(
			{ .wlan_flags = c.flags, .flags = 0x4000, .outer_tci = 9, .source = port },
			c.bytes);
		hook(mox_packet_wlan_in_rcv, e);
		char address[16], first[200];
		snprintf(address, sizeof address, "%08x",
			 fake::word(g_cpu_pkt_que[0][kQueueWlan].head));
		snprintf(first, sizeof first, c.first, address);
		kernel().log.clear();
		drain();
		EXPECT_EQ(
			kernel().text(),
			tagged(std::string("MOX-PACKET-FW: ") + first) +
				tagged("MOX-PACKET-FW: packet type: 2, src_intf: eth7, src_ifx: 7, vid: 9\n") +
				tagged("MOX-PACKET-FW: radio id: 0, wlan id: 0, ap wlan id: 0\n"));
	}
}

TEST_F(Deliver, globals__are_the_same_entry_points)
{
	u32 budget = 1000;
	Sock s, w;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	w.capture(PACKET_WLAN_LOC, PACKET_FETCH);
	hook(mox_packet_lev2_rcv, make({ .source = port }, lldp));
	hook(mox_packet_wlan_in_rcv, make({ .wlan_flags = 0x40000, .source = port }, lldp));
	mox_packet_deal_regular_lib_pkt_global(2, &g_lev2_packet_regular_lib,
					       &g_cpu_pkt_que[0][kQueueLev2], &budget);
	mox_packet_deal_regular_lib_wlan_pkt_global(&g_wlan_packet_regular_lib,
						    &g_cpu_pkt_que[0][kQueueWlan], &budget);
	EXPECT_EQ(s.queued(), 1u);
	EXPECT_EQ(w.queued(), 1u);
	EXPECT_EQ(budget, 998u);
}

// A socket released while its frame waits in a queue gets nothing and does no harm.
TEST_F(Deliver, race__release_between_hook_and_delivery)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	hook(mox_packet_lev2_rcv, make({ .source = port }, lldp));
	s.release();
	drain();
	EXPECT_EQ(efmp().freed, 1u);
}

} // namespace
