// SPDX-License-Identifier: GPL-2.0
// The per-CPU queues.
#include "receive/queue.hpp"

#include "fake/fixture.h"
#include "packets.h"

using namespace mox;
using fake::efmp;

namespace {

using namespace packets;

class Queue : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		ASSERT_EQ(mox_packet_sock_init(), 0);
	}
	void TearDown() override
	{
		mox_packet_sock_deinit();
		KernelTest::TearDown();
	}
	// An efbuff of the module's own.
	static void *owned() { return efmp().efbuff(efbuff({}, eth(1)), fake::Owner::kModule); }
	efbuff_queue *queue = &g_cpu_pkt_que[3][kQueueIpv6];
};

TEST_F(Queue, init__once_and_zeroed)
{
	EXPECT_EQ(mox_packet_sock_inited, 1);
	void *e = owned();
	queue_append(queue, e);
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

TEST_F(Queue, append__links_carry_the_tag_and_the_chain_ends_in_1)
{
	void *a = owned(), *b = owned();
	queue_append(queue, a);
	EXPECT_EQ(queue->head, a);
	EXPECT_EQ(*static_cast<u32 *>(a), 1u);
	queue_append(queue, b);
	EXPECT_EQ(*static_cast<u32 *>(a), fake::word(b) | 1u);
	EXPECT_EQ(*static_cast<u32 *>(b), 1u);
	EXPECT_EQ(queue->tail, static_cast<u32 *>(b));
	EXPECT_EQ(queue->count, 2u);
}

TEST_F(Queue, detach__takes_all_in_order)
{
	void *a = owned(), *b = owned();
	queue_append(queue, a);
	queue_append(queue, b);
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
		queue_append(queue, e);
	queue->count = 2;
	EfbuffChain chain = queue_detach(queue);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), b);
	EXPECT_EQ(chain.next(), nullptr);
	queue_append(queue, a);
	queue->count = 7;
	*static_cast<u32 *>(a) = 0;
	chain = queue_detach(queue);
	EXPECT_EQ(chain.next(), a);
	EXPECT_EQ(chain.next(), nullptr);
	for (void *e : { a, b, c })
		efmp_buff_free_sw_with_owner(e, 147);
}

TEST_F(Queue, deinit__frees_every_queue_of_every_slot)
{
	for (auto &slot : g_cpu_pkt_que)
		for (efbuff_queue &q : slot)
			queue_append(&q, owned());
	mox_packet_sock_deinit();
	EXPECT_TRUE(efmp().live.empty());
	EXPECT_EQ(efmp().freed, 64u * 8u);
}

TEST_F(Queue, deinit__count_larger_than_the_chain)
{
	queue_append(queue, owned());
	queue_append(queue, owned());
	queue->count = 100;
	mox_packet_efbuff_queue_deinit(queue);
	EXPECT_TRUE(efmp().live.empty());
	EXPECT_EQ(queue->count, 0u);
	EXPECT_EQ(queue->tail, nullptr);
}

TEST_F(Queue, deinit__count_smaller_than_the_chain)
{
	void *a = owned(), *b = owned();
	queue_append(queue, a);
	queue_append(queue, b);
	queue->count = 1;
	mox_packet_efbuff_queue_deinit(queue);
	EXPECT_EQ(efmp().freed, 1u);
	efmp_buff_free_sw_with_owner(b, 147);
}

} // namespace
