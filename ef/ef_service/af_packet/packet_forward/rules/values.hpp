// SPDX-License-Identifier: GPL-2.0-only
/*
 * Searches by value: among the data of an item, and among those of all indexed
 * rules of a library, where equal data form a ring and one of them stands for all
 * in the tree.
 */
#pragma once

#include "base/list.hpp"
#include "base/tree.hpp"
#include "rules/value.hpp"
#include "seam/seam.h"

namespace mox {

/** A value to search for, with the mask of its type. */
struct ValueKey {
	Value value;
	ValueMask mask;

	ValueKey(u32 type, const void *bytes)
		: value(rule_value(type, bytes)), mask(kValueMasks.of[type])
	{
	}
	ValueKey(u32 type, const Value &wanted) : value(wanted), mask(kValueMasks.of[type]) {}
};

template <value_links regular_data::*links> struct ValueTraits {
	static regular_data *&left(regular_data *datum) { return (datum->*links).left; }
	static regular_data *&right(regular_data *datum) { return (datum->*links).right; }
	static u32 priority(const regular_data *datum) { return datum->priority; }
	static ValueKey key(const regular_data *datum) { return { datum->type, datum->value }; }
	static int compare(const ValueKey &key, const regular_data *datum)
	{
		u32 low = field<u32>(datum->value, 0) & key.mask.low;
		if (key.value.low != low)
			return key.value.low < low ? -1 : 1;
		u32 high = field<u32>(datum->value, 4) & key.mask.high;
		if (key.value.high != high)
			return key.value.high < high ? -1 : 1;
		return 0;
	}
};

using ItemTree = Tree<regular_data, ValueTraits<&regular_data::item>>;
using LibraryTree = Tree<regular_data, ValueTraits<&regular_data::lib>>;

/** The item's datum with a value, or null. The rule does not change meanwhile. */
inline regular_data *item_value(const regular_item *item, const Value &value)
{
	/* Most items have one value: that is one comparison. */
	if (item->count == 1)
		return rule_value(item->type, item->root->value) == value ? item->root : nullptr;
	return ItemTree::find(item->root, ValueKey(item->type, value));
}

/** The datum that stands for all data of a library with a value, or null. */
regular_data *library_value(u32 type, const void *value, const packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/** Add a datum of an indexed rule. The datum that stands for it and its equals. */
regular_data *library_value_enter(regular_data *datum, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/** What remains of a value when a datum has left. */
struct ValueLeft {
	regular_data *other;     /* stands for the equal data that are still there, or null */
	filter_list_data *entry; /* the key of the value, or null */
};

/** Take a datum out of the values of a library. */
ValueLeft library_value_leave(regular_data *datum, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/** The datum that stands for one that was entered. */
inline regular_data *library_value_of(regular_data *datum, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	return list_empty(&datum->equals) ? datum : library_value(datum->type, datum->value, lib);
}

/** Add all data of an item of an indexed rule. May sleep. */
void library_values_enter(regular_item *item, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/**
 * Whether an item has far more data than all other items of its type in the library.
 * Then the others' data get a tree of their own when it leaves: less work than to
 * search for each of the item's data. May sleep.
 */
bool library_values_few_others(const regular_item *item, const packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/**
 * Take all data without equals of an item that has few others, and is no more among
 * the library's items, out of the values; those with equals have left. May sleep.
 */
void library_values_drop(const regular_item *item, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

} // namespace mox
