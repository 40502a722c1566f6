// SPDX-License-Identifier: GPL-2.0
/*
 * The per-CPU queues between hooks and the copy thread. Many producers: the
 * hooks, each on its own CPU's queues. One consumer: the copy thread.
 */
#pragma once

#include "base/sync.hpp"

extern "C" {
extern efbuff_queue g_cpu_pkt_que[CPU_QUEUE_SLOTS][CPU_QUEUES];
extern u8 mox_packet_sock_inited;

/** Empty every queue, once. 0. Process. */
int mox_packet_sock_init(void);
/** Free every queued efbuff, if the queues are up. Process. */
void mox_packet_sock_deinit(void);
/** Free one queue's efbuffs. Any. */
void mox_packet_efbuff_queue_deinit(efbuff_queue *queue);
}

namespace mox {

/** A chain of efbuffs taken off a queue; the holder owns every efbuff of it. */
class EfbuffChain {
public:
	EfbuffChain(void *head, u32 count) : head_(head), left_(count) {}
	/**
	 * The next efbuff, or null: after count of them or at the chain's end,
	 * whichever comes first. The efbuff returned may be freed at once.
	 */
	void *next();

private:
	void *head_;
	u32 left_;
};

/** Append an efbuff, which the queue then owns. Any context. */
void queue_append(efbuff_queue *queue, void *efbuff);
/** Take everything off a queue. Any context. */
EfbuffChain queue_detach(efbuff_queue *queue);

} // namespace mox
