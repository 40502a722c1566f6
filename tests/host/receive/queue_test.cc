// SPDX-License-Identifier: GPL-2.0-only
// The per-CPU queues.
#include "receive/queue.hpp"

#include "fake/backlog.h"
#include "fake/fixture.h"
#include "packets.h"

#include <algorithm>

using namespace mox;
using fake::efmp;

namespace {

using namespace packets;

class Queue : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		fake::kernel().cpu_ids = CPU_QUEUE_SLOTS;
		ASSERT_EQ(mox_packet_sock_init(), 0);
	}
	void TearDown() override
	{
		mox_packet_sock_deinit();
		// Chains are freed here by hand: that no ledger counts what left a queue so is right.
		fake::kernel().hook_cpus = {};
		fake::max_backlog = fake::kBacklogDefault;
		KernelTest::TearDown();
	}
	// Admits until it is refused; how many there were.
	static u32 admit_all(u32 cpu, u32 number, Held held)
	{
		u32 n = 0;
		while (n < 10000 && queue_admit(cpu, number, held))
			n++;
		return n;
	}
	static u32 held(const HeldCount &count) { return count.queued - count.freed; }
	// An efbuff of the module's own.
	static void *owned() { return efmp().efbuff(efbuff({}, eth(1)), fake::Owner::kModule); }
	efbuff_queue *queue = &g_cpu_pkt_que[3][kQueueIpv6];
};

TEST_F(Queue, init__once_and_zeroed)
{
	EXPECT_EQ(mox_packet_sock_inited, 1);
	void *e = owned();
	enqueue(queue, e);
	EXPECT_EQ(mox_packet_sock_init(), 0);
	EXPECT_EQ(queue->count, 1u);
	mox_packet_sock_deinit();
	EXPECT_EQ(mox_packet_sock_inited, 0);
	mox_packet_sock_deinit();
	EXPECT_EQ(mox_packet_sock_init(), 0);
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &q : slot) {
			EXPECT_EQ(q.head, nullptr);
			EXPECT_EQ(q.tail, nullptr);
			EXPECT_EQ(q.count, 0u);
		}
}

TEST_F(Queue, init__whatever_the_words_were)
{
	mox_packet_sock_deinit();
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &q : slot) {
			q.head = this;
			q.tail = &q.count;
			q.count = q.passed = 5;
		}
	ASSERT_EQ(mox_packet_sock_init(), 0);
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &q : slot) {
			EXPECT_EQ(q.head, nullptr);
			EXPECT_EQ(q.tail, nullptr);
			EXPECT_EQ(q.count, 0u);
			EXPECT_EQ(q.passed, 0u);
		}
}

TEST_F(Queue, append__links_carry_the_tag_and_the_chain_ends_in_1)
{
	void *a = owned(), *b = owned();
	enqueue(queue, a);
	EXPECT_EQ(queue->head, a);
	EXPECT_EQ(*static_cast<u32 *>(a), 1u);
	enqueue(queue, b);
	EXPECT_EQ(*static_cast<u32 *>(a), fake::word(b) | 1u);
	EXPECT_EQ(*static_cast<u32 *>(b), 1u);
	EXPECT_EQ(queue->tail, static_cast<u32 *>(b));
	EXPECT_EQ(queue->count, 2u);
}

TEST_F(Queue, detach__takes_all_in_order)
{
	void *a = owned(), *b = owned();
	enqueue(queue, a);
	enqueue(queue, b);
	EfbuffChain chain = queue_detach(queue);
	EXPECT_EQ(queue->count, 0u);
	EXPECT_EQ(queue->head, nullptr);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), b);
	EXPECT_EQ(chain.next(), nullptr);
	EXPECT_EQ(queue_detach(queue).next(), nullptr);
	efmp_buff_free_sw_with_owner(a, 147);
	efmp_buff_free_sw_with_owner(b, 147);
}

TEST_F(Queue, chain__stops_at_count_and_at_a_zero_link)
{
	void *a = owned(), *b = owned(), *c = owned();
	for (void *e : { a, b, c })
		enqueue(queue, e);
	queue->count = 2;
	EfbuffChain chain = queue_detach(queue);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), b);
	EXPECT_EQ(chain.next(), nullptr);
	enqueue(queue, a);
	queue->count = 7;
	*static_cast<u32 *>(a) = 0;
	chain = queue_detach(queue);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), nullptr);
	for (void *e : { a, b, c })
		efmp_buff_free_sw_with_owner(e, 147);
}

// The last link is cut where the chain leaves the queue: whatever it says, nothing is behind it.
TEST_F(Queue, chain__ends_at_the_tail_whatever_its_link_says)
{
	void *a = owned(), *b = owned(), *far = owned();
	enqueue(queue, a);
	enqueue(queue, b);
	*static_cast<u32 *>(b) |= fake::word(far);
	queue->count = 100;
	EfbuffChain chain = queue_detach(queue);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), b);
	EXPECT_EQ(chain.next(), nullptr);
	for (void *e : { a, b, far })
		efmp_buff_free_sw_with_owner(e, 147);
}

// A chain that ends before its count holds nothing any more.
TEST_F(Queue, chain__shorter_than_its_count_is_counted_back)
{
	void *a = owned(), *b = owned();
	enqueue(queue, a);
	enqueue(queue, b, Held::kCopy);
	queue->count = 7;
	EfbuffChain chain = queue_detach(queue);
	for (void *e : { a, b }) {
		EXPECT_EQ(chain.next(), e);
		efmp_buff_free_sw_with_owner(e, 147);
	}
	EXPECT_EQ(chain.next(), nullptr);
	EXPECT_EQ(held(g_cpu_held[3].queues[kQueueIpv6]), 0u);
	EXPECT_EQ(held(g_cpu_held[3].all), 0u);
}

TEST_F(Queue, chain__of_an_empty_queue_is_no_copy)
{
	EfbuffChain chain = queue_detach(queue);
	EXPECT_FALSE(chain.is_copy());
	EXPECT_EQ(chain.next(), nullptr);
	EXPECT_FALSE(chain.is_copy());
}

TEST_F(Queue, deinit__frees_every_queue_of_every_slot)
{
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &q : slot)
			enqueue(&q, owned());
	mox_packet_sock_deinit();
	EXPECT_TRUE(efmp().live.empty());
	EXPECT_EQ(efmp().freed, 64u * 8u);
}

TEST_F(Queue, deinit__count_larger_than_the_chain)
{
	enqueue(queue, owned());
	enqueue(queue, owned());
	queue->count = 100;
	mox_packet_efbuff_queue_deinit(queue);
	EXPECT_TRUE(efmp().live.empty());
	EXPECT_EQ(queue->count, 0u);
	EXPECT_EQ(queue->tail, nullptr);
}

TEST_F(Queue, deinit__count_smaller_than_the_chain)
{
	void *a = owned(), *b = owned();
	enqueue(queue, a);
	enqueue(queue, b);
	queue->count = 1;
	mox_packet_efbuff_queue_deinit(queue);
	EXPECT_EQ(efmp().freed, 1u);
	efmp_buff_free_sw_with_owner(b, 147);
}

TEST_F(Queue, append__a_copy_is_marked_in_its_own_link)
{
	void *a = owned(), *b = owned(), *c = owned();
	enqueue(queue, a, Held::kCopy);
	EXPECT_EQ(*static_cast<u32 *>(a), 3u);
	enqueue(queue, b);
	EXPECT_EQ(*static_cast<u32 *>(a), fake::word(b) | 3u);
	enqueue(queue, c, Held::kCopy);
	EXPECT_EQ(*static_cast<u32 *>(b), fake::word(c) | 1u);
	EfbuffChain chain = queue_detach(queue);
	for (void *e : { a, b, c }) {
		EXPECT_EQ(chain.next(), e);
		efmp_buff_free_sw_with_owner(e, 147);
	}
	EXPECT_EQ(chain.next(), nullptr);
}

// ---- limits ------------------------------------------------------------------------------

TEST_F(Queue, admit__limits_of_a_queue_and_of_a_cpu)
{
	// net.core.netdev_max_backlog, and what a queue, all of them, and copies may have of it.
	const struct {
		int backlog;
		u32 queue, cpu, queue_copies, cpu_copies;
	} rows[] = {
		{ 1000, 1000, 2000, 500, 1000 },
		{ 1, 1, 2, 0, 1 },
		{ 2, 2, 4, 1, 2 },
		{ 3, 3, 6, 1, 3 },
		{ 2047, 2047, 4094, 1023, 2047 },
		{ 2048, 2048, 4096, 1024, 2048 },
		{ 2049, 2048, 4096, 1024, 2048 },
		{ INT32_MAX, 2048, 4096, 1024, 2048 },
		{ 0, 0, 0, 0, 0 },
		{ -1, 0, 0, 0, 0 },
		{ INT32_MIN, 0, 0, 0, 0 },
	};
	for (auto &row : rows)
		for (Held what : { Held::kTaken, Held::kCopy }) {
			SCOPED_TRACE(row.backlog);
			mox_packet_sock_deinit();
			ASSERT_EQ(mox_packet_sock_init(), 0);
			fake::max_backlog = row.backlog;
			const bool copies = what == Held::kCopy;
			EXPECT_EQ(admit_all(3, 0, what), copies ? row.queue_copies : row.queue);
			u32 all = copies ? row.queue_copies : row.queue;
			for (u32 number = 1; number < CPU_QUEUES; number++)
				all += admit_all(3, number, what);
			EXPECT_EQ(all, copies ? std::min(row.cpu_copies, 8 * row.queue_copies)
					      : row.cpu);
			EXPECT_EQ(admit_all(2, 0, what), copies ? row.queue_copies : row.queue)
				<< "another CPU";
		}
}

TEST_F(Queue, admit__copies_leave_half_to_what_is_taken)
{
	EXPECT_EQ(admit_all(0, 4, Held::kCopy), 500u);
	EXPECT_EQ(admit_all(0, 4, Held::kTaken), 500u);
	EXPECT_EQ(admit_all(0, 5, Held::kTaken), 1000u) << "the rest of the CPU's";
	EXPECT_EQ(admit_all(0, 6, Held::kTaken), 0u);
	EXPECT_EQ(admit_all(0, 6, Held::kCopy), 0u);
}

TEST_F(Queue, admit__what_is_taken_leaves_no_room_for_copies_when_it_fills_the_queue)
{
	EXPECT_EQ(admit_all(0, 4, Held::kTaken), 1000u);
	EXPECT_EQ(admit_all(0, 4, Held::kCopy), 0u);
	EXPECT_EQ(admit_all(0, 3, Held::kCopy), 500u);
}

TEST_F(Queue, admit__counted_back_as_if_it_had_not_been)
{
	for (Held what : { Held::kTaken, Held::kCopy }) {
		ASSERT_TRUE(queue_admit(1, 2, what));
		queue_count_back(1, 2, what);
		EXPECT_EQ(held(g_cpu_held[1].queues[2]), 0u);
		EXPECT_EQ(held(g_cpu_held[1].all), 0u);
	}
}

// What the copy thread has detached counts until it is freed, the one that it handles as well;
// freed ones are counted back sixteen at a time, and all of them at the end.
TEST_F(Queue, held__until_it_is_freed)
{
	constexpr u32 kAll = 50;
	std::vector<void *> all;
	for (u32 i = 0; i < kAll; i++) {
		all.push_back(owned());
		enqueue(queue, all.back(), i % 2 ? Held::kCopy : Held::kTaken);
	}
	HeldCount &of_queue = g_cpu_held[3].queues[kQueueIpv6];
	HeldCount &of_cpu = g_cpu_held[3].all;
	EfbuffChain chain = queue_detach(queue);
	EXPECT_EQ(queue->count, 0u);
	u32 steps = 0, last = kAll;
	for (u32 i = 0; i <= kAll; i++) {
		void *e = chain.next();
		const u32 left = kAll - i, counted = held(of_queue) & 0xffff;
		EXPECT_EQ(held(of_cpu), held(of_queue));
		EXPECT_GE(counted, left);
		EXPECT_LE(counted, left + (left ? 15 : 0));
		EXPECT_EQ(held(of_queue) >> 16, counted / 2) << "copies";
		steps += counted != last;
		last = counted;
		EXPECT_EQ(e, i < kAll ? all[i] : nullptr);
		if (e)
			efmp_buff_free_sw_with_owner(e, 147);
	}
	EXPECT_EQ(steps, 4u);
	EXPECT_EQ(chain.next(), nullptr);
	EXPECT_EQ(held(of_queue), 0u);
}

TEST_F(Queue, held__the_words_wrap)
{
	HeldCount &of_queue = g_cpu_held[3].queues[kQueueIpv6];
	for (u32 start : { 0xffffffffu, 0xffff0000u, 0x0000ffffu, 0xfffffff0u, 0x8000fff8u }) {
		SCOPED_TRACE(start);
		of_queue = { start, start };
		g_cpu_held[3].all = { start - 1, start - 1 };
		EXPECT_EQ(admit_all(3, kQueueIpv6, Held::kCopy), 500u);
		EXPECT_EQ(admit_all(3, kQueueIpv6, Held::kTaken), 500u);
	}
}

} // namespace
