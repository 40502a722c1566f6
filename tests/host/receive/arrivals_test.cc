// SPDX-License-Identifier: GPL-2.0-only
// Times of arrival: the rings beside the queues, and the numbers that lead from a frame to its
// entry.
#include "receive/arrivals.hpp"

#include <random>

#include "fake/backlog.h"
#include "fake/fixture.h"
#include "packets.h"

using namespace mox;
using fake::efmp;
using fake::Fail;
using fake::kernel;

namespace {

using namespace packets;

constexpr int kCpus = 4; // of the fake kernel
constexpr u64 kTick = 64;
constexpr u64 kReach = (u64{ 1 } << 32) * kTick; // nanoseconds until an entry repeats

class Arrivals : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		fake::max_backlog = 100000; // the module's own limit counts
		arrivals_init();
		ASSERT_EQ(mox_packet_sock_init(), 0);
	}
	void TearDown() override
	{
		for (; needs > 0; needs--)
			arrivals_release();
		mox_packet_sock_deinit();
		arrivals_deinit();
		// Chains are freed here by hand: that no ledger counts what left a queue is right.
		kernel().hook_cpus = {};
		fake::max_backlog = fake::kBacklogDefault;
		for (void *e : pool)
			efmp().drop(e);
		KernelTest::TearDown();
	}
	void need()
	{
		ASSERT_TRUE(arrivals_need());
		needs++;
	}
	void release()
	{
		arrivals_release();
		needs--;
	}
	static const hook_cpu *record(int cpu) { return seam_hook_cpu(cpu); }
	static bool needed()
	{
		const bool on = arrivals_needed(record(0));
		for (int cpu = 1; cpu < kCpus; cpu++)
			EXPECT_EQ(arrivals_needed(record(cpu)), on) << cpu;
		return on;
	}
	// An efbuff that is used over and over.
	void *take()
	{
		if (pool.empty())
			return efmp().efbuff(efbuff({}, eth(1)));
		void *e = pool.back();
		pool.pop_back();
		return e;
	}
	// What a hook does with a frame: its number on the queue, or -1 when there is no room.
	int queue(int cpu, u32 number, Held held)
	{
		if (!queue_admit(static_cast<u32>(cpu), number, held))
			return -1;
		const u32 frame = queue_last_number(static_cast<u32>(cpu), number);
		if (arrivals_needed(record(cpu)))
			arrival_note(record(cpu), number, frame);
		kernel().bh_disabled++;
		queue_append(&g_cpu_pkt_que[cpu][number], take(), held);
		kernel().bh_disabled--;
		return static_cast<int>(frame);
	}
	// What delivery does with a queue: visit(number, arrival) for each frame, an arrival only
	// while times are needed.
	template <typename Visit> void deliver(int cpu, u32 number, Visit visit)
	{
		efbuff_queue *queue = &g_cpu_pkt_que[cpu][number];
		EfbuffChain chain = queue_detach(queue);
		const bool watched = arrivals_needed(queue_record(queue));
		while (void *e = chain.next()) {
			visit(chain.number(),
			      watched ? arrival_of(queue, chain.number(), kernel().monotonic_ns)
				      : kNoArrival);
			pool.push_back(e);
		}
	}
	// The arrival of the only frame on a queue.
	u64 arrival(int cpu = 0, u32 number = 0)
	{
		u64 found = 0;
		int frames = 0;
		deliver(cpu, number, [&](u32, u64 at) {
			found = at;
			frames++;
		});
		EXPECT_EQ(frames, 1);
		return found;
	}
	static void pass(u64 ns) { kernel().monotonic_ns += ns; }
	static bool near(u64 found, u64 came)
	{
		return found != kNoArrival && found + kTick > came && found < came + kTick;
	}

	int needs = 0;
	std::vector<void *> pool;
};

// ---- who needs them ------------------------------------------------------------------

TEST_F(Arrivals, need__is_counted)
{
	EXPECT_FALSE(needed());
	need();
	EXPECT_TRUE(needed());
	need();
	release();
	EXPECT_TRUE(needed()) << "one still needs them";
	release();
	EXPECT_FALSE(needed());
	need();
	EXPECT_TRUE(needed());
}

TEST_F(Arrivals, need__the_rings_are_made_once_and_of_each_possible_cpu)
{
	EXPECT_TRUE(kernel().vzallocs.empty());
	need();
	EXPECT_EQ(kernel().vzallocs, std::vector<size_t>(kCpus, 4u * 2048 * 8));
	release();
	need();
	EXPECT_EQ(kernel().vzallocs.size(), size_t{ kCpus });
}

TEST_F(Arrivals, need__without_memory)
{
	for (int nth = 1; nth <= kCpus; nth++) {
		SCOPED_TRACE(nth);
		// What the attempts before have allocated stays: the next one asks for the rest.
		kernel().fail(Fail::kVzalloc);
		EXPECT_FALSE(arrivals_need());
		EXPECT_FALSE(needed());
		queue(0, 0, Held::kTaken);
		EXPECT_EQ(arrival(), kNoArrival);
	}
	need();
	EXPECT_TRUE(needed());
	release();
	EXPECT_FALSE(needed()) << "failed attempts count";
}

TEST_F(Arrivals, deinit__frees_the_rings_while_they_are_needed)
{
	need();
	arrivals_deinit();
	EXPECT_FALSE(needed());
	arrivals_deinit();
	arrivals_init();
	needs = 0;
	need();
	queue(0, 0, Held::kTaken);
	EXPECT_TRUE(near(arrival(), kernel().monotonic_ns));
}

// ---- times ----------------------------------------------------------------------------

TEST_F(Arrivals, time__of_frames_that_wait_up_to_274_seconds)
{
	need();
	const u64 begins[] = { 1,          63,     64,          1000000000,
			       kReach - 1, kReach, kReach + 63, 7 * kReach + 9 };
	const u64 waits[] = { 0,
			      1,
			      63,
			      64,
			      65,
			      1000000,
			      1000000000,
			      100000000000,
			      274 * u64{ 1000000000 },
			      kReach - 2 * kTick };
	for (u64 begin : begins)
		for (u64 wait : waits) {
			SCOPED_TRACE(std::to_string(begin) + " + " + std::to_string(wait));
			kernel().monotonic_ns = begin;
			queue(1, 3, Held::kTaken);
			pass(wait);
			u64 found = 0;
			deliver(1, 3, [&](u32, u64 at) { found = at; });
			// A tick of number 0 counts as the next one: 64 ns more.
			EXPECT_LT(found, begin + 2 * kTick);
			EXPECT_GT(found + 2 * kTick, begin);
			EXPECT_LE(found, kernel().monotonic_ns) << "later than now";
		}
}

TEST_F(Arrivals, time__not_needed_nothing_is_written)
{
	need();
	queue(0, 0, Held::kTaken);
	EXPECT_NE(arrival(), kNoArrival);
	release();
	// A hook that has seen them off notes nothing.
	arrival_note(record(0), 0, 1);
	queue(0, 0, Held::kTaken);
	need();
	EXPECT_EQ(arrival(), kNoArrival);
}

TEST_F(Arrivals, time__needed_while_frames_are_queued)
{
	for (int i = 0; i < 5; i++)
		queue(0, 2, i % 2 ? Held::kCopy : Held::kTaken);
	need();
	std::vector<u64> came;
	for (int i = 0; i < 5; i++) {
		pass(1000);
		came.push_back(kernel().monotonic_ns);
		queue(0, 2, i % 2 ? Held::kCopy : Held::kTaken);
	}
	size_t at = 0;
	deliver(0, 2, [&](u32, u64 found) {
		if (at < 5)
			EXPECT_EQ(found, kNoArrival) << at;
		else
			EXPECT_TRUE(near(found, came[at - 5])) << at;
		at++;
	});
	EXPECT_EQ(at, 10u);
}

TEST_F(Arrivals, time__is_asked_for_once)
{
	need();
	const u32 frame = static_cast<u32>(queue(0, 0, Held::kTaken));
	efbuff_queue *q = &g_cpu_pkt_que[0][0];
	EXPECT_TRUE(near(arrival_of(q, frame, kernel().monotonic_ns), kernel().monotonic_ns));
	EXPECT_EQ(arrival_of(q, frame, kernel().monotonic_ns), kNoArrival);
	EXPECT_EQ(arrival(), kNoArrival);
}

// A frame that came while times were needed, and left while they were not, leaves its entry.
// The frame that has the entry next has no time, and must not get that one.
TEST_F(Arrivals, reuse__a_frame_does_not_get_the_time_of_an_older_one)
{
	need();
	queue(0, 0, Held::kTaken);
	release();
	deliver(0, 0, [](u32, u64 at) { EXPECT_EQ(at, kNoArrival); });
	// Frame 2048 has the same entry as frame 0.
	for (int i = 1; i < 2048; i++) {
		pass(100000);
		queue(0, 0, Held::kTaken);
		deliver(0, 0, [](u32, u64) {});
	}
	queue(0, 0, Held::kTaken);
	need();
	deliver(0, 0, [](u32 number, u64 at) {
		EXPECT_EQ(number, 2048u);
		EXPECT_EQ(at, kNoArrival);
	});
}

TEST_F(Arrivals, reuse__full_queue)
{
	need();
	for (int i = 0; i < 2048; i++)
		ASSERT_GE(queue(2, 1, Held::kTaken), 0);
	EXPECT_EQ(queue(2, 1, Held::kTaken), -1);
	const u64 came = kernel().monotonic_ns;
	pass(1000000);
	deliver(2, 1, [&](u32, u64 at) { EXPECT_TRUE(near(at, came)); });
}

// ---- numbers --------------------------------------------------------------------------

struct Frame {
	u32 number; // as the hook has it
	u64 came;
	bool noted;
	u64 phase; // of the needs, counted up by each change
};

// Hooks of several CPUs, with clones that fail and queues that are full, against delivery.
// Times are needed all the while, or now and then.
class Numbers : public Arrivals, public testing::WithParamInterface<bool> {};

TEST_P(Numbers, of_a_frame_at_the_hook_and_at_delivery_agree)
{
	const bool switches = GetParam();
	const u32 seed = 77 + switches;
	std::mt19937 rng(seed);
	std::map<std::pair<int, u32>, std::deque<Frame>> queues;
	u64 phase = 0;
	uint64_t queued = 0, refused = 0, counted_back = 0, timed = 0, untimed = 0;

	if (!switches)
		need();
	while (queued < 200000) {
		pass(rng() % 5000);
		// Most of them on one queue, so that its numbers wrap.
		const int cpu = rng() % 4 ? 0 : static_cast<int>(rng() % kCpus);
		const u32 number = rng() % 4 ? 5 : rng() % CPU_QUEUES;
		auto &model = queues[{ cpu, number }];
		const Held held = rng() % 2 ? Held::kCopy : Held::kTaken;
		const u32 what = rng() % 4000;
		if (switches && what == 0) {
			phase++;
			if (needs)
				release();
			else
				need();
		} else if (what < 400) {
			// The platform has no buffer for a clone.
			if (queue_admit(static_cast<u32>(cpu), number, held)) {
				queue_count_back(static_cast<u32>(cpu), number, held);
				counted_back++;
			}
		} else if (what < 3999) {
			const int frame = queue(cpu, number, held);
			if (frame < 0) {
				refused++;
				continue;
			}
			model.push_back({ static_cast<u32>(frame), kernel().monotonic_ns,
					  needs != 0, phase });
			queued++;
		} else {
			deliver(cpu, number, [&](u32 frame, u64 at) {
				ASSERT_FALSE(model.empty());
				const Frame want = model.front();
				model.pop_front();
				ASSERT_EQ(frame & 0xffff, want.number);
				if (want.noted && needs && want.phase == phase) {
					ASSERT_TRUE(near(at, want.came)) << at << " " << want.came;
					timed++;
				} else {
					// Its own time, or none.
					ASSERT_TRUE(at == kNoArrival ||
						    (want.noted && near(at, want.came)))
						<< at << " " << want.came;
					untimed++;
				}
			});
			if (HasFatalFailure())
				return;
		}
	}
	for (auto &[place, model] : queues)
		deliver(place.first, place.second, [&](u32 frame, u64) {
			EXPECT_EQ(frame & 0xffff, model.front().number);
			model.pop_front();
		});
	EXPECT_GT(refused, 100u);
	EXPECT_GT(counted_back, 100u);
	EXPECT_GT(timed, 10000u);
	EXPECT_EQ(untimed > 10000, switches);
}

INSTANTIATE_TEST_SUITE_P(Needs, Numbers, testing::Bool());

} // namespace
