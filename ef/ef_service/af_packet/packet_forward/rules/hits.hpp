// SPDX-License-Identifier: GPL-2.0-only
/*
 * Hits: how many frames delivery offered to a socket because of a value of its rule. A
 * frame counts for one value of each type, for an exact one before "any". Where no value
 * is compared, the item counts, for all of its values. Values that exclude frames have no
 * hits. Delivery alone counts, under the library's change lock.
 */
#pragma once

#include "base/total.hpp"
#include "rules/digest.hpp"

namespace mox {

/** Count a frame that passes an item for its value, or for the item. */
template <typename Info> inline void count_item_hit(const Info &info, regular_item *item)
{
	Value value;

	if (item->type == PACKET_PID_T)
		return;
	if (item->count == 0 || !frame_value(info, item->type, &value)) {
		count(item->hits);
		return;
	}
	regular_data *datum = item_value(item, value);
	if (!datum && type_has_wildcard(item->type))
		datum = item_value(item, kAnyEthType);
	if (datum)
		count(datum->hits);
}

template <typename Info>
[[gnu::noinline]] void count_hits_of_items(const Info &info, packet_regular *rule)
{
	for (regular_item *item : items_of(rule))
		count_item_hit(info, item);
}

/** The value that an anchor of a value's slot is a member of. */
inline regular_data *datum_of(const rule_anchor *at)
{
	return reinterpret_cast<regular_data *>(reinterpret_cast<uintptr_t>(at) -
						offsetof(regular_data, anchor));
}

/** The hits of a value of an item, or, without one, of the item. Any context. */
inline u64 hits_of(const regular_item *item, const regular_data *datum)
{
	return read_total(item->hits) + (datum ? read_total(datum->hits) : 0);
}

inline regular_item *item_at(list_head *node)
{
	return record_of<regular_item, offsetof(regular_item, node)>(node);
}

/** Count a frame that matches a rule, which the search found by an anchor of it. */
template <typename Info>
[[gnu::always_inline]] inline void count_hits(const Info &info, packet_regular *rule,
					      const rule_anchor *at)
{
	const u32 only = rule->digest.only;

	/* Most often a value leads to the rule, and its other conditions have one value at most. */
	if (at->spot >= MOX_PACKET_RULE_TYPES || only == kDigestMore) [[unlikely]] {
		count_hits_of_items(info, rule);
		return;
	}
	count(datum_of(at)->hits);
	if (only == kDigestNothing)
		return;
	regular_item *other = item_at(rule->items.next);
	if (other == rule->anchored)
		other = item_at(other->node.next);
	count(other->root->hits);
}

} // namespace mox
