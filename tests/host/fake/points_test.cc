// SPDX-License-Identifier: GPL-2.0-only
// What a test arms and what then does not happen fails the test.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "points.h"

namespace {

using fake::Fail;
using fake::Point;

TEST(Points, happen__acts_each_time)
{
	fake::Interleavings at;
	int times = 0;
	at[Point::kWake] = [&](const void *) { times++; };
	at.happen(Point::kWake, nullptr);
	at.happen(Point::kWait, nullptr);
	at.happen(Point::kWake, nullptr);
	EXPECT_EQ(times, 2);
	at.clear();
	at.happen(Point::kWake, nullptr);
	EXPECT_EQ(times, 2);
}

TEST(Points, happen__a_callback_runs_once_per_level_and_may_arm_anew)
{
	fake::Interleavings at;
	int outer = 0, inner = 0;
	at[Point::kUnlock] = [&](const void *) {
		outer++;
		at.happen(Point::kUnlock, nullptr);
		at[Point::kUnlock] = [&](const void *) { inner++; };
	};
	at.happen(Point::kUnlock, nullptr);
	at.happen(Point::kUnlock, nullptr);
	EXPECT_EQ(outer, 1);
	EXPECT_EQ(inner, 1);
	at.clear();
}

TEST(Points, armed__never_reached_fails_however_it_ends)
{
	static fake::Interleavings at;
	auto act = [](const void *) {};
	at[Point::kGrace] = act;
	EXPECT_NONFATAL_FAILURE(at.clear(), "armed and never reached: a wait for the hooks");
	at.clear();
	at[Point::kGrace] = act;
	EXPECT_NONFATAL_FAILURE(at.erase(Point::kGrace), "armed and never reached");
	at[Point::kGrace] = act;
	static const fake::Interleavings::Act other = act;
	EXPECT_NONFATAL_FAILURE(at[Point::kGrace] = other, "armed and never reached");
	at.happen(Point::kGrace, nullptr);
	at.clear();
}

TEST(Points, watch__may_never_be_reached)
{
	fake::Interleavings at;
	at.watch(Point::kGrace, [](const void *) {});
	at.clear();
}

TEST(Points, failures__the_nth_call_from_now)
{
	fake::Failures failures;
	EXPECT_FALSE(failures.due(Fail::kKmalloc));
	failures.arm(Fail::kKmalloc, 2);
	EXPECT_FALSE(failures.due(Fail::kKmalloc));
	EXPECT_FALSE(failures.due(Fail::kVzalloc));
	EXPECT_TRUE(failures.due(Fail::kKmalloc));
	EXPECT_FALSE(failures.due(Fail::kKmalloc));
	EXPECT_EQ(failures.calls(Fail::kKmalloc), 4u);
	failures.audit();
}

TEST(Points, failures__never_due_fails_unless_taken_back)
{
	static fake::Failures failures;
	failures.arm(Fail::kItemAlloc, 2);
	EXPECT_FALSE(failures.due(Fail::kItemAlloc));
	EXPECT_NONFATAL_FAILURE(failures.audit(), "allocation of a rule item");
	failures.disarm(Fail::kItemAlloc);
	failures.audit();
}

} // namespace
