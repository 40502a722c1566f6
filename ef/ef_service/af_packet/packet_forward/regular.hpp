// SPDX-License-Identifier: GPL-2.0
/*
 * The rule library: rule records, their memory, and the libraries that hooks
 * and delivery search. A socket edits its own rule only while the rule is out
 * of its library; what is in a library changes under the library's write lock.
 */
#pragma once

#include "seam/seam.h"

extern "C" {

/* The eight libraries, in the order of their locations. */
extern packet_regular_lib g_local_packet_regular_lib;
extern packet_regular_lib g_lev2_packet_regular_lib;
extern packet_regular_lib g_ipv4_packet_regular_lib;
extern packet_regular_lib g_ipv6_packet_regular_lib;
extern packet_regular_lib g_mpls_packet_regular_lib;
extern packet_regular_lib g_trill_packet_regular_lib;
extern packet_regular_lib g_resv_packet_regular_lib;
extern packet_regular_lib g_wlan_packet_regular_lib;

/* Entries 0..19 of both: live objects of each rule type; 22: failed allocations.
 * Entries 20 and 21 of the data: live filter list entries and match copies. */
extern u32 g_regular_data_stats[23];
extern u32 g_regular_item_stats[23];
/* Buffers that setsockopt took, and gave back, to read rule records. */
extern u32 g_packet_regular_data_alloc;
extern u32 g_packet_regular_data_free;
extern u8 mox_packet_regular_inited;

/** Bring the libraries and the four caches up, once. 0, or -1 after a log line. Process. */
int mox_packet_regular_init(void);
/** Destroy the caches, if up; every object must be back in its cache. Process. */
void mox_packet_regular_deinit(void);
void mox_packet_init_regular_lib(packet_regular_lib *lib);

/**
 * Whether two values of a rule type are equal. The types without a value are
 * equal to anything, null included; otherwise null equals nothing. Any.
 */
bool pkt_regular_data_match(u32 type, const void *one, const void *other);

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

/** Free every item and datum of a match copy. The library's write lock is held. */
void mox_packet_empty_match_regular(packet_regular *regular);
/** Free every item and datum of a socket's own rule, which is out of its library. */
void mox_packet_empty_regular(packet_regular *regular);

/* List changes that a reader on another CPU sees whole: a full barrier follows. */
void mox_packet_list_del_safe(list_head *link);
void mox_packet_list_add_tail_safe(list_head *link, list_head *head);
void mox_packet_list_ins_head_safe(list_head *link, list_head *head);

regular_item *mox_packet_search_item_from_regular(u32 type, const packet_regular *regular);
regular_data *mox_packet_search_data_from_item(const regular_data *data, const regular_item *item);
void mox_packet_add_item_to_regular(regular_item *item, packet_regular *regular);
void mox_packet_add_data_to_item(regular_data *data, regular_item *item);

/**
 * Give the rule a value. 0: the datum is the rule's, or was freed because the
 * rule holds an equal one; -ENOMEM: the datum is still the caller's.
 * The rule is out of its library.
 */
int mox_packet_add_data_to_regular(regular_data *data, packet_regular *regular);
/** Take the equal value out of the rule, if it is there; data stays the caller's. */
void mox_packet_del_data_from_regular(const regular_data *data, packet_regular *regular);

/**
 * Enter the rule in the library of its location, or withdraw it, and bring the
 * location's hook registration in line. 0; -1 for a location without a library.
 * Never sleeps. The caller's running flag tells which of the two is due.
 */
int mox_packet_add_regular(packet_regular *regular);
int mox_packet_remove_regular(packet_regular *regular);
int mox_packet_handle_regular(packet_regular *regular, u32 add);
void mox_packet_insert_regular(packet_regular *regular, packet_regular_lib *lib, u32 add);

/* The filter list; the library's write lock is held. */
filter_list_data *pkt_add_new_filter_data(u32 type, const void *value, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->lock);
void pkt_add_regular_to_match_list(const packet_regular *regular, filter_list_data *entry);
filter_list_data *pkt_search_data_from_filter_list(u32 type, const void *value,
						   const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
regular_item *pkt_search_item_in_regular_lib(const regular_item *item,
					     const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
					     const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
} // extern "C"

/** The library that serves a location, or null for a number that has none. */
packet_regular_lib *location_library(u32 location);

/** Treatments that are indexed in the filter list. */
inline bool treatment_indexed(u32 treatment)
{
	return treatment >= PACKET_COPY && treatment <= PACKET_FETCH_LOCAL;
}

/** Treatments whose copies go to local_match_list. */
inline bool treatment_local(u32 treatment)
{
	return treatment == PACKET_COPY_LOCAL || treatment == PACKET_FETCH_LOCAL;
}

/** Whether a rule type's test needs no value. */
inline bool type_without_value(u32 type)
{
	return type == PACKET_IPv4_MCAST_TRAFFIC || type == PACKET_IPv6_MCAST_TRAFFIC ||
	       type == PACKET_ALL || type == PACKET_WLAN_MGNT;
}
