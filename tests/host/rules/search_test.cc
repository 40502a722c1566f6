// SPDX-License-Identifier: GPL-2.0-only
// The search for the rules of a packet: which rule decides, and that candidates which
// share all that the index looks up are compared as the rules say.
#include "match_fixture.h"

namespace {

class PktSearch : public PktMatch {};

TEST_F(PktSearch, copy_without_items_passes_on_the_key_alone)
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

TEST_F(PktSearch, first_key_in_type_order_whose_copy_passes_decides)
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
TEST_F(PktSearch, copy_without_treatment_passes_on_to_the_next_key)
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

TEST_F(PktSearch, trap_before_fetch_before_copy)
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

TEST_F(PktSearch, local_treatments_never_answer)
{
	Rule copy(PACKET_LEV2_LOC, PACKET_COPY_LOCAL), fetch(PACKET_LEV2_LOC, PACKET_FETCH_LOCAL);
	copy.item(PACKET_ALL).add();
	fetch.item(PACKET_ALL).add();
	EXPECT_EQ(filter(frame(eth(1))), 0u);
	Rule wlan(PACKET_WLAN_LOC, PACKET_COPY_LOCAL);
	wlan.item(PACKET_ALL).add();
	EXPECT_EQ(wlan_filter(frame(eth(1))), 0u);
}

TEST_F(PktSearch, owner_in_a_vsd_never_answers)
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

TEST_F(PktSearch, reserved_locations_ask_for_their_interface)
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

// A condition that the index does not look up, beside a source MAC that all rules share.
struct Condition {
	const char *name;
	u32 type;
	std::vector<V> fails, passes; // of the frame below
};

const Condition kConditions[] = {
	{ "one EtherType", PACKET_ETH_PROT_EQUAL, { n16(0x0806) }, { n16(0x0800) } },
	{ "any EtherType", PACKET_IPv4_PROT_EQUAL, { V{ 6 } }, {} },
	{ "one port of several",
	  PACKET_IPv4_DEST_PORT_EQUAL,
	  { n16(5), n16(6) },
	  { n16(5), n16(67) } },
	{ "a type that the frame has no value of", PACKET_IPv6_PROT_EQUAL, { V{ 17 } }, {} },
	{ "any SNAP type", PACKET_SNAP_ETH_TYPE_EQUAL, { n16(3) }, {} },
	{ "ICMPv6 type 0", PACKET_ICMPV6_TYPE_EQUAL, { V{ 0 } }, {} },
	{ "multicast", PACKET_IPv4_MCAST_TRAFFIC, { V{} }, {} },
	{ "another attribute excluded", PACKET_PID_T, { n32(9) }, { n32(8) } },
	{ "every attribute excluded", PACKET_PID_T, { n32(~0u) }, {} },
	{ "two attributes excluded", PACKET_PID_T, { n32(1), n32(9) }, { n32(1), n32(2) } },
	{ "ARP operation", PACKET_ARP_TYPE, { n16(1) }, {} },
};

class Crowd : public PktMatch {
protected:
	void TearDown() override
	{
		rules.clear();
		PktMatch::TearDown();
	}
	void *udp() { return frame_with(9); }
	void *frame_with(u32 attr)
	{
		return frame(eth(0x0800) + ipv4(17, kHost4, ports(68, 67, 9)),
			     { .kind = 1, .attr = attr });
	}
	// What delivery finds for a frame.
	static std::vector<const packet_regular *> delivered(void *e)
	{
		packet_regular_lib *lib = &g_lev2_packet_regular_lib;
		pkt_info info;
		pkt_info_build(e, &info);
		std::vector<const packet_regular *> out;
		MutexGuard guard(&lib->change_lock);
		MatchingRules<pkt_info> rules(info, lib);
		for (const packet_regular *rule = rules.first(); rule; rule = rules.next())
			out.push_back(rule);
		return out;
	}
	Rule &rule_with(u32 treatment, const Condition *condition, const std::vector<V> &values)
	{
		rules.push_back(std::make_unique<Rule>(PACKET_LEV2_LOC, treatment));
		rules.back()->data(PACKET_SRC_MAC_EQUAL, { 2, 0, 0, 0, 0, 2 });
		if (condition)
			for (const V &value : values)
				rules.back()->data(condition->type, value);
		return rules.back()->add();
	}

	std::vector<std::unique_ptr<Rule>> rules;
};

// Of many rules that share what is looked up, those whose other condition fails never hide the
// one that matches, whichever condition it is and wherever the rule stands.
TEST_F(Crowd, rule_behind_failing_ones_is_found)
{
	void *e = udp();
	for (const Condition &mine : kConditions) {
		SCOPED_TRACE(mine.name);
		for (int round = 0; round < 3; round++)
			for (const Condition &other : kConditions)
				rule_with(PACKET_COPY, &other, other.fails);
		EXPECT_EQ(filter(e), 0u);
		EXPECT_TRUE(delivered(e).empty());
		Rule &match = rule_with(PACKET_COPY, mine.passes.empty() ? nullptr : &mine,
					mine.passes);
		for (const Condition &other : kConditions)
			rule_with(PACKET_COPY, &other, other.fails);
		EXPECT_EQ(filter(e), u32(PACKET_COPY));
		ASSERT_EQ(delivered(e).size(), 1u);
		EXPECT_EQ(delivered(e)[0], &match.regular());
		rules.clear();
	}
}

// The frame's own values decide, not those of the frame before.
TEST_F(Crowd, every_frame_is_compared_anew)
{
	for (u32 attr = 1; attr <= 20; attr++) {
		const Condition excluded{ "", PACKET_PID_T, { n32(attr) }, {} };
		rule_with(PACKET_COPY, &excluded, excluded.fails);
	}
	for (u32 attr = 0; attr <= 21; attr++)
		EXPECT_EQ(delivered(frame_with(attr)).size(), attr >= 1 && attr <= 20 ? 19u : 20u);
}

// The first of those that match decides, although others match as well.
TEST_F(Crowd, first_of_those_that_match)
{
	void *e = udp();
	const Condition &port = kConditions[2];
	for (int n = 0; n < 20; n++)
		rule_with(PACKET_COPY, &kConditions[n % 11], kConditions[n % 11].fails);
	Rule &copy = rule_with(PACKET_COPY, &port, port.passes);
	EXPECT_EQ(filter(e), u32(PACKET_COPY));
	Rule &fetch = rule_with(PACKET_FETCH, &port, port.passes);
	EXPECT_EQ(filter(e), u32(PACKET_FETCH));
	Rule &trap = rule_with(PACKET_TRAP, nullptr, {});
	EXPECT_EQ(filter(e), u32(PACKET_TRAP));
	const std::vector<const packet_regular *> order{ &trap.regular(), &fetch.regular(),
							 &copy.regular() };
	EXPECT_EQ(delivered(e), order);
	trap.remove();
	fetch.remove();
	EXPECT_EQ(filter(e), u32(PACKET_COPY));
}

// Of WLAN frames a WPS condition has a value that is not compared.
TEST_F(PktSearch, wlan_rule_behind_failing_ones_is_found)
{
	Bytes expanded = eth(0x888e) + Bytes(20, 0);
	expanded[15] = 7;
	expanded[22] = 0xfe;
	expanded[29] = 1;
	void *e = frame(expanded);
	std::vector<std::unique_ptr<Rule>> rules;
	auto add = [&](u32 first, const V &one, u32 second, const V &other) {
		rules.push_back(std::make_unique<Rule>(PACKET_WLAN_LOC, PACKET_COPY));
		rules.back()->data(first, one).data(second, other).add();
	};
	// So many that no condition is less crowded than the EAPOL type.
	for (int n = 0; n < 20; n++)
		add(PACKET_EAPOL_TYPE_EQUAL, { 7 }, PACKET_ETH_PROT_EQUAL, n16(0x9000));
	for (int n = 0; n < 20; n++)
		add(PACKET_EAPOL_TYPE_WPS, { 9 }, PACKET_ETH_PROT_EQUAL, n16(0x9000));
	EXPECT_EQ(wlan_filter(e), 0u);
	add(PACKET_EAPOL_TYPE_EQUAL, { 7 }, PACKET_EAPOL_TYPE_WPS, { 9 });
	EXPECT_EQ(wlan_filter(e), u32(PACKET_COPY));
}

} // namespace
