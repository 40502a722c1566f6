// SPDX-License-Identifier: GPL-2.0-only
#include "receive/queue.hpp"

#include "base/total.hpp"
#include "packet/efbuff.hpp"

extern "C" {
constinit efbuff_queue g_cpu_pkt_que[CPU_QUEUE_SLOTS][CPU_QUEUES]{};
constinit u8 mox_packet_sock_inited = 0;
}

namespace mox {

constinit CpuHeld g_cpu_held[CPU_QUEUE_SLOTS]{};

void queue_count_back(u32 cpu, u32 number, Held less)
{
	CpuHeld &held = g_cpu_held[cpu];

	HeldCount &queue = held.queues[number];

	store(queue.queued, load(queue.queued) - static_cast<u32>(less));
	store(held.all.queued, load(held.all.queued) - static_cast<u32>(less));
}

void EfbuffChain::count_freed()
{
	if (given_ == 0)
		return;
	__atomic_fetch_add(&queue_->freed, given_, __ATOMIC_RELAXED);
	__atomic_fetch_add(&cpu_->freed, given_, __ATOMIC_RELAXED);
	given_ = 0;
}

void queue_append(efbuff_queue *queue, void *efbuff, Held held)
{
	SpinGuard guard(&queue->lock);

	*link_of(efbuff) = kChainEnd | (held == Held::kCopy ? kCopyMark : 0);
	if (queue->tail)
		*queue->tail |= word_of(efbuff);
	else
		queue->head = efbuff;
	queue->tail = link_of(efbuff);
	queue->count++;
}

u32 queue_cpu(const efbuff_queue *queue)
{
	return static_cast<u32>(queue - &g_cpu_pkt_que[0][0]) / CPU_QUEUES;
}

delivery_ledger *queue_ledger(const efbuff_queue *queue)
{
	const u32 place = static_cast<u32>(queue - &g_cpu_pkt_que[0][0]);

	return &seam_hook_cpu(static_cast<int>(place / CPU_QUEUES))->delivered[place % CPU_QUEUES];
}

EfbuffChain queue_detach(efbuff_queue *queue)
{
	const u32 place = static_cast<u32>(queue - &g_cpu_pkt_que[0][0]);
	CpuHeld &cpu = g_cpu_held[place / CPU_QUEUES];
	HeldCount *of_queue = &cpu.queues[place % CPU_QUEUES];
	HeldCount *of_cpu = &cpu.all;
	SpinBhGuard guard(&queue->lock);

	if (queue->count == 0)
		return EfbuffChain(nullptr, 0, queue->passed, of_queue, of_cpu);
	EfbuffChain chain(queue->head, queue->count, queue->passed, of_queue, of_cpu);
	queue->passed += queue->count;
	if (queue->tail)
		*queue->tail &= kLinkBits;
	queue->head = nullptr;
	queue->tail = nullptr;
	queue->count = 0;
	return chain;
}

} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_sock_init(void) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	if (mox_packet_sock_inited)
		return 0;
	for (auto &slot : g_cpu_pkt_que) {
		for (efbuff_queue &queue : slot) {
			queue.head = nullptr;
			queue.tail = nullptr;
			queue.count = 0;
			queue.passed = 0;
			seam_queue_lock_init(&queue);
		}
	}
	for (CpuHeld &held : g_cpu_held)
		held = CpuHeld{};
	for (int cpu = seam_next_possible_cpu(-1); cpu < seam_nr_cpu_ids();
	     cpu = seam_next_possible_cpu(cpu)) {
		*seam_hook_cpu(cpu) = hook_cpu{};
		seam_hook_cpu(cpu)->cpu = static_cast<u32>(cpu);
	}
	mox_packet_sock_inited = 1;
	return 0;
}

void mox_packet_efbuff_queue_deinit(efbuff_queue *queue)
{
	EfbuffChain chain = queue_detach(queue);
	u32 freed = 0;

	while (void *efbuff = chain.next()) {
		free_efbuff(efbuff);
		freed++;
	}
	/* CPUs that are not possible have a queue as well, and never a frame. */
	if (freed != 0)
		count(queue_ledger(queue)->freed, freed);
}

void mox_packet_sock_deinit(void)
{
	if (!mox_packet_sock_inited)
		return;
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &queue : slot)
			mox_packet_efbuff_queue_deinit(&queue);
	mox_packet_sock_inited = 0;
}
} // extern "C"
