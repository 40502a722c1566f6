// SPDX-License-Identifier: GPL-2.0-only
// All twenty rule types at the pipeline's layer-2 point, each with frames that match and frames that just do not.
#include <arpa/inet.h>

#include "receive/match_table.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;

class Rules : public VmTest {
protected:
	void lev2(const std::vector<MatchRow> &rows)
	{
		try_rows(PACKET_LEV2_LOC, lab::Hook::Lev2, rows);
	}
};

Frame coded(uint8_t code, uint8_t sub_code)
{
	Frame frame = plain();
	frame.code = code;
	frame.sub_code = sub_code;
	return frame;
}

Frame with_attr(uint32_t attr)
{
	Frame frame = plain();
	frame.attr = attr;
	return frame;
}

Frame from(uint32_t ifindex)
{
	Frame frame = plain();
	frame.src_ifx = ifindex;
	return frame;
}

Rule mac(uint16_t type, Mac address)
{
	return rule(type, { Bytes(address.begin(), address.end()) });
}

TEST_F(Rules, type_0_packet_code)
{
	Rule wanted = rule(PACKET_PACKET_CODE_EQUAL, { Bytes{ 7, 9 } });
	lev2({ row("both equal", wanted, coded(7, 9), true),
	       row("code differs", wanted, coded(8, 9), false),
	       row("sub-code differs", wanted, coded(7, 8), false),
	       row("swapped", wanted, coded(9, 7), false),
	       row("neither set", wanted, plain(), false),
	       row("zero is a value", rule(PACKET_PACKET_CODE_EQUAL, { Bytes{ 0, 0 } }), plain(),
		   true) });
}

TEST_F(Rules, type_1_destination_mac)
{
	Rule wanted = mac(PACKET_DEST_MAC_EQUAL, kDst);
	Mac last = kDst, first = kDst;
	last[5] ^= 1;
	first[0] ^= 4;
	lev2({ row("equal", wanted, plain(), true),
	       row("last byte", mac(PACKET_DEST_MAC_EQUAL, last), plain(), false),
	       row("first byte", mac(PACKET_DEST_MAC_EQUAL, first), plain(), false),
	       row("the source is not the destination", mac(PACKET_DEST_MAC_EQUAL, kSrc), plain(),
		   false),
	       row("zero address without layer 2", mac(PACKET_DEST_MAC_EQUAL, Mac{}),
		   without_l2(ipv4(17, udp(1, 2))), true),
	       row("no other without layer 2", wanted, without_l2(ipv4(17, udp(1, 2))), false) });
}

TEST_F(Rules, type_2_source_mac)
{
	Rule wanted = mac(PACKET_SRC_MAC_EQUAL, kSrc);
	Mac last = kSrc;
	last[5] ^= 0x80;
	lev2({ row("equal", wanted, plain(), true),
	       row("last byte", mac(PACKET_SRC_MAC_EQUAL, last), plain(), false),
	       row("the destination is not the source", mac(PACKET_SRC_MAC_EQUAL, kDst), plain(),
		   false),
	       row("zero address without layer 2", mac(PACKET_SRC_MAC_EQUAL, Mac{}),
		   without_l2(ipv4(17, udp(1, 2))), true) });
}

TEST_F(Rules, type_3_ethertype)
{
	lev2({ row("equal", ethertype(0x0806), arp(1), true),
	       row("off by one", ethertype(0x0807), arp(1), false),
	       row("bytes swapped", ethertype(0x0608), arp(1), false),
	       row("one of several", be16s(PACKET_ETH_PROT_EQUAL, { 0x1111, 0x0806, 0x2222 }),
		   arp(1), true),
	       row("protocol 3 is any", ethertype(3), arp(1), true),
	       row("protocol 3 swapped is not", ethertype(0x0300), arp(1), false),
	       row("any also without layer 2", ethertype(3), without_l2(ipv4(17, udp(1, 2))), true),
	       row("EtherType is 0 without layer 2", ethertype(0), without_l2(ipv4(17, udp(1, 2))),
		   true),
	       row("whatever follows there", ethertype(0x0800), without_l2(ipv4(17, udp(1, 2))),
		   false) });
}

TEST_F(Rules, type_4_snap_type)
{
	Rule wanted = be16s(PACKET_SNAP_ETH_TYPE_EQUAL, { 0x809b });
	Frame half = snap(0x809b);
	half.bytes[15] = 0xab;
	Frame other_half = snap(0x809b);
	other_half.bytes[14] = 0x42;
	lev2({ row("equal", wanted, snap(0x809b), true),
	       row("another type", wanted, snap(0x809c), false),
	       row("any", be16s(PACKET_SNAP_ETH_TYPE_EQUAL, { 3 }), snap(0x1234), true),
	       row("any needs LLC/SNAP", be16s(PACKET_SNAP_ETH_TYPE_EQUAL, { 3 }), plain(), false),
	       row("AA AB is no SNAP", wanted, half, false),
	       row("42 AA is no SNAP", wanted, other_half, false) });
}

TEST_F(Rules, type_5_ipv4_protocol)
{
	lev2({ row("equal", u8s(5, { 17 }), ipv4(17, udp(1, 2)), true),
	       row("another", u8s(5, { 6 }), ipv4(17, udp(1, 2)), false),
	       row("one of several", u8s(5, { 6, 1, 17 }), ipv4(17, udp(1, 2)), true),
	       row("IPv6 is not IPv4", u8s(5, { 17 }), ipv6(17, udp(1, 2)), false),
	       row("protocol 0 needs IPv4", u8s(5, { 0 }), plain(), false),
	       row("protocol 0 with IPv4", u8s(5, { 0 }), ipv4(0, Bytes(8)), true),
	       row("IPv4 without layer 2", u8s(5, { 1 }), without_l2(ipv4(1, Bytes(8))), true) });
}

TEST_F(Rules, an_ipv4_frame_of_another_kind_is_not_parsed)
{
	Frame frame = ipv4(17, udp(1, 2));
	frame.kind = lab::kKindOther;
	lev2({ row("the platform's kind decides, not the EtherType", u8s(5, { 17 }), frame,
		   false) });
}

TEST_F(Rules, type_6_ipv6_protocol)
{
	lev2({ row("equal", u8s(6, { 17 }), ipv6(17, udp(1, 2)), true),
	       row("another", u8s(6, { 6 }), ipv6(17, udp(1, 2)), false),
	       row("IPv4 is not IPv6", u8s(6, { 17 }), ipv4(17, udp(1, 2)), false),
	       row("ICMPv6", u8s(6, { 58 }), ipv6(58, icmpv6(128)), true) });
}

TEST_F(Rules, type_7_ipv4_destination_port)
{
	Rule wanted = be16s(7, { 53 });
	lev2({ row("UDP", wanted, ipv4(17, udp(1000, 53)), true),
	       row("TCP", wanted, ipv4(6, tcp(1000, 53)), true),
	       row("off by one", wanted, ipv4(17, udp(1000, 54)), false),
	       row("the source", wanted, ipv4(17, udp(53, 1000)), false),
	       row("swapped", be16s(7, { 0x3500 }), ipv4(17, udp(1, 53)), false),
	       row("IPv6", wanted, ipv6(17, udp(1, 53)), false),
	       row("SCTP has no ports here", wanted, ipv4(132, udp(1000, 53)), false),
	       row("behind IP options", wanted, ipv4(17, udp(1000, 53), 0x0a000002, 8), true),
	       row("port 0 never matches", be16s(7, { 0 }), ipv4(17, udp(1000, 0)), false) });
}

TEST_F(Rules, type_8_ipv4_source_port)
{
	Rule wanted = be16s(8, { 68 });
	lev2({ row("UDP", wanted, ipv4(17, udp(68, 67)), true),
	       row("TCP", wanted, ipv4(6, tcp(68, 67)), true),
	       row("the destination", wanted, ipv4(17, udp(67, 68)), false),
	       row("off by one", wanted, ipv4(17, udp(69, 67)), false),
	       row("IPv6", wanted, ipv6(17, udp(68, 67)), false),
	       row("port 0", be16s(8, { 0 }), ipv4(17, udp(0, 9)), false) });
}

TEST_F(Rules, ports_need_more_than_eight_bytes_behind_the_ip_header)
{
	// The bound is strict and 8 bytes for TCP as well: a datagram of exactly a UDP header has no ports.
	lev2({ row("UDP without data", be16s(7, { 53 }), ipv4(17, udp(1, 53, 0)), false),
	       row("UDP with one byte", be16s(7, { 53 }), ipv4(17, udp(1, 53, 1)), true),
	       row("nine bytes of TCP", be16s(7, { 53 }), ipv4(6, udp(1, 53, 1)), true),
	       row("UDP without data behind options", be16s(7, { 53 }),
		   ipv4(17, udp(1, 53, 0), 0x0a000002, 15), false) });
}

TEST_F(Rules, type_9_ipv6_destination_port)
{
	Rule wanted = be16s(9, { 547 });
	lev2({ row("UDP", wanted, ipv6(17, udp(546, 547)), true),
	       row("TCP", wanted, ipv6(6, tcp(1, 547)), true),
	       row("the source", wanted, ipv6(17, udp(547, 546)), false),
	       row("IPv4", wanted, ipv4(17, udp(546, 547)), false),
	       row("UDP without data is enough here", wanted, ipv6(17, udp(1, 547, 0)), true),
	       row("a short TCP header is not", wanted, ipv6(6, udp(1, 547, 8)), false),
	       row("port 0", be16s(9, { 0 }), ipv6(17, udp(546, 0)), false) });
}

TEST_F(Rules, type_10_source_interface)
{
	Rule wanted = u32s(10, { lab::kPortA });
	lev2({ row("equal", wanted, from(lab::kPortA), true),
	       row("another", wanted, from(lab::kPortB), false),
	       row("one of several", u32s(10, { 1, 2, lab::kPortB }), from(lab::kPortB), true),
	       row("all four bytes count", u32s(10, { lab::kPortA | 0x10000 }), from(lab::kPortA),
		   false) });
}

TEST_F(Rules, type_11_icmpv6_type)
{
	lev2({ row("equal", u8s(11, { 135 }), ipv6(58, icmpv6(135)), true),
	       row("another", u8s(11, { 136 }), ipv6(58, icmpv6(135)), false),
	       row("not ICMPv6", u8s(11, { 135 }), ipv6(17, udp(135, 135)), false),
	       row("too short for its type", u8s(11, { 135 }), ipv6(58, Bytes{ 135, 0, 0 }), false),
	       // A key of 0 passes whatever has no ICMPv6 type; the rule itself never matches 0, so the frame is taken and lost.
	       { "type 0", u8s(11, { 0 }), plain(), true, false } });
}

TEST_F(Rules, type_12_ipv4_multicast)
{
	Rule wanted = flag(PACKET_IPv4_MCAST_TRAFFIC);
	lev2({ row("239.1.1.1 UDP", wanted, ipv4(17, udp(1, 2), 0xef010101), true),
	       row("the first beyond 224.0.0.0/24", wanted, ipv4(17, udp(1, 2), 0xe0000100), true),
	       row("the last of 224.0.0.0/24", wanted, ipv4(17, udp(1, 2), 0xe00000ff), false),
	       row("224.0.0.1", wanted, ipv4(17, udp(1, 2), 0xe0000001), false),
	       row("239.255.255.255", wanted, ipv4(17, udp(1, 2), 0xefffffff), true),
	       row("240.0.0.0", wanted, ipv4(17, udp(1, 2), 0xf0000000), false),
	       row("223.255.255.255", wanted, ipv4(17, udp(1, 2), 0xdfffffff), false),
	       row("IGMP", wanted, ipv4(2, Bytes(8), 0xef010101), false),
	       row("unicast", wanted, ipv4(17, udp(1, 2)), false),
	       row("address 0", wanted, ipv4(17, udp(1, 2), 0), false),
	       row("not IPv4", wanted, plain(0x0800), false) });
}

TEST_F(Rules, type_13_ipv6_multicast)
{
	Rule wanted = flag(PACKET_IPv6_MCAST_TRAFFIC);
	auto to = [](uint8_t second) { return addr6({ 0xff, second }, 1); };
	lev2({ row("scope 5", wanted, ipv6(17, udp(1, 2), to(0x05)), true),
	       row("scope 3", wanted, ipv6(17, udp(1, 2), to(0x03)), true),
	       row("scope 2", wanted, ipv6(17, udp(1, 2), to(0x02)), false),
	       row("scope 0", wanted, ipv6(17, udp(1, 2), to(0x00)), false),
	       row("only the low 4 bits are the scope", wanted, ipv6(17, udp(1, 2), to(0x12)),
		   false),
	       row("flags do not hide the scope", wanted, ipv6(17, udp(1, 2), to(0x1e)), true),
	       row("unicast", wanted, ipv6(17, udp(1, 2)), false),
	       row("MLD query", wanted, ipv6(58, icmpv6(130), to(0x05)), false),
	       row("MLD report", wanted, ipv6(58, icmpv6(131), to(0x05)), false),
	       row("MLD done", wanted, ipv6(58, icmpv6(132), to(0x05)), false),
	       row("MLDv2 report", wanted, ipv6(58, icmpv6(143), to(0x05)), false),
	       row("neighbour solicitation", wanted, ipv6(58, icmpv6(135), to(0x05)), true),
	       row("ICMPv6 129", wanted, ipv6(58, icmpv6(129), to(0x05)), true),
	       row("ICMPv6 133", wanted, ipv6(58, icmpv6(133), to(0x05)), true),
	       row("ICMPv6 142", wanted, ipv6(58, icmpv6(142), to(0x05)), true),
	       row("ICMPv6 144", wanted, ipv6(58, icmpv6(144), to(0x05)), true),
	       row("not IPv6", wanted, plain(0x86dd), false) });
}

TEST_F(Rules, type_14_eapol_type)
{
	Frame both = eapol(0xaa, { 0, 0, 0, 0, 0x80, 0x9b });
	both.bytes[14] = 0xaa;
	lev2({ row("equal", u8s(14, { 3 }), eapol(3), true),
	       row("another", u8s(14, { 0 }), eapol(3), false),
	       row("type 0", u8s(14, { 0 }), eapol(0), true),
	       row("not EAPOL", u8s(14, { 0 }), plain(), false),
	       row("EAPOL and SNAP at once: EAPOL", u8s(14, { 0xaa }), both, true),
	       row("EAPOL and SNAP at once: SNAP", be16s(PACKET_SNAP_ETH_TYPE_EQUAL, { 3 }), both,
		   true) });
}

TEST_F(Rules, type_15_wps_is_never_true_here)
{
	lev2({ row("the enrollee's identity", u8s(15, { 0 }), wps_identity(), false),
	       row("any EAPOL", u8s(15, { 1 }), eapol(1), false) });
}

TEST_F(Rules, type_16_all)
{
	lev2({ row("plain", all(), plain(), true), row("IPv4", all(), ipv4(1, Bytes(8)), true),
	       row("without layer 2", all(), without_l2(ipv6(17, udp(1, 2))), true) });
}

TEST_F(Rules, type_17_excludes_its_owner)
{
	struct Row {
		const char *what;
		Rule rule;
		uint32_t attr;
		bool passes;
	};
	for (const Row &row :
	     { Row{ "another attribute", u32s(17, { 77 }), 78, true },
	       { "the attribute", u32s(17, { 77 }), 77, false },
	       { "one of several", u32s(17, { 1, 77 }), 77, false },
	       { "none", u32s(17, { 77 }), 0, true },
	       { "any passes 0", u32s(17, { 0xffffffff }), 0, true },
	       { "any excludes 5", u32s(17, { 0xffffffff }), 5, false },
	       { "0 excludes 0", u32s(17, { 0 }), 0, false },
	       { "any and 0 exclude all", u32s(17, { 0xffffffff, 0 }), 0, false } }) {
		SCOPED_TRACE(row.what);
		Socket socket;
		ASSERT_EQ(socket.add(ethertype(3)), 0);
		ASSERT_EQ(socket.add(row.rule), 0);
		ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
		ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
		EXPECT_EQ(put(lab::Hook::Lev2, with_attr(row.attr)),
			  row.passes ? lab::kTaken : lab::kGoOn);
		EXPECT_EQ(socket.receive_now().has_value(), row.passes);
	}
}

TEST_F(Rules, type_17_alone_is_registered_and_never_answers)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, u32s(17, { 77 }));
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
	EXPECT_EQ(RuleRecords::read().data[contract::kLiveEntries],
		  records_.data[contract::kLiveEntries])
		<< "no key";
	EXPECT_EQ(RuleRecords::read().data[17], records_.data[17] + 1)
		<< "but a datum like any other";
	EXPECT_EQ(put(lab::Hook::Lev2, plain()), lab::kGoOn);
	EXPECT_FALSE(socket.receive_now());
}

TEST_F(Rules, type_18_wlan_management_passes_here_as_a_key_and_matches_nothing)
{
	lev2({ { "plain", flag(18), plain(), true, false },
	       { "802.11 management", flag(18), wlan80211(true), true, false } });
}

TEST_F(Rules, type_19_arp_operation)
{
	// The rule matches the operation as it stands in the frame. As a key only the value's first byte is compared, with the
	// whole operation: an ARP request (00 01) can be no key at all, while the operation 01 00 can.
	lev2({ { "request", rule(19, { be16(1) }), arp(1), false, true },
	       { "request, rule in host order", rule(19, { le16(1) }), arp(1), false, false },
	       { "reply is no request", rule(19, { be16(1) }), arp(2), false, false },
	       { "operation 01 00", rule(19, { be16(0x0100) }), arp(0x0100), true, true },
	       { "first byte equal, second not", rule(19, { Bytes{ 1, 2 } }), arp(0x0100), true,
		 false },
	       { "no ARP frame has operation 0", rule(19, { be16(0) }), plain(), false, false },
	       { "operation 0 never matches", rule(19, { be16(0) }), arp(0), false, false } });
}

TEST_F(Rules, the_arp_operation_behind_a_key_that_works)
{
	Socket socket;
	ASSERT_EQ(socket.add(ethertype(0x0806)), 0);
	ASSERT_EQ(socket.add(be16s(PACKET_ARP_TYPE, { 2 })), 0);
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	EXPECT_EQ(put(lab::Hook::Lev2, arp(1)), lab::kGoOn);
	EXPECT_EQ(put(lab::Hook::Lev2, arp(2)), lab::kTaken);
	EXPECT_TRUE(socket.receive());
}

TEST_F(Rules, types_are_anded_and_values_ored)
{
	Socket socket;
	ASSERT_EQ(socket.add(be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 67, 68 })), 0);
	ASSERT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA, 1 })), 0);
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	ASSERT_EQ(socket.location(PACKET_IPv4_LOC), 0);
	for (uint16_t port : { 67, 68, 69 })
		for (uint32_t ifindex : { lab::kPortA, lab::kPortB }) {
			Frame frame = ipv4(17, udp(1, port));
			frame.src_ifx = ifindex;
			bool wanted = port != 69 && ifindex == lab::kPortA;
			EXPECT_EQ(put(lab::Hook::Ipv4, frame), wanted ? lab::kTaken : lab::kGoOn)
				<< port << " " << ifindex;
			EXPECT_EQ(socket.receive_now().has_value(), wanted)
				<< port << " " << ifindex;
		}
}

TEST_F(Rules, a_socket_without_rules_captures_nothing)
{
	Socket socket;
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
	EXPECT_EQ(put(lab::Hook::Lev2, plain()), lab::kGoOn);
	EXPECT_FALSE(socket.receive_now());
}

TEST_F(Rules, elements_are_read_at_the_types_stride_whatever_the_record_calls_their_size)
{
	// size 6 and count 2: the length covers twelve bytes, yet the two EtherTypes are the first four.
	Socket socket;
	ASSERT_EQ(socket.add(Rule{ PACKET_ETH_PROT_EQUAL,
				   6,
				   2,
				   { 0x08, 0x06, 0x88, 0xcc, 9, 9, 0x12, 0x34, 9, 9, 9, 9 } }),
		  0);
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	put(lab::Hook::Lev2, arp(1));
	EXPECT_TRUE(socket.receive());
	put(lab::Hook::Lev2, plain(0x88cc));
	EXPECT_TRUE(socket.receive());
	put(lab::Hook::Lev2, plain(0x1234));
	EXPECT_FALSE(socket.receive_now());
}

TEST_F(Rules, deleting_a_value_ends_its_matches)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH,
				be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x88cc }));
	ASSERT_EQ(socket.del(ethertype(0x0806)), 0);
	EXPECT_EQ(put(lab::Hook::Lev2, arp(1)), lab::kGoOn);
	EXPECT_EQ(put(lab::Hook::Lev2, plain(0x88cc)), lab::kTaken);
	EXPECT_EQ(socket.drain(), 1u);
}

} // namespace
