// SPDX-License-Identifier: GPL-2.0
#include "receive/queue.hpp"

#include "packet/efbuff.hpp"

extern "C" {
constinit efbuff_queue g_cpu_pkt_que[CPU_QUEUE_SLOTS][CPU_QUEUES]{};
constinit u8 mox_packet_sock_inited = 0;
}

namespace mox {
namespace {

/** The link word of an efbuff. */
u32 *link_of(void *efbuff)
{
	static_assert(platform::ef::kLink == 0);
	return static_cast<u32 *>(efbuff);
}

/** A link word that ends the chain: the tag without an address. */
constexpr u32 kChainEnd = platform::kTag;

} // namespace

void *EfbuffChain::next()
{
	if (left_ == 0 || !head_)
		return nullptr;
	left_--;
	void *efbuff = head_;
	head_ = address_of(*link_of(efbuff) & ~platform::kTag);
	return efbuff;
}

void queue_append(efbuff_queue *queue, void *efbuff)
{
	SpinBhGuard guard(&queue->lock);

	*link_of(efbuff) = kChainEnd;
	if (queue->tail)
		*queue->tail = word_of(efbuff) | platform::kTag;
	else
		queue->head = efbuff;
	queue->tail = link_of(efbuff);
	queue->count++;
}

EfbuffChain queue_detach(efbuff_queue *queue)
{
	SpinBhGuard guard(&queue->lock);

	if (queue->count == 0)
		return EfbuffChain(nullptr, 0);
	EfbuffChain chain(queue->head, queue->count);
	if (queue->tail)
		*queue->tail = kChainEnd;
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
			seam_queue_lock_init(&queue);
		}
	}
	mox_packet_sock_inited = 1;
	return 0;
}

void mox_packet_efbuff_queue_deinit(efbuff_queue *queue)
{
	EfbuffChain chain = queue_detach(queue);
	while (void *efbuff = chain.next())
		free_efbuff(efbuff);
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
