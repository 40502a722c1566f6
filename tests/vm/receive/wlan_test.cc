// SPDX-License-Identifier: GPL-2.0-only
// The WLAN location: its own summary, its own short list of rule types, two hooks, and a trap that only copies.
#include "receive/match_table.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

class Wlan : public VmTest {
protected:
	void wlan(const std::vector<MatchRow> &rows)
	{
		try_rows(PACKET_WLAN_LOC, Hook::WlanIn, rows);
		try_rows(PACKET_WLAN_LOC, Hook::WlanOut, rows);
	}
};

TEST_F(Wlan, both_hooks_come_and_go_together)
{
	lab::clear_registration_log();
	Socket socket = capture(PACKET_WLAN_LOC, PACKET_COPY, all());
	EXPECT_TRUE(lab::registered(Hook::WlanIn));
	EXPECT_TRUE(lab::registered(Hook::WlanOut));
	EXPECT_EQ(lab::registrations(), 2u);
	socket.close();
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Wlan, ethertypes_of_frames_that_are_not_80211)
{
	wlan({ row("equal", ethertype(0x0806), arp(1), true),
	       row("another", ethertype(0x0807), arp(1), false),
	       row("any", ethertype(3), arp(1), true),
	       row("802.11 frames have none", ethertype(0x88b5), wlan80211(false), false),
	       row("but any is any", ethertype(3), wlan80211(false), true),
	       row("without layer 2 it is 0", ethertype(0), without_l2(ipv4(17, udp(1, 2))), true),
	       row("without layer 2 nothing else", ethertype(0x0800),
		   without_l2(ipv4(17, udp(1, 2))), false) });
}

TEST_F(Wlan, eapol_types)
{
	Frame hidden = eapol(3);
	hidden.wlan_flags = lab::kWlan80211;
	wlan({ row("equal", u8s(14, { 3 }), eapol(3), true),
	       row("another", u8s(14, { 2 }), eapol(3), false),
	       row("not EAPOL", u8s(14, { 0 }), plain(), false),
	       row("802.11 frames are not parsed", u8s(14, { 3 }), hidden, false),
	       row("EAP of Wi-Fi Simple Config is EAPOL type 0", u8s(14, { 0 }), wps_identity(),
		   true) });
}

TEST_F(Wlan, wifi_simple_config)
{
	Frame truncated_name = wps_identity();
	truncated_name.bytes[23 + 28] = '1';
	Frame first_letter = wps_identity();
	first_letter.bytes[23] = 'w';
	Frame other_vendor_type = wps_expanded();
	other_vendor_type.bytes[29] = 2;
	Frame not_expanded = wps_expanded();
	not_expanded.bytes[22] = 0xfd;
	Frame not_eapol = wps_identity();
	not_eapol.bytes[13] = 0x8f;
	wlan({ row("the enrollee's identity", u8s(15, { 0 }), wps_identity(), true),
	       row("the value is not compared", u8s(15, { 99 }), wps_identity(), true),
	       row("the expanded type", u8s(15, { 1 }), wps_expanded(), true),
	       row("last letter of the identity", u8s(15, { 0 }), truncated_name, false),
	       row("first letter of the identity", u8s(15, { 0 }), first_letter, false),
	       row("another vendor type", u8s(15, { 0 }), other_vendor_type, false),
	       row("another EAP type", u8s(15, { 0 }), not_expanded, false),
	       row("not EAPOL", u8s(15, { 0 }), not_eapol, false),
	       row("plain EAPOL", u8s(15, { 0 }), eapol(0), false) });
}

TEST_F(Wlan, management_frames)
{
	Frame bit_alone = plain();
	bit_alone.wlan_flags = lab::kWlanMgmt;
	wlan({ row("management", flag(18), wlan80211(true), true),
	       row("802.11 data", flag(18), wlan80211(false), false),
	       row("the management bit alone", flag(18), bit_alone, false),
	       row("Ethernet", flag(18), plain(), false) });
}

TEST_F(Wlan, all)
{
	wlan({ row("Ethernet", vm::all(), plain(), true),
	       row("802.11", vm::all(), wlan80211(true), true) });
}

TEST_F(Wlan, the_other_types_never_match_here)
{
	Frame datagram = ipv4(17, udp(68, 67));
	Frame six = ipv6(58, icmpv6(135), addr6({ 0xff, 5 }, 1));
	wlan({ row("code", rule(0, { Bytes{ 0, 0 } }), plain(), false),
	       row("destination MAC", rule(1, { Bytes(kDst.begin(), kDst.end()) }), plain(), false),
	       row("source MAC", rule(2, { Bytes(kSrc.begin(), kSrc.end()) }), plain(), false),
	       row("SNAP", be16s(4, { 3 }), snap(0x809b), false),
	       row("IPv4 protocol", u8s(5, { 17 }), datagram, false),
	       row("IPv6 protocol", u8s(6, { 58 }), six, false),
	       row("IPv4 destination port", be16s(7, { 67 }), datagram, false),
	       row("IPv4 source port", be16s(8, { 68 }), datagram, false),
	       row("IPv6 port", be16s(9, { 2 }), ipv6(17, udp(1, 2)), false),
	       row("interface", u32s(10, { lab::kPortA }), plain(), false),
	       row("ICMPv6", u8s(11, { 135 }), six, false),
	       row("IPv4 multicast", flag(12), ipv4(17, udp(1, 2), 0xef010101), false),
	       row("IPv6 multicast", flag(13), six, false),
	       row("ARP", rule(19, { be16(0x0100) }), arp(0x0100), false) });
}

TEST_F(Wlan, the_owner_is_excluded)
{
	Socket socket;
	ASSERT_EQ(socket.add(flag(18)), 0);
	ASSERT_EQ(socket.add(u32s(PACKET_PID_T, { 77 })), 0);
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	ASSERT_EQ(socket.location(PACKET_WLAN_LOC), 0);
	Frame frame = wlan80211(true);
	EXPECT_EQ(put(Hook::WlanIn, frame), lab::kTaken);
	frame.attr = 77;
	EXPECT_EQ(put(Hook::WlanIn, frame), lab::kGoOn);
	EXPECT_EQ(socket.drain(), 1u);
}

TEST_F(Wlan, copy_and_trap_copy_and_fetch_takes)
{
	struct Row {
		uint32_t treatment, answer;
	};
	for (Row row : { Row{ PACKET_COPY, lab::kGoOn },
			 { PACKET_FETCH, lab::kTaken },
			 { PACKET_TRAP, lab::kGoOn } })
		for (Hook hook : { Hook::WlanIn, Hook::WlanOut }) {
			Socket socket = capture(PACKET_WLAN_LOC, row.treatment, vm::all());
			EXPECT_EQ(put(hook, plain()), row.answer) << row.treatment;
			EXPECT_TRUE(socket.receive()) << row.treatment;
		}
}

TEST_F(Wlan, a_trap_does_not_end_the_delivery)
{
	Socket copy = capture(PACKET_WLAN_LOC, PACKET_COPY, vm::all());
	Socket older = capture(PACKET_WLAN_LOC, PACKET_TRAP, vm::all());
	Socket newer = capture(PACKET_WLAN_LOC, PACKET_TRAP, vm::all());
	EXPECT_EQ(put(Hook::WlanIn, plain()), lab::kGoOn);
	EXPECT_EQ(copy.drain() + older.drain() + newer.drain(), 3u);
}

TEST_F(Wlan, the_record_of_an_80211_frame)
{
	Socket socket = capture(PACKET_WLAN_LOC, PACKET_COPY, flag(18));
	ASSERT_EQ(socket.ctrl(true), 0);
	Frame frame = wlan80211(true);
	frame.wlan_flags |= lab::kWlan800000;
	frame.radio_id = 1;
	frame.wlan_id = 0x1234;
	frame.ap_wlan_id = 0x5678;
	put(Hook::WlanIn, frame);
	auto packet = socket.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(packet->bytes, frame.bytes);
	EXPECT_EQ(packet->info.flags, 0x80000u);
	EXPECT_EQ(packet->info.radio_id, 1);
	EXPECT_EQ(packet->info.wlan_id, 0x1234);
	EXPECT_EQ(packet->info.ap_wlan_id, 0x5678);
	EXPECT_EQ(packet->info.l2_len, 24);
	EXPECT_EQ(packet->info.pkt_ifx, lab::kPortA);
}

TEST_F(Wlan, a_failed_clone_loses_the_copy_and_nothing_else)
{
	Socket socket = capture(PACKET_WLAN_LOC, PACKET_COPY, vm::all());
	for (Hook hook : { Hook::WlanIn, Hook::WlanOut }) {
		lab::fail(lab::Fail::Clone, 1);
		EXPECT_EQ(put(hook, plain()), lab::kGoOn);
		EXPECT_FALSE(socket.receive_now());
		EXPECT_EQ(put(hook, plain()), lab::kGoOn);
		EXPECT_TRUE(socket.receive());
	}
	EXPECT_EQ(socket.stats().drops, 0u) << "nothing is counted";
}

} // namespace
