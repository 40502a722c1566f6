// SPDX-License-Identifier: GPL-2.0-only
/*
 * Places: where a rule stands in its library's list, a key in the filter list, and
 * a match copy in its key's lists. Each gets numbers in the order of its list, so
 * that two of them compare without a walk along the list.
 */
#pragma once

#include "base/sync.hpp"

namespace mox {

/**
 * Link the rule at its treatment's place among the library's rules, and count it
 * among those that entered. A treatment without a name is placed as a fetch.
 */
void place_in_regulars(packet_regular *regular, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/**
 * Link the copy in its entry's lists, at its treatment's place. number: the count of
 * rules that entered the library. Only indexed treatments are filed. The caller holds
 * the library's change lock.
 */
void place_in_entry(packet_regular *copy, u64 number);
/** Unlink it again. */
void leave_entry(packet_regular *copy);

/** Link a new key after those of its type and of smaller types. */
void place_in_filter_list(filter_list_data *entry, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
/** Unlink it again. */
void leave_filter_list(filter_list_data *entry, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/** Whether a key, a match copy, or a rule, comes before another one in the order of its library. */
inline bool key_before(const filter_list_data *key, const filter_list_data *other)
{
	return key->type != other->type ? key->type < other->type : key->place < other->place;
}

inline bool copy_before(const packet_regular *copy, const packet_regular *other)
{
	return copy->entry == other->entry ? copy->place.high < other->place.high
					   : key_before(copy->entry, other->entry);
}

inline bool rule_before(const packet_regular *rule, const packet_regular *other)
{
	if (rule->place.high != other->place.high)
		return rule->place.high < other->place.high;
	return rule->place.low < other->place.low;
}

/**
 * The number of a rule, of those at the end of its library's list, or of a match
 * copy among those at the end of its key's: in the order of their entry. That of
 * others is 0.
 */
u64 rule_number(const packet_regular *rule);
u64 copy_number(const packet_regular *copy);

} // namespace mox
