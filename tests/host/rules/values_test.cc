// SPDX-License-Identifier: GPL-2.0-only
// Searches by value: in items and in libraries, against a map.
#include <map>
#include <random>

#include "rules/values.hpp"
#include "rules_fixture.h"

namespace {

class Values : public RulesTest {
protected:
	packet_regular_lib *lib = &g_ipv6_packet_regular_lib;

	struct Hold {
		explicit Hold(packet_regular_lib *lib) : lock(&lib->change_lock)
		{
			seam_mutex_lock(lock);
		}
		~Hold() { seam_mutex_unlock(lock); }
		seam_mutex *lock;
	};

	// Depth of a tree, for a bound on the cost of a search.
	static u32 depth(regular_data *root)
	{
		if (!root)
			return 0;
		return 1 + std::max(depth(root->lib.left), depth(root->lib.right));
	}
	static u32 size(regular_data *root)
	{
		return root ? 1 + size(root->lib.left) + size(root->lib.right) : 0;
	}
};

TEST_F(Values, compared__only_the_bytes_of_the_type)
{
	struct {
		u32 type;
		std::vector<u8> one, other;
		bool equal;
	} const rows[] = {
		{ PACKET_PACKET_CODE_EQUAL, { 1, 2, 3 }, { 1, 2, 4 }, true },
		{ PACKET_PACKET_CODE_EQUAL, { 1, 2 }, { 1, 3 }, false },
		{ PACKET_DEST_MAC_EQUAL, { 1, 2, 3, 4, 5, 6, 7 }, { 1, 2, 3, 4, 5, 6, 8 }, true },
		{ PACKET_DEST_MAC_EQUAL, { 1, 2, 3, 4, 5, 6 }, { 1, 2, 3, 4, 5, 7 }, false },
		{ PACKET_IPv4_PROT_EQUAL, { 6, 1 }, { 6, 2 }, true },
		{ PACKET_SRC_INTF_EQUAL, { 1, 0, 0, 0, 9 }, { 1, 0, 0, 0, 8 }, true },
		{ PACKET_SRC_INTF_EQUAL, { 1, 0, 0, 1 }, { 1, 0, 0, 2 }, false },
		{ PACKET_ALL, { 1 }, { 2 }, true },
	};
	for (auto &row : rows) {
		u8 one[8]{}, other[8]{};
		memcpy(one, row.one.data(), row.one.size());
		memcpy(other, row.other.data(), row.other.size());
		EXPECT_EQ(rule_value(row.type, one) == rule_value(row.type, other), row.equal)
			<< "type " << row.type;
	}
}

TEST_F(Values, library__one_datum_stands_for_its_equals)
{
	const u32 type = PACKET_ETH_PROT_EQUAL;
	std::map<u32, std::vector<regular_data *>> want;
	std::map<u32, filter_list_data *> entries;
	filter_list_data marks[40];
	std::mt19937 rng(5);
	u32 shared = 0, last = 0;
	Hold hold(lib);
	for (int step = 0; step < 20000; step++) {
		u32 value = rng() % 40;
		std::vector<regular_data *> &held = want[value];
		if (rng() % 2) {
			regular_data *d = datum(type, { u8(value) });
			regular_data *stands = library_value_enter(d, lib);
			if (held.empty()) {
				EXPECT_EQ(stands, d);
				EXPECT_EQ(d->entry, nullptr);
				d->entry = entries[value] = &marks[value];
			}
			EXPECT_EQ(stands->entry, entries[value]);
			held.push_back(d);
		} else if (!held.empty()) {
			size_t which = rng() % held.size();
			regular_data *d = held[which];
			held.erase(held.begin() + which);
			ValueLeft left = library_value_leave(d, lib);
			EXPECT_EQ(left.other != nullptr, !held.empty());
			EXPECT_EQ(left.entry, entries[value]);
			(held.empty() ? last : shared)++;
			mox_packet_free_data(d);
		}
		u8 bytes[8] = { u8(value) };
		regular_data *found = library_value(type, bytes, lib);
		EXPECT_EQ(std::count(held.begin(), held.end(), found), held.empty() ? 0 : 1);
		ASSERT_FALSE(HasFailure()) << "step " << step;
	}
	EXPECT_GT(shared, 100u);
	EXPECT_GT(last, 100u);
	for (auto &[value, held] : want)
		for (regular_data *d : held) {
			library_value_leave(d, lib);
			mox_packet_free_data(d);
		}
	EXPECT_EQ(lib->values[type], nullptr);
}

// Sorted values would make a plain search tree as deep as they are many.
TEST_F(Values, library__sorted_values_make_no_deep_tree)
{
	constexpr u32 kMany = 30000;
	std::vector<regular_data *> all;
	Hold hold(lib);
	for (u32 n = 0; n < kMany; n++) {
		all.push_back(datum(PACKET_SRC_INTF_EQUAL, { u8(n), u8(n >> 8), u8(n >> 16), 0 }));
		library_value_enter(all.back(), lib);
	}
	EXPECT_EQ(size(lib->values[PACKET_SRC_INTF_EQUAL]), kMany);
	EXPECT_LT(depth(lib->values[PACKET_SRC_INTF_EQUAL]), 60u);
	for (regular_data *d : all) {
		EXPECT_EQ(library_value_leave(d, lib).other, nullptr);
		mox_packet_free_data(d);
	}
	EXPECT_EQ(lib->values[PACKET_SRC_INTF_EQUAL], nullptr);
}

// Unites the trees of two sets of values, with at most kOpen subtrees that wait.
template <u32 kOpen> void unite_sets(const std::set<u32> &one, const std::set<u32> &two)
{
	struct Visitor {
		std::map<const regular_data *, const regular_data *> pairs;
		u32 steps = 0;
		void step() { steps++; }
		void equal(const regular_data *stays, const regular_data *leaves)
		{
			EXPECT_TRUE(pairs.insert({ leaves, stays }).second);
		}
	} visitor;
	std::vector<regular_data *> all;
	regular_data *roots[2]{};
	for (u32 which : { 0, 1 })
		for (u32 n : which ? two : one) {
			all.push_back(datum(PACKET_SRC_INTF_EQUAL, { u8(n), u8(n >> 8), 0, 0 }));
			const ValueKey key(PACKET_SRC_INTF_EQUAL, all.back()->value);
			EXPECT_EQ(LibraryTree::insert(&roots[which], all.back(), key), nullptr);
		}
	LibraryTree::unite<kOpen>(&roots[0], roots[1], visitor);

	// In the tree's order, each below one of a higher priority.
	std::vector<const regular_data *> held;
	std::function<void(regular_data *)> walk = [&](regular_data *at) {
		if (!at)
			return;
		for (const regular_data *below : { at->lib.left, at->lib.right })
			EXPECT_TRUE(!below || below->priority <= at->priority);
		walk(at->lib.left);
		held.push_back(at);
		walk(at->lib.right);
	};
	walk(roots[0]);
	std::set<u32> both = one;
	both.insert(two.begin(), two.end());
	std::set<u32> seen;
	for (size_t at = 0; at < held.size(); at++) {
		const u32 value = rule_value(PACKET_SRC_INTF_EQUAL, held[at]->value).low;
		EXPECT_TRUE(at == 0 || seen.count(value) == 0);
		EXPECT_TRUE(seen.empty() || *seen.rbegin() < value) << "a tree's order";
		seen.insert(value);
	}
	EXPECT_EQ(seen, both);
	EXPECT_EQ(visitor.pairs.size(), one.size() + two.size() - both.size());
	for (auto &[leaves, stays] : visitor.pairs) {
		EXPECT_EQ(memcmp(leaves->value, stays->value, 4), 0);
		EXPECT_EQ(std::count(held.begin(), held.end(), leaves), 0);
		EXPECT_EQ(std::count(held.begin(), held.end(), stays), 1);
	}
	EXPECT_GE(visitor.steps, std::min(one.size(), two.size()));
	for (regular_data *d : all)
		mox_packet_free_data(d);
}

TEST_F(Values, unite__whatever_the_sizes_and_the_limit)
{
	struct {
		u32 one, two, range; // values of each tree, and how many there are to choose from
	} const rows[] = {
		{ 0, 0, 1 },       { 1, 0, 9 },       { 0, 1, 9 },
		{ 1, 1, 1 },       { 1, 500, 501 },   { 500, 1, 501 },
		{ 100, 100, 100 }, { 300, 300, 400 }, { 700, 700, 60000 },
	};
	std::mt19937 rng(11);
	for (auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.one << " and " << row.two);
		std::set<u32> sets[2];
		for (u32 which : { 0, 1 })
			while (sets[which].size() < (which ? row.two : row.one))
				sets[which].insert(rng() % row.range);
		unite_sets<32>(sets[0], sets[1]);
		// One waits: the limit is reached all the time.
		unite_sets<1>(sets[0], sets[1]);
	}
}

// Trees are united, and with few others left as a whole; the result is the same.
TEST_F(Values, library__items_with_few_and_with_many_others)
{
	struct {
		u32 own, others, each; // data of the item; other items, and the data of each
		bool few;
	} const rows[] = {
		{ 1, 0, 0, true },        { 300, 0, 0, true },   { 1, 1, 1, false },
		{ 7, 1, 1, false },       { 8, 1, 1, true },     { 8, 1, 2, false },
		{ 100, 12, 1, true },     { 100, 13, 1, false }, { 100, 1, 24, true },
		{ 100, 1, 25, false },    { 1000, 50, 4, true }, { 300, 3, 300, false },
		{ 2000, 1, 2000, false },
	};
	const u32 type = PACKET_SRC_INTF_EQUAL;
	std::mt19937 rng(7);
	for (auto &row : rows)
		for (u32 range : { 1u, 2u, 1000000u }) {
			SCOPED_TRACE(testing::Message() << row.own << " " << row.others << " of "
							<< row.each << " range " << range);
			auto number = [](u32 n) {
				return std::vector<u8>{ u8(n), u8(n >> 8), u8(n >> 16), 0 };
			};
			// Of the own values, of those and as many more, or of any.
			const u32 last = range > 2 ? range : std::max(row.own, row.each) * range;
			Rule own(PACKET_IPv6_LOC, PACKET_COPY, 1);
			std::set<u32> own_values, other_values;
			for (u32 n = 0; n < row.own; n++)
				own_values.insert(n);
			for (u32 n : own_values)
				own.data(type, number(n));
			std::vector<std::unique_ptr<Rule>> others;
			for (u32 n = 0; n < row.others; n++) {
				others.push_back(
					std::make_unique<Rule>(PACKET_IPv6_LOC, PACKET_TRAP, 2));
				std::set<u32> values;
				while (values.size() < row.each)
					values.insert(rng() % last);
				for (u32 value : values)
					others.back()->data(type, number(value));
				other_values.insert(values.begin(), values.end());
			}
			std::set<u32> all = own_values;
			all.insert(other_values.begin(), other_values.end());
			const regular_item *item = mox_packet_search_item_from_regular(
				type, &own.regular());
			auto expect = [&](const std::set<u32> &values) {
				verify_index(lib);
				EXPECT_EQ(size(lib->values[type]), values.size());
				EXPECT_EQ(lib->filter_count, values.size());
				for (const filter_list_data *key : entries_of(&lib->filter_list)) {
					Hold hold(lib);
					const regular_data *stands = library_value(type, key->value,
										   lib);
					ASSERT_NE(stands, nullptr);
					EXPECT_EQ(stands->entry, key);
				}
			};
			// The item is the last that enters and the first that leaves, then the others are.
			for (auto &other : others)
				other->add();
			{
				Hold hold(lib);
				EXPECT_EQ(library_values_few_others(item, lib), row.few);
			}
			own.add();
			expect(all);
			own.remove();
			expect(other_values);
			for (auto &other : others)
				other->remove();
			own.add();
			expect(own_values);
			for (auto &other : others)
				other->add();
			expect(all);
			own.remove();
			expect(other_values);
			own.add();
			for (auto &other : others)
				other->remove();
			expect(own_values);
			own.remove();
			expect({});
			if (HasFailure())
				return;
		}
}

TEST_F(Values, item__finds_what_was_added_and_not_what_was_deleted)
{
	Rule rule(PACKET_NONE_LOC, PACKET_COPY);
	for (u32 n = 0; n < 500; n++)
		rule.data(PACKET_IPv4_DEST_PORT_EQUAL, { u8(n * 7), u8(n * 7 >> 8) });
	for (u32 n = 0; n < 500; n += 2)
		rule.del(PACKET_IPv4_DEST_PORT_EQUAL, { u8(n * 7), u8(n * 7 >> 8) });
	const regular_item *item = mox_packet_search_item_from_regular(PACKET_IPv4_DEST_PORT_EQUAL,
								       &rule.regular());
	for (u32 n = 0; n < 500; n++)
		EXPECT_EQ(item_value(item, { n * 7, 0 }) != nullptr, n % 2 == 1) << n;
	EXPECT_EQ(item_value(item, { 3500, 0 }), nullptr);
}

} // namespace
