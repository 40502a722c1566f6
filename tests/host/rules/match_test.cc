// SPDX-License-Identifier: GPL-2.0-only
// The rule matches and the fast filters: every rule type with a packet that
// matches and one that nearly does, as a condition and as a key.
#include "match_fixture.h"

namespace {

TEST_F(PktMatch, value_types__hit_and_near_miss)
{
	struct {
		const char *name;
		u32 type;
		void *packet;
		V hit, miss;
	} cases[] = {
		{ "code",
		  PACKET_PACKET_CODE_EQUAL,
		  frame(eth(1), { .code = 3, .sub_code = 4 }),
		  { 3, 4 },
		  { 3, 5 } },
		{ "sub-code first",
		  PACKET_PACKET_CODE_EQUAL,
		  frame(eth(1), { .code = 3, .sub_code = 4 }),
		  { 3, 4 },
		  { 4, 3 } },
		{ "dst mac",
		  PACKET_DEST_MAC_EQUAL,
		  frame(eth(1)),
		  { 2, 0, 0, 0, 0, 1 },
		  { 2, 0, 0, 0, 0, 2 } },
		{ "src mac",
		  PACKET_SRC_MAC_EQUAL,
		  frame(eth(1)),
		  { 2, 0, 0, 0, 0, 2 },
		  { 2, 0, 0, 0, 0, 1 } },
		{ "ethertype", PACKET_ETH_PROT_EQUAL, frame(eth(0x88cc)), n16(0x88cc),
		  n16(0x88cd) },
		{ "ethertype swapped", PACKET_ETH_PROT_EQUAL, frame(eth(0x88cc)), n16(0x88cc),
		  n16(0xcc88) },
		{ "snap", PACKET_SNAP_ETH_TYPE_EQUAL,
		  frame(eth(38) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 }), n16(0x2004),
		  n16(0x2005) },
		{ "ipv4 protocol", PACKET_IPv4_PROT_EQUAL, ip4(1, kHost4), { 1 }, { 2 } },
		{ "ipv6 next header",
		  PACKET_IPv6_PROT_EQUAL,
		  ip6(58, kHost6, { 1, 0, 0, 0 }),
		  { 58 },
		  { 59 } },
		{ "ipv4 dst port", PACKET_IPv4_DEST_PORT_EQUAL, ip4(17, kHost4, ports(68, 67, 9)),
		  n16(67), n16(68) },
		{ "ipv4 src port", PACKET_IPv4_SRC_PORT_EQUAL, ip4(17, kHost4, ports(68, 67, 9)),
		  n16(68), n16(67) },
		{ "ipv6 dst port", PACKET_IPv6_DEST_PORT_EQUAL, ip6(17, kHost6, ports(546, 547)),
		  n16(547), n16(546) },
		{ "interface", PACKET_SRC_INTF_EQUAL, frame(eth(1)), n32(7), n32(0x01000007) },
		{ "icmpv6",
		  PACKET_ICMPV6_TYPE_EQUAL,
		  ip6(58, kHost6, { 135, 0, 0, 0 }),
		  { 135 },
		  { 134 } },
		{ "eapol",
		  PACKET_EAPOL_TYPE_EQUAL,
		  frame(eth(0x888e) + Bytes{ 1, 3 }),
		  { 3 },
		  { 2 } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.name);
		EXPECT_TRUE(item(c.packet, c.type, { c.hit }));
		EXPECT_TRUE(item(c.packet, c.type, { c.miss, c.hit }));
		EXPECT_FALSE(item(c.packet, c.type, { c.miss }));
		EXPECT_FALSE(item(c.packet, c.type, {}));
		EXPECT_EQ(key(c.packet, c.type, { c.hit }), u32(PACKET_FETCH));
		EXPECT_EQ(key(c.packet, c.type, { c.miss, c.hit }), u32(PACKET_FETCH));
		EXPECT_EQ(key(c.packet, c.type, { c.miss }), 0u);
	}
}

TEST_F(PktMatch, value_types__need_their_family_or_header)
{
	void *udp4 = ip4(17, kHost4, ports(68, 67, 9)), *udp6 = ip6(17, kHost6, ports(68, 67));
	struct {
		u32 type;
		void *packet;
		V value;
	} cases[] = {
		{ PACKET_IPv4_DEST_PORT_EQUAL, udp6, n16(67) },
		{ PACKET_IPv4_SRC_PORT_EQUAL, udp6, n16(68) },
		{ PACKET_IPv6_DEST_PORT_EQUAL, udp4, n16(67) },
		{ PACKET_IPv4_PROT_EQUAL, udp6, { 17 } },
		{ PACKET_IPv6_PROT_EQUAL, udp4, { 17 } },
		{ PACKET_IPv4_PROT_EQUAL, frame(eth(0x0800)), { 0 } },
		{ PACKET_IPv4_DEST_PORT_EQUAL, ip4(1, kHost4), n16(0) },
		{ PACKET_IPv4_SRC_PORT_EQUAL, ip4(1, kHost4), n16(0) },
		{ PACKET_IPv6_DEST_PORT_EQUAL, ip6(58, kHost6, { 1, 0, 0, 0 }), n16(0) },
		{ PACKET_EAPOL_TYPE_EQUAL, frame(eth(0x88cc) + Bytes{ 1, 3 }), { 3 } },
		{ PACKET_SNAP_ETH_TYPE_EQUAL,
		  frame(eth(38) + Bytes{ 0xaa, 0xab, 3, 0, 0, 0, 0x20, 4 }), n16(0x2004) },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.type);
		EXPECT_FALSE(item(c.packet, c.type, { c.value }));
		EXPECT_EQ(key(c.packet, c.type, { c.value }), 0u);
	}
}

TEST_F(PktMatch, icmpv6__type_0_passes_as_key_only)
{
	void *udp = ip6(17, kHost6, ports(1, 2));
	EXPECT_FALSE(item(udp, PACKET_ICMPV6_TYPE_EQUAL, { { 0 } }));
	EXPECT_EQ(key(udp, PACKET_ICMPV6_TYPE_EQUAL, { { 0 } }), u32(PACKET_FETCH));
	EXPECT_EQ(key(udp, PACKET_ICMPV6_TYPE_EQUAL, { { 1 } }), 0u);
}

TEST_F(PktMatch, eth_types__wildcard_768)
{
	void *any = frame(eth(0x1234));
	EXPECT_TRUE(item(any, PACKET_ETH_PROT_EQUAL, { n16(3) }));
	EXPECT_EQ(key(any, PACKET_ETH_PROT_EQUAL, { n16(3) }), u32(PACKET_FETCH));
	EXPECT_FALSE(item(any, PACKET_ETH_PROT_EQUAL, { n16(0x300) }));
	void *snap = frame(eth(38) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 });
	EXPECT_TRUE(item(snap, PACKET_SNAP_ETH_TYPE_EQUAL, { n16(3) }));
	EXPECT_EQ(key(snap, PACKET_SNAP_ETH_TYPE_EQUAL, { n16(3) }), u32(PACKET_FETCH));
	EXPECT_FALSE(item(any, PACKET_SNAP_ETH_TYPE_EQUAL, { n16(3) }));
}

TEST_F(PktMatch, arp__key_looks_at_one_byte)
{
	void *request = frame(eth(0x0806) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 1 });
	void *reply = frame(eth(0x0806) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 2 });
	EXPECT_TRUE(item(request, PACKET_ARP_TYPE, { n16(1) }));
	EXPECT_FALSE(item(reply, PACKET_ARP_TYPE, { n16(1) }));
	EXPECT_FALSE(item(frame(eth(0x0800)), PACKET_ARP_TYPE, { n16(0) }));
	// The operation word of a request is 256 as it lies in memory: no byte equals it.
	EXPECT_EQ(key(request, PACKET_ARP_TYPE, { n16(1) }), 0u);
	EXPECT_EQ(key(request, PACKET_ARP_TYPE, { { 1 } }), 0u);
	void *swapped = frame(eth(0x0806) + Bytes{ 0, 1, 8, 0, 6, 4, 1, 0 });
	EXPECT_EQ(key(swapped, PACKET_ARP_TYPE, { { 1 } }), u32(PACKET_FETCH));
	EXPECT_EQ(key(swapped, PACKET_ARP_TYPE, { { 1, 9 } }), u32(PACKET_FETCH));
	EXPECT_EQ(key(frame(eth(0x0806) + Bytes(8, 0)), PACKET_ARP_TYPE, { { 0 } }), 0u);
}

TEST_F(PktMatch, pid__is_an_exclusion)
{
	void *zero = frame(eth(1)), *five = frame(eth(1), { .attr = 5 });
	EXPECT_FALSE(item(five, PACKET_PID_T, { n32(5) }));
	EXPECT_FALSE(item(five, PACKET_PID_T, { n32(4), n32(5) }));
	EXPECT_TRUE(item(five, PACKET_PID_T, { n32(4) }));
	EXPECT_FALSE(item(five, PACKET_PID_T, { n32(0xffffffff) }));
	EXPECT_TRUE(item(zero, PACKET_PID_T, { n32(0xffffffff) }));
	EXPECT_FALSE(item(zero, PACKET_PID_T, { n32(0) }));
	EXPECT_FALSE(item(zero, PACKET_PID_T, {}));
	EXPECT_FALSE(wlan_item(five, PACKET_PID_T, { n32(5) }));
	EXPECT_TRUE(wlan_item(five, PACKET_PID_T, { n32(4) }));
	EXPECT_FALSE(wlan_item(five, PACKET_PID_T, { n32(0xffffffff) }));
	EXPECT_TRUE(wlan_item(zero, PACKET_PID_T, { n32(0xffffffff) }));
}

TEST_F(PktMatch, pid__all_ones_copy_passes_only_packets_without_attribute)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_TRAP);
	rule.data(PACKET_PID_T, n32(0xffffffff)).item(PACKET_ALL).add();
	EXPECT_EQ(filter(frame(eth(1))), u32(PACKET_TRAP));
	EXPECT_EQ(filter(frame(eth(1), { .attr = 5 })), 0u);
}

TEST_F(PktMatch, ipv4_multicast)
{
	struct {
		u8 proto;
		Bytes dst;
		bool passes;
	} cases[] = {
		{ 17, { 224, 0, 0, 1 }, false },       { 17, { 224, 0, 0, 255 }, false },
		{ 17, { 224, 0, 1, 0 }, true },        { 17, { 239, 1, 1, 1 }, true },
		{ 17, { 239, 255, 255, 255 }, true },  { 17, { 240, 0, 0, 0 }, false },
		{ 17, { 223, 255, 255, 255 }, false }, { 2, { 239, 1, 1, 1 }, false },
		{ 17, { 0, 0, 0, 0 }, false },
	};
	for (auto &c : cases) {
		void *e = ip4(c.proto, c.dst);
		EXPECT_EQ(item(e, PACKET_IPv4_MCAST_TRAFFIC, { {} }), c.passes)
			<< int(c.dst[0]) << "." << int(c.dst[2]);
		EXPECT_EQ(item(e, PACKET_IPv4_MCAST_TRAFFIC, {}), c.passes);
		EXPECT_EQ(key(e, PACKET_IPv4_MCAST_TRAFFIC, { {} }),
			  c.passes ? u32(PACKET_FETCH) : 0u);
	}
	EXPECT_FALSE(
		item(ip6(17, addr6(0xff, 5, 1), ports(1, 2)), PACKET_IPv4_MCAST_TRAFFIC, { {} }));
}

TEST_F(PktMatch, ipv6_multicast)
{
	auto both = [&](void *e, bool passes) {
		EXPECT_EQ(item(e, PACKET_IPv6_MCAST_TRAFFIC, { {} }), passes);
		EXPECT_EQ(item(e, PACKET_IPv6_MCAST_TRAFFIC, {}), passes);
		EXPECT_EQ(key(e, PACKET_IPv6_MCAST_TRAFFIC, { {} }),
			  passes ? u32(PACKET_FETCH) : 0u);
	};
	Bytes udp = ports(1, 2);
	both(ip6(17, addr6(0xff, 0x02, 1), udp), false);
	both(ip6(17, addr6(0xff, 0x03, 1), udp), true);
	both(ip6(17, addr6(0xff, 0xf2, 1), udp), false);
	both(ip6(17, addr6(0xff, 0x1e, 1), udp), true);
	both(ip6(17, addr6(0xfe, 0x0e, 1), udp), false);
	for (u8 mld : { 130, 131, 132, 143 })
		both(ip6(58, addr6(0xff, 0x05, 1), { mld, 0, 0, 0 }), false);
	for (u8 other : { 129, 133, 142, 144 })
		both(ip6(58, addr6(0xff, 0x05, 1), { other, 0, 0, 0 }), true);
	both(ip4(17, { 239, 1, 1, 1 }), false);
}

TEST_F(PktMatch, all_passes_and_wlan_types_never_match_outside_wlan)
{
	void *eapol = frame(eth(0x888e) + Bytes{ 1, 0 });
	EXPECT_TRUE(item(eapol, PACKET_ALL, {}));
	EXPECT_EQ(key(eapol, PACKET_ALL, {}), u32(PACKET_FETCH));
	EXPECT_FALSE(item(eapol, PACKET_EAPOL_TYPE_WPS, { { 0 } }));
	EXPECT_EQ(key(eapol, PACKET_EAPOL_TYPE_WPS, { { 0 } }), 0u);
	EXPECT_FALSE(item(eapol, PACKET_WLAN_MGNT, { {} }));
	// As a key it is not tested at all.
	EXPECT_EQ(key(eapol, PACKET_WLAN_MGNT, { {} }), u32(PACKET_FETCH));
}

TEST_F(PktMatch, unknown_type__item_never_passes_key_always_does)
{
	void *e = frame(eth(1));
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.item(PACKET_ALL);
	regular_item *bent = record_of<regular_item, offsetof(regular_item, node)>(
		rule.regular().items.next);
	bent->type = 20;
	EXPECT_FALSE(match(e, rule));
	bent->type = PACKET_ALL;
	rule.add();
	auto *entry = record_of<filter_list_data, offsetof(filter_list_data, node)>(
		g_lev2_packet_regular_lib.filter_list.next);
	entry->type = 20;
	EXPECT_EQ(filter(e), u32(PACKET_COPY));
	entry->type = PACKET_ALL;
}

TEST_F(PktMatch, rule_match__and_across_items_or_within)
{
	void *e = ip4(17, kHost4, ports(68, 67, 9));
	Rule rule(PACKET_IPv4_LOC, PACKET_COPY);
	EXPECT_FALSE(match(e, rule));
	rule.data(PACKET_IPv4_PROT_EQUAL, { 17 });
	rule.data(PACKET_IPv4_DEST_PORT_EQUAL, n16(66)).data(PACKET_IPv4_DEST_PORT_EQUAL, n16(67));
	EXPECT_TRUE(match(e, rule));
	rule.data(PACKET_ETH_PROT_EQUAL, n16(0x0806));
	EXPECT_FALSE(match(e, rule));
}

TEST_F(PktMatch, wlan__items_and_keys)
{
	void *mgmt = frame(eth(1), { .wlan_flags = 0x48000 }),
	     *data = frame(eth(1), { .wlan_flags = 0x40000 });
	void *start = frame(eth(0x888e) + Bytes{ 1, 1 });
	Bytes expanded = eth(0x888e) + Bytes(20, 0);
	expanded[22] = 0xfe;
	expanded[29] = 1;
	void *wps = frame(expanded);
	struct {
		u32 type;
		void *hit;
		V value;
		void *miss;
		V miss_value;
	} cases[] = {
		{ PACKET_WLAN_MGNT, mgmt, {}, data, {} },
		{ PACKET_EAPOL_TYPE_EQUAL, start, { 1 }, start, { 2 } },
		{ PACKET_EAPOL_TYPE_WPS, wps, { 9 }, start, { 9 } },
		{ PACKET_ETH_PROT_EQUAL, start, n16(0x888e), start, n16(0x888f) },
		{ PACKET_ETH_PROT_EQUAL, data, n16(3), data, n16(1) },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.type);
		EXPECT_TRUE(wlan_item(c.hit, c.type, { c.value }));
		EXPECT_FALSE(wlan_item(c.miss, c.type, { c.miss_value }));
		EXPECT_EQ(wlan_key(c.hit, c.type, c.value), u32(PACKET_TRAP));
		EXPECT_EQ(wlan_key(c.miss, c.type, c.miss_value), 0u);
	}
	EXPECT_TRUE(wlan_item(data, PACKET_ALL, {}));
	Rule all(PACKET_WLAN_LOC, PACKET_FETCH);
	all.item(PACKET_ALL).add();
	EXPECT_EQ(wlan_filter(data), u32(PACKET_FETCH));
}

TEST_F(PktMatch, wlan__every_other_type_never_matches)
{
	void *e = frame(eth(0x0800) + ipv4(17, kHost4, ports(68, 67, 9)), { .kind = 1 });
	for (u32 type = 0; type < 20; type++) {
		if (type == PACKET_ETH_PROT_EQUAL || type == PACKET_EAPOL_TYPE_EQUAL ||
		    type == PACKET_EAPOL_TYPE_WPS || type == PACKET_ALL || type == PACKET_PID_T ||
		    type == PACKET_WLAN_MGNT)
			continue;
		EXPECT_FALSE(wlan_item(e, type, { V(8, 0) })) << type;
		EXPECT_EQ(wlan_key(e, type, V(8, 0)), 0u) << type;
	}
}

TEST_F(PktMatch, wlan__rule_without_items_and_conditions)
{
	Rule rule(PACKET_WLAN_LOC, PACKET_COPY);
	void *start = frame(eth(0x888e) + Bytes{ 1, 1 });
	pkt_wlan_info info;
	pkt_wlan_info_build(start, &info);
	EXPECT_EQ(pkt_wlan_rule_match(&info, &rule.regular()), 0);
	rule.data(PACKET_ETH_PROT_EQUAL, n16(0x888e)).data(PACKET_EAPOL_TYPE_EQUAL, { 0 }).add();
	EXPECT_EQ(wlan_filter(start), 0u);
	rule.remove();
	rule.data(PACKET_EAPOL_TYPE_EQUAL, { 1 }).add();
	EXPECT_EQ(wlan_filter(start), u32(PACKET_COPY));
}

} // namespace
