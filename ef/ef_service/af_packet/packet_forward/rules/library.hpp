// SPDX-License-Identifier: GPL-2.0-only
/*
 * The rule libraries: entering a rule and withdrawing it, and the filter list
 * under whose keys match copies are filed. What is in a library changes under the
 * library's change lock.
 */
#pragma once

#include "base/sync.hpp"
#include "rules/memory.hpp"

extern "C" {
/**
 * Enter the rule (add not 0) in a library, or withdraw it. The change lock is
 * held; the library lock is taken inside, for some values at a time. Process.
 */
void mox_packet_insert_regular(packet_regular *regular, packet_regular_lib *lib, u32 add)
	SEAM_REQUIRES(lib->change_lock);

/* The filter list; the library's change lock is held. */
/** A new key in its place, or null without memory. value may be null: a key without one. */
filter_list_data *pkt_add_new_filter_data(u32 type, const void *value, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
/** File a copy of the rule under a key, where hooks find it. Without memory it is left out. */
void pkt_add_regular_to_match_list(const packet_regular *regular, filter_list_data *entry);
/** The first key of a type with an equal value, or null: a walk over all keys. */
filter_list_data *pkt_search_data_from_filter_list(u32 type, const void *value,
						   packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
/** An item of the same type in an indexed rule of the library, or null. */
const regular_item *pkt_search_item_in_regular_lib(const regular_item *item,
						   const packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
/** An equal datum in an indexed rule of the library, or null. */
const regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
						   const packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
}
