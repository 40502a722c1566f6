// SPDX-License-Identifier: GPL-2.0-only
/*
 * Delivery: queued efbuffs become socket buffers on the receive queues of the
 * sockets whose rules match. The copy thread runs it and nothing else does.
 */
#pragma once

#include "seam/seam.h"

/** Counters of the copy thread. */
struct packet_thread_debug {
	u32 scheduled;        /* wake-ups handled */
	u32 alloc_skb_failed; /* socket buffers for which delivery had no memory */
};

namespace mox {

/** Packets that a drain handles before it yields the CPU once. */
inline constexpr u32 kDrainBudget = 1000;

} // namespace mox

extern "C" {
extern packet_thread_debug g_packet_thread_debug;
/* Socket buffers made for delivery, less those that delivery dropped. */
extern u32 g_alloc_skb_num;

/**
 * Deliver everything on one CPU queue. location, 1 to 7, is the queue's;
 * budget counts down over all calls of a drain. The copy thread only.
 */
void mox_packet_deal_regular_lib_pkt(u32 location, packet_regular_lib *lib, efbuff_queue *queue,
				     u32 *budget);
void mox_packet_deal_regular_lib_wlan_pkt(packet_regular_lib *lib, efbuff_queue *queue,
					  u32 *budget);
void mox_packet_deal_regular_lib_pkt_global(u32 location, packet_regular_lib *lib,
					    efbuff_queue *queue, u32 *budget);
void mox_packet_deal_regular_lib_wlan_pkt_global(packet_regular_lib *lib, efbuff_queue *queue,
						 u32 *budget);
} // extern "C"
