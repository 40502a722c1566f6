// SPDX-License-Identifier: GPL-2.0
// The rule matches and the fast filters: every rule type with a packet that
// matches and one that nearly does, as a condition and as a key.
#include "packets.h"
#include "rules_fixture.h"

namespace {

using namespace packets;
using V = std::vector<u8>;

V n16(uint16_t host)
{
	return be16(host);
}
V n32(uint32_t v)
{
	V out(4);
	memcpy(out.data(), &v, 4);
	return out;
}

const Bytes kHost4{ 10, 0, 0, 1 };
const Bytes kHost6 = addr6(0x20, 1, 1);

class PktMatch : public RulesTest {
protected:
	void SetUp() override
	{
		RulesTest::SetUp();
		const uint8_t mac[6] = { 2, 0, 0, 0, 0, 9 };
		port = fake::word(efmp().add_interface(7, "eth7", mac));
		lev2 = fake::word(efmp().add_interface(4094, "lev2", mac));
		lev3 = fake::word(efmp().add_interface(4095, "lev3", mac));
	}
	void *frame(const Bytes &bytes, Meta m = {})
	{
		m.source = port;
		return make(m, bytes);
	}
	void *ip4(u8 proto, const Bytes &dst, const Bytes &payload = {})
	{
		return frame(eth(0x0800) + ipv4(proto, dst, payload), { .kind = 1 });
	}
	void *ip6(u8 next, const Bytes &dst, const Bytes &payload)
	{
		return frame(eth(0x86dd) + ipv6(next, dst, payload), { .kind = 27 });
	}

	static int match(void *e, Rule &rule)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		return pkt_rule_match(&info, &rule.regular());
	}
	// One condition of a rule.
	static int item(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		return match(e, rule);
	}
	static int wlan_item(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_WLAN_LOC, PACKET_COPY);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		pkt_wlan_info info;
		pkt_wlan_info_build(e, &info);
		return pkt_wlan_rule_match(&info, &rule.regular());
	}
	static u32 filter(void *e, packet_regular_lib *lib = &g_lev2_packet_regular_lib)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		kernel().bh_disabled++; // as a hook
		seam_read_lock(&lib->lock);
		u32 treatment = pkt_fast_filter(&info, lib);
		seam_read_unlock(&lib->lock);
		kernel().bh_disabled--;
		return treatment;
	}
	static u32 wlan_filter(void *e)
	{
		pkt_wlan_info info;
		pkt_wlan_info_build(e, &info);
		kernel().bh_disabled++; // as a hook
		seam_read_lock(&g_wlan_packet_regular_lib.lock);
		u32 treatment = pkt_wlan_fast_filter(&info);
		seam_read_unlock(&g_wlan_packet_regular_lib.lock);
		kernel().bh_disabled--;
		return treatment;
	}
	// The key of a rule.
	static u32 key(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_LEV2_LOC, PACKET_FETCH);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		rule.add();
		return filter(e);
	}
	static u32 wlan_key(void *e, u32 type, const V &value)
	{
		Rule rule(PACKET_WLAN_LOC, PACKET_TRAP);
		rule.data(type, value).add();
		return wlan_filter(e);
	}

	u32 port = 0, lev2 = 0, lev3 = 0;
};

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

TEST_F(PktMatch, fast_filter__copy_without_items_passes_on_the_key_alone)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_ETH_PROT_EQUAL, n16(0x88cc)).add();
	void *e = frame(eth(0x88cc));
	EXPECT_EQ(filter(e), u32(PACKET_COPY));
	auto *entry = record_of<filter_list_data, offsetof(filter_list_data, node)>(
		g_lev2_packet_regular_lib.filter_list.next);
	auto *copy = record_of<packet_regular, offsetof(packet_regular, lib_node)>(
		entry->match_list.next);
	EXPECT_TRUE(list_empty(&copy->items));
	pkt_info info;
	pkt_info_build(e, &info);
	EXPECT_EQ(pkt_rule_match(&info, copy), 0);
}

TEST_F(PktMatch, fast_filter__first_key_in_type_order_whose_copy_passes_decides)
{
	Rule by_mac(PACKET_LEV2_LOC, PACKET_COPY), by_type(PACKET_LEV2_LOC, PACKET_TRAP);
	by_type.data(PACKET_ETH_PROT_EQUAL, n16(0x88cc)).add();
	by_mac.data(PACKET_DEST_MAC_EQUAL, { 2, 0, 0, 0, 0, 1 })
		.data(PACKET_SRC_INTF_EQUAL, n32(7))
		.add();
	EXPECT_EQ(filter(frame(eth(0x88cc))), u32(PACKET_COPY));
	EXPECT_EQ(filter(frame(eth(0x88cc, 5))), u32(PACKET_TRAP));
	by_mac.remove();
	by_mac.del(PACKET_SRC_INTF_EQUAL, n32(7)).data(PACKET_SRC_INTF_EQUAL, n32(8)).add();
	EXPECT_EQ(filter(frame(eth(0x88cc))), u32(PACKET_TRAP));
}

// No rule is filed without a treatment; a copy that had none would leave the
// decision to the next key, not to the next copy.
TEST_F(PktMatch, fast_filter__copy_without_treatment_passes_on_to_the_next_key)
{
	Rule first(PACKET_LEV2_LOC, PACKET_TRAP), behind(PACKET_LEV2_LOC, PACKET_COPY),
		next(PACKET_LEV2_LOC, PACKET_FETCH);
	for (Rule *r : { &first, &behind })
		r->data(PACKET_ETH_PROT_EQUAL, n16(0x88cc)).add();
	next.item(PACKET_ALL).add();
	auto *entry = record_of<filter_list_data, offsetof(filter_list_data, node)>(
		g_lev2_packet_regular_lib.filter_list.next);
	auto *copy = record_of<packet_regular, offsetof(packet_regular, lib_node)>(
		entry->match_list.next);
	void *e = frame(eth(0x88cc));
	EXPECT_EQ(filter(e), u32(PACKET_TRAP));
	copy->treatment = PACKET_TREATMENT_NONE;
	EXPECT_EQ(filter(e), u32(PACKET_FETCH));
	copy->treatment = PACKET_TRAP;
}

TEST_F(PktMatch, fast_filter__trap_before_fetch_before_copy)
{
	Rule copy(PACKET_LEV2_LOC, PACKET_COPY), fetch(PACKET_LEV2_LOC, PACKET_FETCH),
		trap(PACKET_LEV2_LOC, PACKET_TRAP);
	for (Rule *r : { &copy, &fetch, &trap })
		r->item(PACKET_ALL).add();
	void *e = frame(eth(1));
	EXPECT_EQ(filter(e), u32(PACKET_TRAP));
	trap.remove();
	EXPECT_EQ(filter(e), u32(PACKET_FETCH));
	fetch.remove();
	EXPECT_EQ(filter(e), u32(PACKET_COPY));
	copy.remove();
	EXPECT_EQ(filter(e), 0u);
}

TEST_F(PktMatch, fast_filter__local_treatments_never_answer)
{
	Rule copy(PACKET_LEV2_LOC, PACKET_COPY_LOCAL), fetch(PACKET_LEV2_LOC, PACKET_FETCH_LOCAL);
	copy.item(PACKET_ALL).add();
	fetch.item(PACKET_ALL).add();
	EXPECT_EQ(filter(frame(eth(1))), 0u);
	Rule wlan(PACKET_WLAN_LOC, PACKET_COPY_LOCAL);
	wlan.item(PACKET_ALL).add();
	EXPECT_EQ(wlan_filter(frame(eth(1))), 0u);
}

TEST_F(PktMatch, fast_filter__owner_in_a_vsd_never_answers)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_TRAP), wlan(PACKET_WLAN_LOC, PACKET_TRAP);
	rule.item(PACKET_ALL).add();
	wlan.item(PACKET_ALL).add();
	rule.owner().vsd = wlan.owner().vsd = 3;
	EXPECT_EQ(filter(frame(eth(1))), 0u);
	EXPECT_EQ(wlan_filter(frame(eth(1))), 0u);
	rule.owner().vsd = wlan.owner().vsd = 0;
	EXPECT_EQ(filter(frame(eth(1))), u32(PACKET_TRAP));
	EXPECT_EQ(wlan_filter(frame(eth(1))), u32(PACKET_TRAP));
}

TEST_F(PktMatch, fast_filter__reserved_locations_ask_for_their_interface)
{
	Rule two(PACKET_LEV2_RESV_LOC, PACKET_TRAP), three(PACKET_LEV3_RESV_LOC, PACKET_FETCH);
	two.item(PACKET_ALL).add();
	three.item(PACKET_ALL).add();
	auto at = [&](u32 dest) {
		return filter(frame(eth(1), { .dest = dest }), &g_resv_packet_regular_lib);
	};
	EXPECT_EQ(at(lev2), u32(PACKET_TRAP));
	EXPECT_EQ(at(lev3), u32(PACKET_FETCH));
	EXPECT_EQ(at(port), 0u);
	EXPECT_EQ(at(0), 0u);
	Rule resv(PACKET_RESV_LOC, PACKET_COPY);
	resv.item(PACKET_ALL).add();
	EXPECT_EQ(at(0), u32(PACKET_COPY));
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
