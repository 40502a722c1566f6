// SPDX-License-Identifier: GPL-2.0-only
/*
 * Holds the two views of the shared records together: what the C compiler laid
 * out with the kernel's types must be what this compiler lays out with storage
 * of their sizes.
 */
#include "seam/seam.h"

static_assert(offsetof(mox_packet_sock, sk) == 0);
static_assert(offsetof(mox_packet_sock, filter_drops) == SEAM_PO_FILTER_DROPS);
static_assert(offsetof(mox_packet_sock, vsd) == SEAM_PO_VSD);
static_assert(offsetof(mox_packet_sock, regular) == SEAM_PO_REGULAR);
static_assert(offsetof(mox_packet_sock, bind_lock) == SEAM_PO_BIND_LOCK);
static_assert(offsetof(mox_packet_sock, pg_vec_lock) == SEAM_PO_PG_VEC_LOCK);
static_assert(offsetof(mox_packet_sock, flags) == SEAM_PO_FLAGS);
static_assert(offsetof(mox_packet_sock, ifindex) == SEAM_PO_IFINDEX);
static_assert(offsetof(mox_packet_sock, protocol) == SEAM_PO_PROTOCOL);
static_assert(offsetof(mox_packet_sock, rule_lock) == SEAM_PO_RULE_LOCK);
static_assert(sizeof(mox_packet_sock) == SEAM_PO_SIZE);

/* Reading PACKET_STATISTICS clears the counters as one block. */
#define MOX_ONE(...) +1
static_assert(sizeof(mox_packet_counters) == (0 MOX_PACKET_COUNTER_TABLE(MOX_ONE)) * sizeof(u32));
#undef MOX_ONE
static_assert(offsetof(mox_packet_sock, vsd) ==
	      offsetof(mox_packet_sock, filter_drops) + sizeof(mox_packet_counters));

static_assert(sizeof(packet_regular_lib) == SEAM_LIB_SIZE);
static_assert(offsetof(packet_regular_lib, filter_list) == SEAM_LIB_FILTER_LIST);
static_assert(sizeof(efbuff_queue) == SEAM_QUEUE_SIZE);
static_assert(offsetof(efbuff_queue, lock) == SEAM_QUEUE_LOCK);
static_assert(sizeof(packet_thread_top) == SEAM_TOP_SIZE);
static_assert(offsetof(packet_thread_top, wait_queue) == SEAM_TOP_WAIT_QUEUE);
static_assert(offsetof(packet_thread_top, pending) == SEAM_TOP_PENDING);

/* What user space sees. */
static_assert(sizeof(mox_packet_rule) == 6);
static_assert(sizeof(mox_packet_stats) == 8);
static_assert(sizeof(mox_packet_ctrl_info) == 48);
static_assert(offsetof(mox_packet_ctrl_info, eth_type) == 16);
static_assert(offsetof(mox_packet_ctrl_info, flags) == 24);
static_assert(offsetof(mox_packet_ctrl_info, inner_vlan) == 32);
static_assert(offsetof(mox_packet_ctrl_info, wlan_id) == 40);
static_assert(offsetof(mox_packet_ctrl_info, radio_id) == 44);
