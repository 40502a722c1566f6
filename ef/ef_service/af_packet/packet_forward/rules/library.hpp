// SPDX-License-Identifier: GPL-2.0
/*
 * The rule libraries: entering a rule and withdrawing it, and the filter list
 * by which the fast filter finds rules. What is in a library changes under the
 * library's write lock.
 */
#pragma once

#include "base/sync.hpp"
#include "rules/memory.hpp"

extern "C" {
/** Enter the rule (add not 0) in a library, or withdraw it. Takes the write lock. Never sleeps. */
void mox_packet_insert_regular(packet_regular *regular, packet_regular_lib *lib, u32 add);

/* The filter list; the library's write lock is held. */
/** A new key in its place, or null without memory. value may be null: a key without one. */
filter_list_data *pkt_add_new_filter_data(u32 type, const void *value, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->lock);
/** File a copy of the rule under a key; without memory nothing, or less of it, is filed. */
void pkt_add_regular_to_match_list(const packet_regular *regular, filter_list_data *entry);
/** The key of a type with an equal value, or null. */
filter_list_data *pkt_search_data_from_filter_list(u32 type, const void *value,
						   packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
/** An item of the same type in an indexed rule of the library, or null. */
const regular_item *pkt_search_item_in_regular_lib(const regular_item *item,
						   const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
/** An equal datum in an indexed rule of the library, or null. */
const regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
						   const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
}
