// SPDX-License-Identifier: GPL-2.0-only
// Recounts the index of a library against its lists.
#include <algorithm>

#include <gtest/gtest.h>

#include "rules/digest.hpp"
#include "rules/values.hpp"
#include "rules_fixture.h"

namespace {

// Every datum of a tree, in its order; fails where order or priorities are broken.
template <typename Traits> void walk(regular_data *at, std::vector<regular_data *> &out)
{
	if (!at)
		return;
	for (regular_data *below : { Traits::left(at), Traits::right(at) })
		if (below)
			EXPECT_GE(at->priority, below->priority) << "a tree's priorities";
	walk<Traits>(Traits::left(at), out);
	if (!out.empty())
		EXPECT_LT(Traits::compare(ValueKey(out.back()->type, out.back()->value), at), 0)
			<< "a tree's order";
	out.push_back(at);
	walk<Traits>(Traits::right(at), out);
}

using ItemTraits = ValueTraits<&regular_data::item>;
using LibTraits = ValueTraits<&regular_data::lib>;

// The tree of an item holds the data of its list. Data that the item's equality does not tell
// apart, which only a test puts there, are in the list alone.
void verify_items(const packet_regular &rule)
{
	for (const regular_item *item : items_of(&rule)) {
		std::set<const regular_data *> listed;
		for (const regular_data *datum : datas_of(item))
			listed.insert(datum);
		std::vector<regular_data *> tree;
		walk<ItemTraits>(item->root, tree);
		EXPECT_EQ(tree.size(), listed.size()) << "type " << item->type;
		for (const regular_data *datum : tree)
			EXPECT_TRUE(listed.count(datum)) << "a datum of another item";
	}
}

// Most buckets are empty: as many are looked at in one go, after all of them.
constexpr u32 kAtOnce = 64;
static_assert((1u << kFilterBits) % kAtOnce == 0 && (1u << kDeliveryBits) % kAtOnce == 0);

bool all_empty(rule_anchor *const *heads, u32 count)
{
	static const rule_anchor *const none[1u << std::max(kFilterBits, kDeliveryBits)]{};
	return memcmp(heads, none, count * sizeof *heads) == 0;
}

// One set of buckets: the rules that are anchored in it.
std::set<const packet_regular *> verify_buckets(const rule_index &index, rule_anchor *const *heads,
						u32 bits,
						bool (*before)(const packet_regular *,
							       const packet_regular *))
{
	std::set<const packet_regular *> rules;
	std::array<u32, RULE_VIEWS * RULE_SLOTS> anchors{};
	const u32 buckets = all_empty(heads, 1u << bits) ? 0 : 1u << bits;
	for (u32 bucket = 0; bucket < buckets; bucket++) {
		if (bucket % kAtOnce == 0 && all_empty(heads + bucket, kAtOnce)) {
			bucket += kAtOnce - 1;
			continue;
		}
		const rule_anchor *last = nullptr;
		for (const rule_anchor *at = heads[bucket]; at; last = at, at = at->next) {
			u32 view = at->spot / kSlots, slot = at->spot % kSlots;
			EXPECT_EQ(at->hash, index_hash(view, slot, { at->low, at->high }));
			EXPECT_EQ(at->hash >> (32 - bits), bucket);
			EXPECT_EQ(view, view_of(at->rule->location));
			const rule_digest digest = digest_of(at->rule);
			EXPECT_EQ(memcmp(&digest, &at->rule->digest, sizeof digest), 0);
			if (last) {
				EXPECT_EQ(at->prev, last);
				EXPECT_FALSE(before(at->rule, last->rule)) << "a chain's order";
			}
			anchors[at->spot]++;
			rules.insert(at->rule);
		}
		if (heads[bucket])
			EXPECT_EQ(heads[bucket]->prev, last) << "a chain's end";
	}
	u32 reserved = 0;
	for (u32 view = 0; view < RULE_VIEWS; view++) {
		u32 present = 0;
		for (u32 slot = 0; slot < RULE_SLOTS; slot++) {
			EXPECT_EQ(index.anchors[view * kSlots + slot],
				  anchors[view * kSlots + slot]);
			present |= anchors[view * kSlots + slot] ? 1u << slot : 0;
		}
		EXPECT_EQ(index.present[view], present);
		reserved |= view ? present : 0;
	}
	EXPECT_EQ(index.reserved_views, reserved);
	return rules;
}

// Either its own anchor or those of one item are linked, or none.
void verify_anchors(const packet_regular &rule, bool in_index)
{
	bool any = rule.anchor.prev;
	for (const regular_item *item : items_of(&rule))
		for (const regular_data *datum : datas_of(item)) {
			if (item != rule.anchored || rule.anchor.prev)
				EXPECT_EQ(datum->anchor.prev, nullptr)
					<< "an anchor of another item";
			any = any || datum->anchor.prev;
		}
	EXPECT_EQ(any, in_index);
}

} // namespace

void verify_index(const packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	auto filter = verify_buckets(lib->filter, lib->filter_buckets, kFilterBits, copy_before);
	auto delivery = verify_buckets(lib->delivery, lib->delivery_buckets, kDeliveryBits,
				       rule_before);

	// The rules: places, delivery's anchors, values.
	u32 rules = 0;
	std::array<std::set<const regular_data *>, contract::kTypes> data;
	std::array<u32, contract::kTypes> items{};
	const packet_regular *previous = nullptr;
	for (const packet_regular *rule : regulars_of(&lib->regulars)) {
		rules++;
		if (previous)
			EXPECT_TRUE(rule_before(previous, rule)) << "places of rules";
		previous = rule;
		verify_items(*rule);
		verify_anchors(*rule, delivery.erase(rule));
		if (rule->treatment < PACKET_COPY || rule->treatment > PACKET_FETCH_LOCAL)
			continue;
		for (const regular_item *item : items_of(rule)) {
			items.at(item->type)++;
			for (const regular_data *datum : datas_of(item))
				data.at(item->type).insert(datum);
		}
	}
	EXPECT_EQ(lib->regular_count, rules);
	EXPECT_TRUE(delivery.empty()) << "a rule in the index that is not in the list";

	// The keys and their copies.
	u32 entries = 0, nameless = 0;
	std::array<const filter_list_data *, contract::kTypes> last{};
	const filter_list_data *behind = nullptr;
	for (const filter_list_data *entry : entries_of(&lib->filter_list)) {
		entries++;
		nameless += entry->nameless;
		last.at(entry->type) = entry;
		if (behind)
			EXPECT_TRUE(key_before(behind, entry)) << "places of keys";
		behind = entry;
		const packet_regular *trap = nullptr, *before = nullptr;
		for (const packet_regular *copy : regulars_of(&entry->match_list)) {
			EXPECT_EQ(copy->entry, entry);
			if (copy->treatment == PACKET_TRAP)
				trap = copy;
			if (before)
				EXPECT_TRUE(copy_before(before, copy)) << "places of copies";
			before = copy;
			verify_items(*copy);
			verify_anchors(*copy, filter.erase(copy));
		}
		EXPECT_EQ(entry->last_trap, trap);
		for (const packet_regular *copy : regulars_of(&entry->local_match_list)) {
			EXPECT_EQ(copy->entry, entry);
			verify_anchors(*copy, false);
		}
	}
	EXPECT_EQ(lib->filter_count, entries);
	EXPECT_EQ(lib->nameless, nameless);
	EXPECT_TRUE(filter.empty()) << "a copy in the index that is under no key";

	for (u32 type = 0; type < contract::kTypes; type++) {
		EXPECT_EQ(lib->last_entry[type], last[type]);
		u32 listed = 0;
		for (const list_head *at = lib->items[type].next; at != &lib->items[type];
		     at = at->next)
			listed++;
		EXPECT_EQ(listed, items[type]) << "items of type " << type;
		std::vector<regular_data *> tree;
		walk<LibTraits>(lib->values[type], tree);
		for (const regular_data *stands : tree) {
			const list_head *at = &stands->equals;
			do {
				auto *datum = record_of<const regular_data,
							offsetof(regular_data, equals)>(at);
				EXPECT_TRUE(oracle::value_equal(
					type, reinterpret_cast<const oracle::Value *>(datum->value),
					reinterpret_cast<const oracle::Value *>(stands->value)));
				EXPECT_TRUE(data[type].erase(datum)) << "a value of no rule";
				at = at->next;
			} while (at != &stands->equals);
		}
		EXPECT_TRUE(data[type].empty())
			<< "a rule's value is not in the tree, type " << type;
	}
}

namespace {

// What a digest says of a rule or copy must be what its conditions say, but for the anchored one.
template <typename Info> void verify_digest(const Info &info, const packet_regular &rule)
{
	const bool pass = items_pass(info, rule, rule.anchored) &&
			  (!rule.entry || !rule.anchored || key_passes(info, *rule.entry));
	const int known = satisfies(info, rule.digest);
	EXPECT_TRUE(known < 0 || pass == (known != 0)) << "only type " << rule.digest.only;
	FrameDigest<Info> digest(info);
	digest.start();
	EXPECT_TRUE(!pass || digest.may_satisfy(rule.digest)) << "types " << rule.digest.types;
}

template <typename Info>
void verify_all_digests(const Info &info,
			const packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	auto anchored = [](const packet_regular &rule) {
		return rule.anchored || rule.anchor.prev;
	};
	for (const packet_regular *rule : regulars_of(&lib->regulars))
		if (anchored(*rule))
			verify_digest(info, *rule);
	for (const filter_list_data *key : entries_of(&lib->filter_list))
		for (const packet_regular *copy : regulars_of(&key->match_list))
			if (anchored(*copy))
				verify_digest(info, *copy);
}

} // namespace

void verify_digests(const pkt_info &info, const packet_regular_lib *lib)
{
	verify_all_digests(info, lib);
}

void verify_digests(const pkt_wlan_info &info, const packet_regular_lib *lib)
{
	verify_all_digests(info, lib);
}
