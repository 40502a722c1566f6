// SPDX-License-Identifier: GPL-2.0-only
// Entering rules in a library and withdrawing them.
#include "rules_fixture.h"

namespace {

class RegularLib : public RulesTest {
protected:
	static std::vector<u32> treatments(const std::vector<RuleView> &rules)
	{
		std::vector<u32> out;
		for (const RuleView &r : rules)
			out.push_back(r.treatment);
		return out;
	}
	static std::vector<s32> pids(const std::vector<RuleView> &rules)
	{
		std::vector<s32> out;
		for (const RuleView &r : rules)
			out.push_back(r.owner->pid);
		return out;
	}
	std::vector<EntryView> entries() { return entries_in(lib); }
	std::vector<RuleView> regulars() { return rules_in(&lib->regulars); }

	packet_regular_lib *lib = &g_lev2_packet_regular_lib;
	static constexpr u32 kLoc = PACKET_LEV2_LOC;
};

using Pids = std::vector<s32>;

TEST_F(RegularLib, insert__regulars_in_treatment_order)
{
	struct {
		u32 treatment;
		s32 pid;
		Pids order;
	} const steps[] = {
		{ PACKET_COPY, 1, { 1 } },
		{ PACKET_TRAP, 2, { 2, 1 } },
		{ PACKET_FETCH, 3, { 2, 3, 1 } },
		{ PACKET_TRAP, 4, { 4, 2, 3, 1 } },
		{ PACKET_FETCH, 5, { 4, 2, 5, 3, 1 } },
		{ PACKET_COPY_LOCAL, 6, { 4, 2, 5, 3, 1, 6 } },
		{ PACKET_TREATMENT_NONE, 7, { 4, 2, 5, 3, 1, 6, 7 } },
		{ PACKET_COPY, 8, { 4, 2, 5, 3, 1, 6, 7, 8 } },
		{ 9, 9, { 4, 2, 9, 5, 3, 1, 6, 7, 8 } },
		{ PACKET_FETCH_LOCAL, 10, { 10, 4, 2, 9, 5, 3, 1, 6, 7, 8 } },
		{ PACKET_FETCH, 11, { 11, 10, 4, 2, 9, 5, 3, 1, 6, 7, 8 } },
	};
	std::vector<std::unique_ptr<Rule>> rules;
	for (auto &step : steps) {
		rules.push_back(std::make_unique<Rule>(kLoc, step.treatment, step.pid));
		rules.back()->add();
		EXPECT_EQ(pids(regulars()), step.order);
		EXPECT_EQ(lib->regular_count, step.order.size());
	}
}

TEST_F(RegularLib, insert__match_lists_in_treatment_order)
{
	std::vector<std::unique_ptr<Rule>> rules;
	auto add = [&](u32 treatment, s32 pid) {
		rules.push_back(std::make_unique<Rule>(kLoc, treatment, pid));
		rules.back()->item(PACKET_ALL).add();
	};
	add(PACKET_COPY, 1);
	add(PACKET_FETCH, 2);
	add(PACKET_TRAP, 3);
	add(PACKET_FETCH, 4);
	add(PACKET_TRAP, 5);
	add(PACKET_COPY, 6);
	add(PACKET_COPY_LOCAL, 7);
	add(PACKET_FETCH_LOCAL, 8);
	add(PACKET_FETCH_LOCAL, 9);
	add(PACKET_COPY_LOCAL, 10);
	ASSERT_EQ(entries().size(), 1u);
	EXPECT_EQ(pids(entries()[0].match), (Pids{ 5, 3, 4, 2, 1, 6 }));
	EXPECT_EQ(pids(entries()[0].local), (Pids{ 9, 8, 7, 10 }));
	EXPECT_EQ(g_regular_data_stats[21], 10u);
}

TEST_F(RegularLib, insert__twice_leaves_the_count_at_one)
{
	Rule rule(kLoc, PACKET_COPY, 1234);
	rule.item(PACKET_ALL).add();
	mox_packet_debug[0] = 1;
	EXPECT_EQ(mox_packet_add_regular(&rule.regular()), 0);
	EXPECT_EQ(lib->regular_count, 1u);
	EXPECT_EQ(entries()[0].match.size(), 1u);
	EXPECT_EQ(kernel().text(),
		  "[MOX-PACKET(0)]: MOX-PACKET-INSERT-REGULAR: pid 1234 repeat set regular error");
}

TEST_F(RegularLib, insert__pid_only_rule_is_counted_and_registered_but_not_indexed)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.data(PACKET_PID_T, { 1, 0, 0, 0 }).add();
	EXPECT_EQ(lib->regular_count, 1u);
	EXPECT_EQ(lib->filter_count, 0u);
	EXPECT_TRUE(efmp().registered["lev2"]);
}

TEST_F(RegularLib, insert__no_treatment_is_counted_and_registered_but_not_indexed)
{
	for (u32 treatment : { 0u, 6u }) {
		Rule rule(kLoc, treatment);
		rule.item(PACKET_ALL).add();
		EXPECT_EQ(lib->regular_count, 1u);
		EXPECT_EQ(lib->filter_count, 0u);
		EXPECT_TRUE(efmp().registered["lev2"]);
	}
}

TEST_F(RegularLib, insert__three_values_make_three_entries_or_copies)
{
	Rule first(kLoc, PACKET_COPY, 1), second(kLoc, PACKET_TRAP, 2);
	first.data(PACKET_ETH_PROT_EQUAL, { 1 }).data(PACKET_ETH_PROT_EQUAL, { 2 });
	first.data(PACKET_ETH_PROT_EQUAL, { 3 }).add();
	EXPECT_EQ(lib->filter_count, 3u);
	second.data(PACKET_ETH_PROT_EQUAL, { 3 }).data(PACKET_ETH_PROT_EQUAL, { 4 });
	second.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 4u);
	EXPECT_EQ(pids(e[0].match), (Pids{ 2, 1 }));
	EXPECT_EQ(pids(e[1].match), (Pids{ 1 }));
	EXPECT_EQ(pids(e[2].match), (Pids{ 2, 1 }));
	EXPECT_EQ(pids(e[3].match), (Pids{ 2 }));
}

TEST_F(RegularLib, insert__entries_by_type_new_after_equals)
{
	Rule a(kLoc, PACKET_COPY), b(kLoc, PACKET_COPY), c(kLoc, PACKET_COPY), d(kLoc, PACKET_COPY);
	a.data(PACKET_IPv4_PROT_EQUAL, { 9 }).add();
	b.data(PACKET_SRC_MAC_EQUAL, { 1 }).add();
	c.data(PACKET_IPv4_PROT_EQUAL, { 3 }).add();
	d.data(PACKET_ARP_TYPE, { 3 }).add();
	std::vector<std::pair<u32, int>> seen;
	for (const EntryView &e : entries())
		seen.push_back({ e.type, e.value[0] });
	EXPECT_EQ(seen, (std::vector<std::pair<u32, int>>{ { PACKET_SRC_MAC_EQUAL, 1 },
							   { PACKET_IPv4_PROT_EQUAL, 9 },
							   { PACKET_IPv4_PROT_EQUAL, 3 },
							   { PACKET_ARP_TYPE, 3 } }));
}

TEST_F(RegularLib, insert__copy_holds_all_but_the_key_and_always_pid)
{
	Rule rule(PACKET_LEV3_RESV_LOC, PACKET_FETCH);
	lib = &g_resv_packet_regular_lib;
	rule.data(PACKET_PID_T, { 5, 0, 0, 0 }).data(PACKET_ETH_PROT_EQUAL, { 1 });
	rule.data(PACKET_IPv4_PROT_EQUAL, { 6 }).data(PACKET_IPv4_PROT_EQUAL, { 17 }).add();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 1u);
	EXPECT_EQ(e[0].type, u32(PACKET_ETH_PROT_EQUAL));
	RuleView wanted{ &rule.owner(),
			 PACKET_FETCH,
			 PACKET_LEV3_RESV_LOC,
			 { { PACKET_PID_T, { oracle::bytes_value({ 5 }) } },
			   { PACKET_IPv4_PROT_EQUAL,
			     { oracle::bytes_value({ 6 }), oracle::bytes_value({ 17 }) } } } };
	ASSERT_EQ(e[0].match.size(), 1u);
	EXPECT_EQ(e[0].match[0], wanted);
	EXPECT_EQ(g_regular_data_stats[PACKET_PID_T], 2u);
}

TEST_F(RegularLib, insert__item_without_data_is_the_key_before_a_later_one)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.data(PACKET_PID_T, { 5, 0, 0, 0 })
		.item(PACKET_ALL)
		.data(PACKET_ETH_PROT_EQUAL, { 1 })
		.add();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 1u);
	EXPECT_EQ(e[0].type, u32(PACKET_ALL));
	EXPECT_EQ(e[0].match[0].items.size(), 2u);
}

TEST_F(RegularLib, insert__valued_item_without_data_makes_a_new_entry_each_time)
{
	// A value is never equal to no value, so the key of the first is not found again.
	Rule a(kLoc, PACKET_COPY), b(kLoc, PACKET_COPY);
	a.item(PACKET_ETH_PROT_EQUAL);
	b.item(PACKET_ETH_PROT_EQUAL);
	seam_mutex_lock(&lib->change_lock);
	filter_list_data *one = pkt_add_new_filter_data(PACKET_ETH_PROT_EQUAL, nullptr, lib);
	EXPECT_EQ(pkt_search_data_from_filter_list(PACKET_ETH_PROT_EQUAL, nullptr, lib), nullptr);
	filter_list_data *two = pkt_add_new_filter_data(PACKET_ETH_PROT_EQUAL, nullptr, lib);
	EXPECT_EQ(lib->filter_count, 2u);
	for (filter_list_data *e : { one, two }) {
		pkt_del_filter_list_data(e);
		pkt_free_filter_list_data(e);
		lib->filter_count--;
		lib->nameless--;
	}
	lib->last_entry[PACKET_ETH_PROT_EQUAL] = nullptr;
	seam_mutex_unlock(&lib->change_lock);
}

TEST_F(RegularLib, insert__value_of_zeros_finds_the_key_without_a_value)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_COPY, 2);
	a.item(PACKET_ETH_PROT_EQUAL).add();
	b.data(PACKET_ETH_PROT_EQUAL, { 0, 0 }).add();
	ASSERT_EQ(lib->filter_count, 1u);
	EXPECT_EQ(pids(entries()[0].match), (Pids{ 1, 2 }));
	// The last that carries the value takes all copies along; the other finds no key.
	b.remove();
	EXPECT_EQ(lib->filter_count, 0u);
	a.remove();
}

TEST_F(RegularLib, insert__types_without_value_share_an_entry_whatever_the_value)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_COPY, 2);
	a.data(PACKET_IPv4_MCAST_TRAFFIC, {}).add();
	b.item(PACKET_IPv4_MCAST_TRAFFIC).add();
	EXPECT_EQ(lib->filter_count, 1u);
	EXPECT_EQ(pids(entries()[0].match), (Pids{ 1, 2 }));
}

TEST_F(RegularLib, remove__shared_key_loses_only_the_owners_copies)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_COPY, 2);
	a.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	b.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	mox_packet_debug[0] = 1;
	a.remove();
	EXPECT_EQ(pids(entries()[0].match), (Pids{ 2 }));
	EXPECT_EQ(
		kernel().text(),
		"[MOX-PACKET(0)]: PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in lib\n"
		"[MOX-PACKET(0)]: PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in match list, del\n");
	kernel().log.clear();
	b.remove();
	EXPECT_EQ(lib->filter_count, 0u);
	EXPECT_EQ(
		kernel().text(),
		"[MOX-PACKET(0)]: PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, del\n"
		"[MOX-PACKET(0)]: PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, empty match list\n");
}

TEST_F(RegularLib, remove__shared_item_key_texts)
{
	Rule a(kLoc, PACKET_COPY_LOCAL, 1), b(kLoc, PACKET_FETCH_LOCAL, 2);
	a.item(PACKET_ALL).add();
	mox_packet_debug[0] = 1;
	b.item(PACKET_ALL).add();
	EXPECT_EQ(kernel().text(),
		  "[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-FILTER-LIST: same regular data\n");
	kernel().log.clear();
	a.remove();
	EXPECT_EQ(
		kernel().text(),
		"[MOX-PACKET(0)]: PKT-DEL-REGULAR-FROM-FILTER-LIST: same item in lib\n"
		"[MOX-PACKET(0)]: PKT-DEL-REGULAR-FROM-FILTER-LIST: same item data in match list, del\n");
	kernel().log.clear();
	b.remove();
	EXPECT_EQ(
		kernel().text(),
		"[MOX-PACKET(0)]: PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, del\n"
		"[MOX-PACKET(0)]: PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, empty match list\n");
}

TEST_F(RegularLib, remove__key_that_is_a_condition_of_another_stays_without_copies)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_COPY, 2);
	a.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	b.data(PACKET_IPv4_PROT_EQUAL, { 6 }).data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	a.remove();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 2u);
	EXPECT_TRUE(e[0].match.empty());
	b.remove();
	EXPECT_EQ(lib->filter_count, 0u);
}

TEST_F(RegularLib, remove__rule_without_treatment_keeps_no_key_alive)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_TREATMENT_NONE, 2);
	a.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	b.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	a.remove();
	EXPECT_EQ(lib->filter_count, 0u);
	EXPECT_EQ(lib->regular_count, 1u);
}

TEST_F(RegularLib, remove__treatments_share_a_key_but_not_their_lists)
{
	Rule a(kLoc, PACKET_COPY, 1), b(kLoc, PACKET_COPY_LOCAL, 2);
	a.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	b.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	a.remove();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 1u);
	EXPECT_TRUE(e[0].match.empty());
	EXPECT_EQ(pids(e[0].local), (Pids{ 2 }));
}

TEST_F(RegularLib, search__first_item_of_indexed_rules_only)
{
	Rule none(kLoc, PACKET_TREATMENT_NONE, 1), copy(kLoc, PACKET_COPY, 2);
	none.data(PACKET_ETH_PROT_EQUAL, { 1 }).add();
	copy.data(PACKET_ETH_PROT_EQUAL, { 2 }).add();
	Rule probe(kLoc, PACKET_COPY);
	probe.data(PACKET_ETH_PROT_EQUAL, { 1 }).data(PACKET_SRC_MAC_EQUAL, { 1 });
	regular_item *eth = mox_packet_search_item_from_regular(PACKET_ETH_PROT_EQUAL,
								&probe.regular());
	regular_item *mac = mox_packet_search_item_from_regular(PACKET_SRC_MAC_EQUAL,
								&probe.regular());
	seam_mutex_lock(&lib->change_lock);
	EXPECT_EQ(pkt_search_item_in_regular_lib(eth, lib),
		  mox_packet_search_item_from_regular(PACKET_ETH_PROT_EQUAL, &copy.regular()));
	EXPECT_EQ(pkt_search_item_in_regular_lib(mac, lib), nullptr);
	regular_data *wanted = record_of<regular_data, offsetof(regular_data, node)>(
		eth->datas.next);
	EXPECT_EQ(pkt_search_data_in_regular_lib(wanted, lib), nullptr);
	wanted->value[0] = 2;
	EXPECT_NE(pkt_search_data_in_regular_lib(wanted, lib), nullptr);
	wanted->value[0] = 1;
	seam_mutex_unlock(&lib->change_lock);
}

// --------------------------------------------------------------------------
// No memory

TEST_F(RegularLib, no_memory__entry_of_a_value_is_skipped)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.data(PACKET_ETH_PROT_EQUAL, { 1 }).data(PACKET_ETH_PROT_EQUAL, { 2 });
	mox_packet_debug[0] = 1;
	kernel().fail(Fail::kEntryAlloc);
	rule.add();
	EXPECT_EQ(lib->regular_count, 1u);
	ASSERT_EQ(entries().size(), 1u);
	EXPECT_EQ(entries()[0].value[0], 2);
	EXPECT_EQ(g_regular_data_stats[22], 1u);
	EXPECT_TRUE(kernel().said(
		"[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-FILTER-LIST: add fail, continue!\n"));
	rule.remove();
	EXPECT_EQ(lib->filter_count, 0u);
}

TEST_F(RegularLib, no_memory__entry_of_an_item_passes_the_key_on)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.item(PACKET_ALL).data(PACKET_ETH_PROT_EQUAL, { 1 });
	mox_packet_debug[0] = 1;
	kernel().fail(Fail::kEntryAlloc);
	rule.add();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.size(), 1u);
	EXPECT_EQ(e[0].type, u32(PACKET_ETH_PROT_EQUAL));
	// What stays out of the copy is the first item, not the item that became the key.
	ASSERT_EQ(e[0].match[0].items.size(), 1u);
	EXPECT_EQ(e[0].match[0].items[0].first, u32(PACKET_ETH_PROT_EQUAL));
	EXPECT_TRUE(kernel().said(
		"[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-FILTER-LIST: add fail, continue!\n"));
}

TEST_F(RegularLib, no_memory__copy_is_not_filed)
{
	Rule rule(kLoc, PACKET_TRAP);
	rule.data(PACKET_ETH_PROT_EQUAL, { 1 });
	mox_packet_debug[0] = 1;
	kernel().fail(Fail::kCopyAlloc);
	rule.add();
	ASSERT_EQ(entries().size(), 1u);
	EXPECT_TRUE(entries()[0].match.empty());
	EXPECT_TRUE(kernel().said(
		"[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-MATCH-LIST: alloc regular failed\n"));
}

TEST_F(RegularLib, no_memory__items_and_data_of_a_copy_are_left_out)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.item(PACKET_ALL).data(PACKET_ETH_PROT_EQUAL, { 1 });
	rule.data(PACKET_IPv4_PROT_EQUAL, { 1 }).data(PACKET_IPv4_PROT_EQUAL, { 2 });
	mox_packet_debug[0] = 1;
	kernel().fail(Fail::kItemAlloc);
	kernel().fail(Fail::kDataAlloc);
	rule.add();
	std::vector<EntryView> e = entries();
	ASSERT_EQ(e.at(0).match.at(0).items.size(), 1u);
	EXPECT_EQ(e[0].match[0].items[0].second,
		  std::vector<oracle::Value>{ oracle::bytes_value({ 2 }) });
	EXPECT_TRUE(kernel().said(
		"[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-MATCH-LIST: alloc item failed\n"));
	EXPECT_TRUE(
		kernel().said("[MOX-PACKET(0)]: PKT-ADD-REGULAR-TO-MATCH-LIST: alloc data fail\n"));
	EXPECT_EQ(g_regular_item_stats[22], 1u);
	EXPECT_EQ(g_regular_data_stats[22], 1u);
}

// --------------------------------------------------------------------------
// Context

} // namespace
