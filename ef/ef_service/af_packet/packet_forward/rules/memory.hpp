// SPDX-License-Identifier: GPL-2.0-only
/* Rule memory: the libraries' life, the four caches, and the allocation counters. */
#pragma once

#include "base/list.hpp"
#include "base/owned.hpp"
#include "rules/types.hpp"

extern "C" {
/* Live objects of each rule type, then the entries of enum mox_packet_stat. */
extern u32 g_regular_data_stats[MOX_STAT_COUNT];
extern u32 g_regular_item_stats[MOX_STAT_COUNT];
/* Buffers that setsockopt took, and gave back, to read rule records. */
extern u32 g_packet_regular_data_alloc;
extern u32 g_packet_regular_data_free;
extern u8 mox_packet_regular_inited;

/** Bring the libraries and the four caches up, once. 0, or -1 after a log line. Process. */
int mox_packet_regular_init(void);
/** Destroy the caches, if up; every object must be back in its cache. Process. */
void mox_packet_regular_deinit(void);
void mox_packet_init_regular_lib(packet_regular_lib *lib);

/* Allocation, never sleeping: null when there is no memory, which is counted.
 * Freeing does not unlink. */
regular_data *mox_packet_alloc_init_data(u32 type);
void mox_packet_free_data(regular_data *data);
void mox_packet_del_data(regular_data *data);
regular_item *mox_packet_alloc_init_item(u32 type);
void mox_packet_free_item(regular_item *item);
void mox_packet_del_item(regular_item *item);
bool mox_packet_item_empty(const regular_item *item);
filter_list_data *pkt_alloc_filter_list_data(u32 type, const void *value);
void pkt_free_filter_list_data(filter_list_data *entry);
void pkt_del_filter_list_data(filter_list_data *entry);
packet_regular *pkt_alloc_regular_data(void);
void pkt_free_regular_data(packet_regular *copy);

/** Free every item and datum of a match copy that no hook finds any more. Process. */
void mox_packet_empty_match_regular(packet_regular *regular);
/** Free every item and datum of a socket's own rule, which is out of its library. Process. */
void mox_packet_empty_regular(packet_regular *regular);
}

namespace mox {

using OwnedData = Owned<regular_data, mox_packet_free_data>;
using OwnedItem = Owned<regular_item, mox_packet_free_item>;

/**
 * A new datum with the first len bytes (at most REGULAR_VALUE_SIZE) of its value
 * set and the rest zero; empty without memory. Never sleeps.
 */
OwnedData make_data(u32 type, const void *value, u32 len);

} // namespace mox
