// SPDX-License-Identifier: GPL-2.0-only
// Places in the lists of a library, and the numbers that compare as the lists are ordered.
#include "rules/places.hpp"
#include "rules_fixture.h"

namespace {

using Ids = std::vector<s32>;

// Counts at which a library's numbers begin: a new one, and words that overflow. The last one
// leaves room for the rules of a test below the greatest number.
constexpr u64 kBegins[] = { 0, 0x7ffffffd, 0xfffffffd, 0x1fffffffdull, (1ull << 62) - 16 };

class Places : public RulesTest {
protected:
	void SetUp() override
	{
		RulesTest::SetUp();
		seam_mutex_lock(&lib->change_lock);
	}
	void TearDown() override SEAM_NO_THREAD_SAFETY_ANALYSIS
	{
		seam_mutex_unlock(&lib->change_lock);
		RulesTest::TearDown();
	}

	// A record in a list; its id stands in its socket.
	struct Record {
		mox_packet_sock owner{};
		packet_regular rule{};
		explicit Record(u32 treatment, s32 id)
		{
			owner.pid = id;
			rule.owner = &owner;
			rule.treatment = treatment;
		}
	};

	// The ids of a list, whose places must be in its order.
	static Ids ids(const list_head *head,
		       bool (*before)(const packet_regular *, const packet_regular *))
	{
		Ids out;
		const packet_regular *last = nullptr;
		for (const packet_regular *rule : regulars_of(head)) {
			if (last) {
				EXPECT_TRUE(before(last, rule)) << rule->owner->pid;
				EXPECT_FALSE(before(rule, last)) << rule->owner->pid;
			}
			last = rule;
			out.push_back(rule->owner->pid);
		}
		return out;
	}

	packet_regular_lib *lib = &g_lev2_packet_regular_lib;
};

TEST_F(Places, regulars__order_and_numbers) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	struct {
		u32 treatment; // of the rule that enters
		s32 leaves;    // id of the rule that leaves instead, or 0
		bool numbered; // at the end of the list
		Ids order;
	} const steps[] = {
		{ PACKET_FETCH, 0, false, { 1 } },
		{ PACKET_COPY, 0, true, { 1, 2 } },
		{ PACKET_TRAP, 0, false, { 3, 1, 2 } },
		{ PACKET_FETCH, 0, false, { 3, 4, 1, 2 } },
		{ PACKET_FETCH, 0, false, { 3, 5, 4, 1, 2 } },
		{ PACKET_TRAP, 0, false, { 6, 3, 5, 4, 1, 2 } },
		{ 6, 0, false, { 6, 3, 7, 5, 4, 1, 2 } },
		{ PACKET_TREATMENT_NONE, 0, true, { 6, 3, 7, 5, 4, 1, 2, 8 } },
		// At the head it ends the run of traps.
		{ PACKET_FETCH_LOCAL, 0, false, { 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_FETCH, 0, false, { 10, 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_TRAP, 0, false, { 11, 10, 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_FETCH, 0, false, { 11, 12, 10, 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ 0, 10, false, { 11, 12, 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ 0, 12, false, { 11, 9, 6, 3, 7, 5, 4, 1, 2, 8 } },
		// What the fetch-local rule separated is one run again.
		{ 0, 9, false, { 11, 6, 3, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_FETCH, 0, false, { 11, 6, 3, 13, 7, 5, 4, 1, 2, 8 } },
		// The trap whose number the fetches share leaves before them.
		{ 0, 3, false, { 11, 6, 13, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_FETCH, 0, false, { 11, 6, 14, 13, 7, 5, 4, 1, 2, 8 } },
		{ PACKET_COPY_LOCAL, 0, true, { 11, 6, 14, 13, 7, 5, 4, 1, 2, 8, 15 } },
	};
	for (u64 begin : kBegins) {
		SCOPED_TRACE(begin);
		std::vector<std::unique_ptr<Record>> rules;
		lib->rules_entered = begin;
		for (auto &step : steps) {
			if (step.leaves) {
				mox_packet_list_del_safe(&rules.at(step.leaves - 1)->rule.lib_node);
			} else {
				const s32 id = static_cast<s32>(rules.size()) + 1;
				rules.push_back(std::make_unique<Record>(step.treatment, id));
				packet_regular &rule = rules.back()->rule;
				place_in_regulars(&rule, lib);
				EXPECT_EQ(lib->rules_entered, begin + static_cast<u64>(id));
				EXPECT_EQ(rule_number(&rule),
					  step.numbered ? lib->rules_entered : 0);
			}
			EXPECT_EQ(ids(&lib->regulars, rule_before), step.order);
		}
		list_init(&lib->regulars);
	}
}

TEST_F(Places, entry__order_and_numbers)
{
	struct {
		u32 treatment; // of the copy that is filed
		s32 leaves;    // id of the copy that leaves instead, or 0
		s32 last_trap; // its id, or 0
		Ids match, local;
	} const steps[] = {
		{ PACKET_COPY, 0, 0, { 1 }, {} },
		{ PACKET_FETCH, 0, 0, { 2, 1 }, {} },
		{ PACKET_TRAP, 0, 3, { 3, 2, 1 }, {} },
		{ PACKET_FETCH, 0, 3, { 3, 4, 2, 1 }, {} },
		{ PACKET_TRAP, 0, 3, { 5, 3, 4, 2, 1 }, {} },
		{ PACKET_TRAP, 0, 3, { 6, 5, 3, 4, 2, 1 }, {} },
		{ PACKET_COPY_LOCAL, 0, 3, { 6, 5, 3, 4, 2, 1 }, { 7 } },
		{ PACKET_FETCH_LOCAL, 0, 3, { 6, 5, 3, 4, 2, 1 }, { 8, 7 } },
		{ PACKET_FETCH_LOCAL, 0, 3, { 6, 5, 3, 4, 2, 1 }, { 9, 8, 7 } },
		// The last trap leaves: the one before it is the last.
		{ 0, 3, 5, { 6, 5, 4, 2, 1 }, { 9, 8, 7 } },
		{ PACKET_FETCH, 0, 5, { 6, 5, 10, 4, 2, 1 }, { 9, 8, 7 } },
		{ 0, 6, 5, { 5, 10, 4, 2, 1 }, { 9, 8, 7 } },
		// No trap is left: a fetch goes to the head.
		{ 0, 5, 0, { 10, 4, 2, 1 }, { 9, 8, 7 } },
		{ PACKET_FETCH, 0, 0, { 11, 10, 4, 2, 1 }, { 9, 8, 7 } },
		{ PACKET_COPY, 0, 0, { 11, 10, 4, 2, 1, 12 }, { 9, 8, 7 } },
		{ PACKET_TRAP, 0, 13, { 13, 11, 10, 4, 2, 1, 12 }, { 9, 8, 7 } },
	};
	for (u64 begin : kBegins) {
		SCOPED_TRACE(begin);
		std::vector<std::unique_ptr<Record>> copies;
		filter_list_data entry{};
		list_init(&entry.match_list);
		list_init(&entry.local_match_list);
		for (auto &step : steps) {
			if (step.leaves) {
				leave_entry(&copies.at(step.leaves - 1)->rule);
			} else {
				const s32 id = static_cast<s32>(copies.size()) + 1;
				const u64 number = begin + static_cast<u64>(id);
				copies.push_back(std::make_unique<Record>(step.treatment, id));
				packet_regular &copy = copies.back()->rule;
				copy.entry = &entry;
				place_in_entry(&copy, number);
				const bool last = step.treatment == PACKET_COPY ||
						  step.treatment == PACKET_COPY_LOCAL;
				EXPECT_EQ(copy_number(&copy), last ? number : 0);
			}
			EXPECT_EQ(ids(&entry.match_list, copy_before), step.match);
			EXPECT_EQ(entry.last_trap ? entry.last_trap->owner->pid : 0,
				  step.last_trap);
			EXPECT_EQ(ids(&entry.local_match_list, copy_before), step.local);
		}
	}
}

TEST_F(Places, filter_list__by_type_new_after_equals) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	struct {
		u32 type;   // of the key that is made
		s32 leaves; // number of the key that leaves instead, or 0
		Ids order;
	} const steps[] = {
		{ PACKET_IPv4_PROT_EQUAL, 0, { 1 } },
		{ PACKET_SRC_MAC_EQUAL, 0, { 2, 1 } },
		{ PACKET_ALL, 0, { 2, 1, 3 } },
		{ PACKET_IPv4_PROT_EQUAL, 0, { 2, 1, 4, 3 } },
		{ 0, 4, { 2, 1, 3 } },
		{ PACKET_IPv4_PROT_EQUAL, 0, { 2, 1, 5, 3 } },
		// Not the last of its type.
		{ 0, 1, { 2, 5, 3 } },
		{ 0, 5, { 2, 3 } },
		// The last of its type, and the key before it has another type.
		{ PACKET_IPv4_PROT_EQUAL, 0, { 2, 6, 3 } },
		{ 0, 2, { 6, 3 } },
		{ PACKET_PACKET_CODE_EQUAL, 0, { 7, 6, 3 } },
		{ PACKET_ARP_TYPE, 0, { 7, 6, 3, 8 } },
	};
	std::vector<std::unique_ptr<filter_list_data>> keys;
	lib->entries_made = 0xfffffffd;
	for (auto &step : steps) {
		if (step.leaves) {
			leave_filter_list(keys.at(step.leaves - 1).get(), lib);
		} else {
			keys.push_back(std::make_unique<filter_list_data>());
			keys.back()->type = step.type;
			place_in_filter_list(keys.back().get(), lib);
		}
		Ids order;
		std::map<u32, const filter_list_data *> last;
		const filter_list_data *previous = nullptr;
		for (const filter_list_data *key : entries_of(&lib->filter_list)) {
			if (previous) {
				EXPECT_TRUE(key_before(previous, key));
				EXPECT_FALSE(key_before(key, previous));
			}
			previous = last[key->type] = key;
			order.push_back(static_cast<s32>(key->place - 0xfffffffd));
		}
		EXPECT_EQ(order, step.order);
		EXPECT_EQ(lib->filter_count, order.size());
		for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++)
			EXPECT_EQ(lib->last_entry[type], last.count(type) ? last[type] : nullptr)
				<< "type " << type;
	}
	for (const Ids &left = steps[sizeof steps / sizeof *steps - 1].order; s32 number : left)
		leave_filter_list(keys.at(number - 1).get(), lib);
	EXPECT_EQ(lib->filter_list.next, &lib->filter_list);
}

} // namespace
