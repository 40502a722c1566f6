// SPDX-License-Identifier: GPL-2.0
/* The copy thread, which drains the per-CPU queues into the sockets. */
#pragma once

#include "queue.hpp"

/** Counters of the copy thread. */
struct packet_thread_debug {
	u32 scheduled;        /* wake-ups handled */
	u32 alloc_skb_failed; /* socket buffers that delivery could not get */
};

/** Packets that a drain handles before it gives up the CPU once. */
inline constexpr u32 kDrainBudget = 1000;

/** The queue of a CPU slot that a location (1 to 8) uses; CPU_QUEUES for any other number. */
u32 location_queue(u32 location);

extern "C" {
extern packet_thread_debug g_packet_thread_debug;
extern u8 mox_packet_thread_init_ok;
/* Socket buffers made for delivery, less those dropped there again. */
extern u32 g_alloc_skb_num;

/** Mark a location (1 to 8) pending and wake the thread, unless it is draining. Any. */
void mox_packet_thread_active(u32 location);
/** Start the thread, once. 0, or -1 after a log line. Process. */
int mox_packet_thread_init(void);
u8 mox_packet_thread_had_init(void);
/** Set a new thread's scheduling and wake it. Process. */
void mox_packet_thread_setup(task_struct *task);
/** Stop the thread, if it runs, and wait for its end. Process. */
void mox_packet_thread_deinit(void);
/** Print the thread's counters. Any. */
void mox_packet_dump_thread(void);
/** The thread's body. */
int mox_packet_copy_task(void *unused);

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
