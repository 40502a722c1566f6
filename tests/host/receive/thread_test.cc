// SPDX-License-Identifier: GPL-2.0-only
// The copy thread.
#include "packets.h"
#include "receive/queue.hpp"
#include "rules_fixture.h"
#include "receive/deliver.hpp"
#include "receive/thread.hpp"

using namespace mox;

namespace {

using namespace packets;

class Thread : public RulesTest {
protected:
	void SetUp() override
	{
		RulesTest::SetUp();
		memset(mox_packet_debug, 0, sizeof mox_packet_debug);
		g_packet_thread_debug = {};
		g_packet_thread_top.wake = 0;
		g_packet_thread_top.running = 0;
		ASSERT_EQ(mox_packet_sock_init(), 0);
		ASSERT_EQ(mox_packet_thread_init(), 0);
		kernel().wakeups = 0;
	}
	void TearDown() override
	{
		kernel().at.clear();
		mox_packet_thread_deinit();
		mox_packet_sock_deinit();
		RulesTest::TearDown();
	}
	static void *owned(u8 mark = 0)
	{
		return efmp().efbuff(efbuff({}, eth(mark)), fake::Owner::kModule);
	}
	packet_thread_top &top = g_packet_thread_top;
};

TEST_F(Thread, init__one_thread_of_the_right_name_and_priority)
{
	EXPECT_EQ(mox_packet_thread_init(), 0);
	ASSERT_EQ(kernel().tasks.size(), 1u);
	task_struct *task = *kernel().tasks.begin();
	EXPECT_EQ(task->name, "packet-copy");
	EXPECT_EQ(task->body, mox_packet_copy_task);
	EXPECT_EQ(task->argument, nullptr);
	EXPECT_EQ(task->priority, 100);
	EXPECT_GE(task->wakes, 2);
	EXPECT_EQ(mox_packet_thread_had_init(), 1);
}

TEST_F(Thread, init__clears_the_pending_bytes)
{
	mox_packet_thread_deinit();
	memset(top.pending, 1, sizeof top.pending);
	ASSERT_EQ(mox_packet_thread_init(), 0);
	for (u8 byte : top.pending)
		EXPECT_EQ(byte, 0);
}

TEST_F(Thread, init__failure)
{
	mox_packet_thread_deinit();
	kernel().fail(Fail::kThreadCreate);
	EXPECT_EQ(mox_packet_thread_init(), -1);
	ASSERT_EQ(kernel().log.size(), 1u);
	EXPECT_EQ(kernel().log[0].text, "CAN NOT CREATE PACKET-COPY-THREAD !\n");
	EXPECT_EQ(kernel().log[0].level, 6);
	EXPECT_EQ(mox_packet_thread_had_init(), 0);
	EXPECT_EQ(top.task, nullptr) << "an error number is no thread";
	mox_packet_thread_deinit();
	EXPECT_EQ(kernel().count_said("thread"), 0u);
}

TEST_F(Thread, deinit__wakes_stops_and_clears)
{
	kernel().journal.clear();
	mox_packet_thread_deinit();
	EXPECT_EQ(kernel().journal, std::vector<std::string>{ "thread- packet-copy" });
	EXPECT_EQ(top.wake, 1u);
	EXPECT_EQ(kernel().wakeups, 1);
	EXPECT_EQ(top.task, nullptr);
	EXPECT_EQ(mox_packet_thread_had_init(), 0);
	mox_packet_thread_deinit();
	EXPECT_EQ(kernel().wakeups, 1);
}

// Either of both is reason enough to stop nothing.
TEST_F(Thread, deinit__without_a_thread_or_before_init)
{
	task_struct *task = top.task;
	mox_packet_thread_init_ok = 0;
	mox_packet_thread_deinit();
	EXPECT_EQ(kernel().tasks.count(task), 1u);
	EXPECT_EQ(top.task, task);
	mox_packet_thread_init_ok = 1;
	for (task_struct *none :
	     { static_cast<task_struct *>(nullptr), reinterpret_cast<task_struct *>(-ENOMEM) }) {
		top.task = none;
		mox_packet_thread_deinit();
		EXPECT_EQ(kernel().tasks.count(task), 1u);
		EXPECT_EQ(mox_packet_thread_had_init(), 1);
	}
	top.task = task;
	EXPECT_EQ(kernel().wakeups, 0);
}

TEST_F(Thread, active__pending_byte_of_each_location)
{
	const int byte_of[9] = { -1, 1, 0, 2, 3, 4, 5, 6, 7 };
	for (u32 location = 1; location <= 8; location++) {
		memset(top.pending, 0, sizeof top.pending);
		mox_packet_thread_active(location);
		for (int i = 0; i < 8; i++)
			EXPECT_EQ(top.pending[i], i == byte_of[location])
				<< location << " byte " << i;
		EXPECT_EQ(top.wake, 1u);
		top.wake = 0; // as the thread leaves it
	}
	EXPECT_EQ(kernel().wakeups, 8);
	memset(top.pending, 0, sizeof top.pending);
}

// Until the thread has run it needs no second wake-up: it looks at the bytes behind that.
TEST_F(Thread, active__a_thread_that_is_woken_already_is_not_woken_again)
{
	mox_packet_thread_active(PACKET_LEV2_LOC);
	mox_packet_thread_active(PACKET_WLAN_LOC);
	EXPECT_EQ(kernel().wakeups, 1);
	EXPECT_EQ(top.wake, 1u);
	EXPECT_EQ(top.pending[0], 1);
	EXPECT_EQ(top.pending[7], 1);
	memset(top.pending, 0, sizeof top.pending);
	top.wake = 0;
	mox_packet_thread_active(PACKET_LEV2_LOC);
	EXPECT_EQ(kernel().wakeups, 2);
	memset(top.pending, 0, sizeof top.pending);
}

TEST_F(Thread, active__illegal_location_sets_nothing_and_still_wakes)
{
	for (u32 location : { 0u, 9u, 18u, 19u, 0xffffffffu }) {
		mox_packet_thread_active(location);
		for (u8 byte : top.pending)
			EXPECT_EQ(byte, 0);
		EXPECT_EQ(top.wake, 1u);
		top.wake = 0; // as the thread leaves it
	}
	EXPECT_EQ(kernel().wakeups, 5);
	EXPECT_TRUE(kernel().log.empty());
	memset(mox_packet_debug, 1, sizeof mox_packet_debug);
	mox_packet_thread_active(9);
	EXPECT_EQ(kernel().text(), "[MOX-PACKET(0)]: THREAD-ACTION: act illegal type location !\n");
	// A number behind the last switch has none.
	kernel().log.clear();
	mox_packet_thread_active(sizeof mox_packet_debug);
	EXPECT_TRUE(kernel().log.empty());
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Thread, active__running_thread_is_not_woken)
{
	top.running = 1;
	mox_packet_thread_active(PACKET_LEV2_LOC);
	EXPECT_EQ(top.pending[0], 1);
	EXPECT_EQ(kernel().wakeups, 0);
	EXPECT_EQ(top.wake, 0u);
	EXPECT_TRUE(kernel().log.empty());
	mox_packet_debug[0] = mox_packet_debug[PACKET_LEV2_LOC] = 1;
	mox_packet_thread_active(PACKET_LEV2_LOC);
	mox_packet_thread_active(PACKET_WLAN_LOC);
	EXPECT_EQ(kernel().text(), "[MOX-PACKET(0)]: THREAD-ACTION: copy-task is running\n");
	top.running = 0;
	memset(top.pending, 0, sizeof top.pending);
}

// Both switches are asked: the general one and the location's own.
TEST_F(Thread, active__lines_need_the_general_switch_and_the_locations)
{
	top.running = 1;
	for (u8 general : { 0, 1 })
		for (u8 own : { 0, 1 }) {
			kernel().log.clear();
			mox_packet_debug[0] = general;
			mox_packet_debug[PACKET_IPv4_LOC] = own;
			mox_packet_thread_active(PACKET_IPv4_LOC);
			EXPECT_EQ(kernel().count_said("copy-task is running"),
				  general && own ? 1u : 0u);
		}
	top.running = 0;
	memset(top.pending, 0, sizeof top.pending);
}

// As a hook calls it, whose location has a queue.
TEST_F(Thread, activate__says_that_the_thread_runs)
{
	top.running = 1;
	for (u8 general : { 0, 1 })
		for (u8 own : { 0, 1 }) {
			kernel().log.clear();
			mox_packet_debug[0] = general;
			mox_packet_debug[PACKET_IPv4_LOC] = own;
			thread_activate<PACKET_IPv4_LOC>();
			EXPECT_EQ(kernel().count_said("THREAD-ACTION: copy-task is running"),
				  general && own ? 1u : 0u);
			EXPECT_EQ(top.pending[kQueueIpv4], 1);
		}
	EXPECT_EQ(kernel().wakeups, 0);
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	top.running = 0;
	memset(top.pending, 0, sizeof top.pending);
}

// What the words are at each barrier: what the other side must not see before stands behind it.
TEST_F(Thread, barriers__between_the_words_of_hook_and_thread)
{
	std::vector<std::string> seen;
	const auto note = [&](const char *what) {
		seen.push_back(std::string(what) + " pending " +
			       std::to_string(top.pending[kQueueIpv4]) + " running " +
			       std::to_string(top.running) + " wake " + std::to_string(top.wake));
	};
	kernel().at.watch(Point::kBarrier, [&](const void *) { note("full"); });
	kernel().at.watch(Point::kStoreBarrier, [&](const void *) { note("store"); });
	const std::vector<std::string> hook = { "full pending 1 running 0 wake 0",
						"store pending 1 running 0 wake 1" };
	const std::vector<std::string> thread = {
		"full pending 1 running 0 wake 0", // wake is cleared before the bytes are looked at
		"full pending 0 running 1 wake 0", // the byte before its queues are drained
		"full pending 0 running 0 wake 0", // running before the bytes are looked at again
	};
	void (*const calls[])() = {
		[] { mox_packet_thread_active(PACKET_IPv4_LOC); },
		[] { thread_activate<PACKET_IPv4_LOC>(); },
	};
	for (auto call : calls) {
		seen.clear();
		call();
		EXPECT_EQ(seen, hook);
		seen.clear();
		kernel().run_thread();
		EXPECT_EQ(seen, thread);
	}
}

TEST_F(Thread, task__drains_in_queue_order_and_cpus_ascending)
{
	kernel().present_cpus = { 0, 2, 3 };
	std::vector<std::pair<int, int>> order;
	std::map<const void *, std::pair<int, int>> locks;
	for (int cpu = 0; cpu < 64; cpu++)
		for (int q = 0; q < 8; q++)
			locks[&g_cpu_pkt_que[cpu][q].lock] = { q, cpu };
	kernel().at[Point::kLock] = [&](const void *lock) {
		if (locks.count(lock))
			order.push_back(locks[lock]);
	};
	for (u32 location = 1; location <= 8; location++)
		mox_packet_thread_active(location);
	kernel().run_thread();
	kernel().at.clear();
	std::vector<std::pair<int, int>> wanted;
	for (int q = 0; q < 8; q++)
		for (int cpu : { 0, 2, 3 })
			wanted.push_back({ q, cpu });
	EXPECT_EQ(order, wanted);
	EXPECT_EQ(g_packet_thread_debug.scheduled, 1u);
	EXPECT_EQ(top.running, 0);
	EXPECT_EQ(top.wake, 0u);
}

TEST_F(Thread, task__only_pending_locations_are_visited)
{
	enqueue(&g_cpu_pkt_que[0][kQueueLev2], owned());
	enqueue(&g_cpu_pkt_que[0][kQueueIpv4], owned());
	mox_packet_thread_active(PACKET_IPv4_LOC);
	kernel().run_thread();
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueIpv4].count, 0u);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueLev2].count, 1u);
}

TEST_F(Thread, task__absent_cpus_are_never_visited)
{
	kernel().present_cpus = { 0 };
	enqueue(&g_cpu_pkt_que[1][kQueueLev2], owned());
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	EXPECT_EQ(g_cpu_pkt_que[1][kQueueLev2].count, 1u);
}

TEST_F(Thread, task__present_cpus_beyond_the_possible_ids_are_not_visited)
{
	kernel().present_cpus = { 0, 9 };
	kernel().cpu_ids = 4;
	enqueue(&g_cpu_pkt_que[9][kQueueLev2], owned());
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	EXPECT_EQ(g_cpu_pkt_que[9][kQueueLev2].count, 1u);
	// It is freed with its queue, and counted there.
	kernel().cpu_ids = 10;
}

// A hook marks a location while the thread drains: no wake-up, and the packet is
// drained before the thread sleeps.
TEST_F(Thread, task__location_marked_during_a_drain)
{
	int marks = 0;
	kernel().at[Point::kUnlock] = [&](const void *lock) {
		if (lock == &g_cpu_pkt_que[0][kQueueWlan].lock && marks++ == 0) {
			enqueue(&g_cpu_pkt_que[0][kQueueLev2], owned());
			mox_packet_thread_active(PACKET_LEV2_LOC);
		}
	};
	mox_packet_thread_active(PACKET_WLAN_LOC);
	int before = kernel().wakeups;
	kernel().run_thread();
	EXPECT_EQ(kernel().wakeups, before);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueLev2].count, 0u);
	EXPECT_EQ(g_packet_thread_debug.scheduled, 1u);
}

// A packet that comes behind the detaching of its own queue sets the byte again; a
// thread that cleared the byte only after the drain would forget it.
TEST_F(Thread, task__byte_is_cleared_before_its_queues_are_drained)
{
	bool played = false;
	kernel().at[Point::kUnlock] = [&](const void *lock) {
		if (lock != &g_cpu_pkt_que[1][kQueueLev2].lock || played)
			return;
		played = true;
		enqueue(&g_cpu_pkt_que[0][kQueueLev2], owned());
		mox_packet_thread_active(PACKET_LEV2_LOC);
	};
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	ASSERT_TRUE(played);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueLev2].count, 0u);
	EXPECT_EQ(top.pending[kQueueLev2], 0);
}

// The window between the last look at the bytes and the clearing of running: a
// hook that marks there must not leave its packet to the next one's wake-up.
TEST_F(Thread, task__mark_in_every_barrier_window_is_drained)
{
	for (int window = 0; window < 12; window++) {
		SCOPED_TRACE(window);
		int barriers = 0;
		bool marked = false;
		kernel().at[Point::kBarrier] = [&](const void *) {
			if (barriers++ == window && !marked) {
				marked = true;
				enqueue(&g_cpu_pkt_que[0][kQueueIpv6], owned());
				mox_packet_thread_active(PACKET_IPv6_LOC);
			}
		};
		// Woken again if the hook woke it, else asleep for good.
		kernel().at[Point::kWait] = [&](const void *) {};
		mox_packet_thread_active(PACKET_LEV2_LOC);
		kernel().run_thread();
		kernel().at.clear();
		EXPECT_EQ(g_cpu_pkt_que[0][kQueueIpv6].count, 0u);
		if (!marked)
			break;
		EXPECT_EQ(top.pending[kQueueIpv6], 0);
	}
}

TEST_F(Thread, task__lost_wakeup_at_the_clearing_of_running)
{
	// The byte is set just before the thread clears running, seen only after.
	bool played = false, marked = false;
	kernel().at[Point::kUnlock] = [&](const void *lock) {
		if (lock != &g_cpu_pkt_que[1][kQueueLev2].lock || played)
			return;
		played = true;
		// From here the drain only tests the bytes; mark with running still set.
		kernel().at[Point::kBarrier] = [&](const void *) {
			if (top.running || marked)
				return;
			marked = true;
			top.pending[kQueueTrill] = 1; // as a hook that saw running set
			enqueue(&g_cpu_pkt_que[0][kQueueTrill], owned());
		};
	};
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	ASSERT_TRUE(marked);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueTrill].count, 0u);
	EXPECT_EQ(top.pending[kQueueTrill], 0);
}

TEST_F(Thread, task__wake_set_meanwhile_is_handled_without_sleeping)
{
	int waits = 0;
	kernel().at[Point::kWait] = [&](const void *) { waits++; };
	bool once = true;
	kernel().at[Point::kUnlock] = [&](const void *lock) {
		if (lock == &g_cpu_pkt_que[0][kQueueLev2].lock && once) {
			once = false;
			top.wake = 1;
		}
	};
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	EXPECT_EQ(g_packet_thread_debug.scheduled, 2u);
	EXPECT_EQ(waits, 2); // before the first and after the second wake-up
}

TEST_F(Thread, task__signal_makes_it_pause_a_thousand_jiffies)
{
	kernel().wait_script.push_back([] { return -ERESTART; });
	kernel().wait_script.push_back([&] {
		top.wake = 1;
		return 0;
	});
	EXPECT_EQ(kernel().run_thread(), 0);
	EXPECT_EQ(kernel().sleeps, std::vector<long>{ 1000 });
	EXPECT_EQ(g_packet_thread_debug.scheduled, 1u);
}

TEST_F(Thread, task__asked_to_stop_returns_0)
{
	EXPECT_EQ(kernel().run_thread(), 0);
	EXPECT_EQ(g_packet_thread_debug.scheduled, 0u);
}

TEST_F(Thread, budget__yields_once_every_thousand_packets)
{
	for (int i = 0; i < 2500; i++)
		enqueue(&g_cpu_pkt_que[i % 2][i % 3 ? kQueueLev2 : kQueueWlan], owned());
	mox_packet_thread_active(PACKET_LEV2_LOC);
	mox_packet_thread_active(PACKET_WLAN_LOC);
	kernel().run_thread();
	EXPECT_EQ(kernel().schedules, 2);
	EXPECT_EQ(efmp().freed, 2500u);
	// A new drain starts with a budget of its own.
	for (int i = 0; i < 999; i++)
		enqueue(&g_cpu_pkt_que[0][kQueueLev2], owned());
	mox_packet_thread_active(PACKET_LEV2_LOC);
	kernel().run_thread();
	EXPECT_EQ(kernel().schedules, 2);
	enqueue(&g_cpu_pkt_que[0][kQueueLev2], owned());
}

TEST_F(Thread, dump__prints_the_counters)
{
	g_packet_thread_debug = { 17, 4000000000u };
	mox_packet_dump_thread();
	EXPECT_EQ(kernel().text(), "\n-------------PACKET-COPY-THREAD---------------\n"
				   "scheduled:          17\n"
				   "Alloc skb failed:   4000000000\n");
}

} // namespace
