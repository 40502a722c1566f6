// SPDX-License-Identifier: GPL-2.0-only
// Which condition a rule is anchored by, and how long the lock is held for it.
#include "rules/index.hpp"
#include "rules_fixture.h"

namespace {

class Choice : public RulesTest {
protected:
	void TearDown() override
	{
		kernel().at.clear();
		others.clear();
		RulesTest::TearDown();
	}
	// A value of a type; different numbers, different values.
	static std::vector<u8> value(u32 type, u32 number)
	{
		std::vector<u8> bytes(contract::width(type), 0x11);
		bytes[0] = static_cast<u8>(0x21 + number);
		if (bytes.size() > 1)
			bytes[1] = static_cast<u8>(0x31 + (number >> 7));
		return bytes;
	}
	static void add_values(Rule &rule, u32 type, u32 count, u32 first = 0)
	{
		if (contract::width(type) == 0)
			rule.item(type);
		else
			for (u32 n = first; n < first + count; n++)
				rule.data(type, value(type, n));
	}
	// So many other rules with a value of the type.
	void crowd(u32 type, u32 rules, u32 number = 0)
	{
		while (rules-- > 0) {
			others.push_back(std::make_unique<Rule>(kLoc, PACKET_COPY));
			others.back()->data(type, value(type, number));
			others.back()->add();
		}
	}
	// The type by which delivery finds a rule; kTypes for none of its conditions.
	static u32 anchor(Rule &rule)
	{
		const regular_item *item = rule.regular().anchored;
		return item ? item->type : u32{ contract::kTypes };
	}
	static constexpr u32 kLoc = PACKET_LEV2_LOC;
	packet_regular_lib *lib = &g_lev2_packet_regular_lib;
	std::vector<std::unique_ptr<Rule>> others;
};

// Of conditions that no other rule has, the one that most frames fail; of equal ones the first.
TEST_F(Choice, rank__of_every_pair_of_types)
{
	const struct {
		u32 type;
		int rank;
	} types[] = {
		{ contract::kSrcMac, 6 },    { contract::kV4SrcPort, 5 },
		{ contract::kV4DstPort, 5 }, { contract::kV6DstPort, 5 },
		{ contract::kDstMac, 4 },    { contract::kIntf, 3 },
		{ contract::kCode, 2 },      { contract::kIcmp6, 2 },
		{ contract::kEapol, 2 },     { contract::kArp, 2 },
		{ contract::kEth, 1 },       { contract::kSnap, 1 },
		{ contract::kV4Proto, 0 },   { contract::kV6Proto, 0 },
		{ contract::kV4Mcast, -1 },  { contract::kV6Mcast, -1 },
	};
	for (auto &first : types)
		for (auto &second : types) {
			if (first.type == second.type)
				continue;
			SCOPED_TRACE(testing::Message()
				     << contract::kRuleTypes[first.type].name << ", "
				     << contract::kRuleTypes[second.type].name);
			Rule rule(kLoc, PACKET_COPY);
			add_values(rule, first.type, 1);
			add_values(rule, second.type, 1);
			rule.add();
			EXPECT_EQ(anchor(rule),
				  first.rank >= second.rank ? first.type : second.type);
		}
}

// Fewer rules of the same value come before rank, up to eight, which is a crowd like any larger.
TEST_F(Choice, crowd__comes_before_rank)
{
	const struct {
		u32 macs, eths;
		bool by_mac;
	} rows[] = {
		{ 0, 0, true },  { 1, 1, true },  { 1, 0, false },  { 0, 1, true },
		{ 2, 1, false }, { 7, 6, false }, { 8, 7, false },  { 8, 8, true },
		{ 9, 8, true },  { 20, 8, true }, { 20, 7, false }, { 7, 20, true },
	};
	for (auto &row : rows)
		for (bool mac_first : { true, false }) {
			SCOPED_TRACE(testing::Message() << row.macs << " " << row.eths);
			crowd(contract::kSrcMac, row.macs);
			crowd(contract::kEth, row.eths);
			Rule rule(kLoc, PACKET_COPY);
			add_values(rule, mac_first ? contract::kSrcMac : contract::kEth, 1);
			add_values(rule, mac_first ? contract::kEth : contract::kSrcMac, 1);
			rule.add();
			EXPECT_EQ(anchor(rule), row.by_mac ? contract::kSrcMac : contract::kEth);
			rule.remove();
			others.clear();
		}
}

// A condition is as crowded as the most crowded one of its values.
TEST_F(Choice, crowd__of_the_worst_value)
{
	for (bool crowded_first : { true, false }) {
		crowd(contract::kSrcMac, 2, 1);
		crowd(contract::kEth, 1);
		Rule rule(kLoc, PACKET_COPY);
		for (u32 number : { crowded_first ? 1u : 0u, crowded_first ? 0u : 1u })
			rule.data(contract::kSrcMac, value(contract::kSrcMac, number));
		add_values(rule, contract::kEth, 1);
		rule.add();
		EXPECT_EQ(anchor(rule), contract::kEth);
		rule.remove();
		others.clear();
	}
}

// More than four values are a last resort, before a crowd only.
TEST_F(Choice, values__many_come_behind_few)
{
	const struct {
		u32 macs, eth_rules;
		bool by_mac;
	} rows[] = { { 1, 0, true },   { 4, 0, true }, { 5, 0, false },
		     { 40, 0, false }, { 5, 1, true }, { 40, 1, true } };
	for (auto &row : rows)
		for (bool mac_first : { true, false }) {
			SCOPED_TRACE(testing::Message() << row.macs << " " << row.eth_rules);
			crowd(contract::kEth, row.eth_rules);
			Rule rule(kLoc, PACKET_COPY);
			if (mac_first)
				add_values(rule, contract::kSrcMac, row.macs);
			add_values(rule, contract::kEth, 1);
			if (!mac_first)
				add_values(rule, contract::kSrcMac, row.macs);
			rule.add();
			EXPECT_EQ(anchor(rule), row.by_mac ? contract::kSrcMac : contract::kEth);
			rule.remove();
			others.clear();
		}
}

// Every frame satisfies it, so that any other condition is better, however crowded.
TEST_F(Choice, every_frame__is_more_than_any_crowd)
{
	crowd(contract::kV4Proto, 20);
	for (bool all_first : { true, false }) {
		Rule rule(kLoc, PACKET_COPY);
		if (all_first)
			rule.item(contract::kAll);
		add_values(rule, contract::kV4Proto, 1);
		if (!all_first)
			rule.item(contract::kAll);
		rule.add();
		EXPECT_EQ(anchor(rule), contract::kV4Proto);
		EXPECT_EQ(rule.regular().anchor.prev, nullptr) << "its value is anchored";
	}
	Rule all(kLoc, PACKET_COPY);
	all.item(contract::kAll).add();
	EXPECT_NE(all.regular().anchor.prev, nullptr) << "the rule's own anchor";
}

// Where one condition is satisfied by no frame nothing is anchored, wherever it stands.
TEST_F(Choice, no_frame__no_anchor)
{
	const struct {
		const char *name;
		u32 type;
		std::vector<u8> value;
		bool none;
	} rows[] = {
		{ "no values", contract::kV4DstPort, {}, true },
		{ "no process", contract::kPid, {}, true },
		{ "a process", contract::kPid, { 1, 2, 3, 4 }, false },
		{ "WPS", contract::kWps, { 3 }, true },
		{ "WLAN management", contract::kWlanMgnt, {}, true },
		{ "a value", contract::kV4DstPort, { 0, 53 }, false },
	};
	for (auto &row : rows)
		for (bool first : { true, false }) {
			SCOPED_TRACE(testing::Message() << row.name << ", first " << first);
			// Withdrawal does not find a key without the value that its type has.
			if (first && row.value.empty() && contract::width(row.type) != 0)
				continue;
			Rule rule(kLoc, PACKET_COPY);
			const auto condition = [&] {
				if (row.value.empty())
					rule.item(row.type);
				else
					rule.data(row.type, row.value);
			};
			if (first)
				condition();
			add_values(rule, contract::kEth, 1);
			if (!first)
				condition();
			rule.add();
			EXPECT_EQ(lib->delivery.present[0] == 0, row.none);
		}
}

// A copy's anchors are linked, and unlinked, 64 at a time.
TEST_F(Choice, hold__of_the_library_lock)
{
	crowd(contract::kEth, 3);
	int writes = 0;
	kernel().at.watch(Point::kLock, [&](const void *lock) {
		writes += lock == &lib->lock && reinterpret_cast<const fake::Lock *>(lock)->writers;
	});
	const auto cost = [&](u32 values, bool remove, int *offers) {
		Rule rule(kLoc, PACKET_COPY);
		rule.data(contract::kEth, value(contract::kEth, 0));
		add_values(rule, contract::kV4DstPort, values);
		if (remove)
			rule.add();
		writes = 0;
		kernel().cond_rescheds = 0;
		if (remove)
			rule.remove();
		else
			rule.add();
		*offers = kernel().cond_rescheds;
		return writes;
	};
	for (bool remove : { false, true }) {
		int base_offers = 0;
		const int base = cost(1, remove, &base_offers);
		for (u32 values : { 2u, 64u, 65u, 128u, 129u }) {
			SCOPED_TRACE(testing::Message() << values << ", remove " << remove);
			int offers = 0;
			EXPECT_EQ(cost(values, remove, &offers) - base,
				  static_cast<int>(values - 1) / 64);
			EXPECT_GE(offers - base_offers, static_cast<int>(values - 1) / 64);
		}
	}
}

// Of a key with many values each copy is anchored by itself: linked and unlinked 64 at a time too.
TEST_F(Choice, hold__of_copies_under_many_keys)
{
	int writes = 0;
	kernel().at.watch(Point::kLock, [&](const void *lock) {
		writes += lock == &lib->lock && reinterpret_cast<const fake::Lock *>(lock)->writers;
	});
	for (bool remove : { false, true })
		for (u32 values : { 1u, 63u, 64u, 65u, 128u, 129u }) {
			SCOPED_TRACE(testing::Message() << values << ", remove " << remove);
			Rule rule(kLoc, PACKET_COPY);
			add_values(rule, contract::kV4DstPort, values);
			if (remove)
				rule.add();
			writes = 0;
			if (remove)
				rule.remove();
			else
				rule.add();
			EXPECT_EQ(writes, static_cast<int>(values + 63) / 64);
		}
}

// The seeds are odd, so that every value has its own hash, and all of them are drawn anew.
TEST_F(Choice, seeds__are_odd_and_drawn)
{
	for (int i = 0; i < 64; i++) {
		g_index_seeds = {};
		index_choose_seeds();
		EXPECT_EQ(g_index_seeds.low & 1, 1u);
		EXPECT_EQ(g_index_seeds.high & 1, 1u);
		EXPECT_GT(g_index_seeds.low, 1u);
		EXPECT_GT(g_index_seeds.high, 1u);
		std::set<u32> slots;
		for (auto &of_view : g_index_seeds.slot)
			slots.insert(std::begin(of_view), std::end(of_view));
		EXPECT_GT(slots.size(), RULE_VIEWS * kSlots - 3u) << "hardly two are the same";
	}
}

} // namespace
