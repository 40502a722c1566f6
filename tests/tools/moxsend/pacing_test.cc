/* SPDX-License-Identifier: GPL-2.0-only */
#include "pacing.h"

#include <gtest/gtest.h>

#include <sys/time.h>

#include <csignal>

namespace {

constexpr std::uint64_t ms = 1'000'000, start = 5'000'000'000'000;

TEST(moxsend_pacing, every_frame_has_its_place_from_the_start_on)
{
	moxsend::Pacer pacer(3, start); // a period that is no whole number
	for (std::uint64_t i = 0; i < 3'000'000; ++i) {
		ASSERT_NEAR(static_cast<double>(pacer.due() - start),
			    static_cast<double>(i) * 1e9 / 3, 1.0)
			<< i;
		pacer.advance(pacer.due());
	}
	EXPECT_EQ(pacer.due(), start + 1'000'000'000'000'000u);
}

TEST(moxsend_pacing, what_one_frame_is_late_the_next_one_waits_less)
{
	moxsend::Pacer pacer(100, start);
	pacer.advance(start);
	EXPECT_EQ(pacer.due(), start + 10 * ms);
	pacer.advance(start + 17 * ms);
	EXPECT_EQ(pacer.due(), start + 20 * ms);
	pacer.advance(start + 120 * ms); // just not too late
	EXPECT_EQ(pacer.due(), start + 30 * ms);
}

TEST(moxsend_pacing, a_schedule_missed_by_far_starts_anew_without_a_burst)
{
	moxsend::Pacer pacer(100, start);
	pacer.advance(start);
	pacer.advance(start + 10 * ms + 100 * ms + 1);
	EXPECT_EQ(pacer.due(), start + 120 * ms + 1);
}

TEST(moxsend_pacing, without_a_rate_everything_is_due)
{
	moxsend::Pacer pacer(0, start);
	for (int i = 0; i < 10; ++i) {
		EXPECT_EQ(pacer.due(), 0u);
		pacer.advance(start);
	}
}

class SystemClockTest : public testing::Test {
protected:
	SystemClockTest() { sigemptyset(&waiting); }
	sigset_t waiting;
};

TEST_F(SystemClockTest, moxsend_waits_until_the_deadline)
{
	moxsend::SystemClock clock(waiting);
	std::uint64_t deadline = clock.now() + 30 * ms;
	clock.wait_until(deadline);
	EXPECT_GE(clock.now(), deadline);
	clock.wait_until(0); // a deadline that has passed does not wait
	EXPECT_LT(clock.now(), deadline + 5'000 * ms);
}

TEST_F(SystemClockTest, moxsend_lets_signals_in_while_it_waits_and_not_before)
{
	static volatile std::sig_atomic_t caught;
	caught = 0;
	struct sigaction action {
	}, before{};
	action.sa_handler = [](int) { caught = 1; };
	sigaction(SIGUSR1, &action, &before);
	sigset_t blocked;
	sigemptyset(&blocked);
	sigaddset(&blocked, SIGUSR1);
	sigprocmask(SIG_BLOCK, &blocked, nullptr);
	raise(SIGUSR1);

	moxsend::SystemClock clock(waiting);
	EXPECT_EQ(caught, 0);
	std::uint64_t begin = clock.now();
	clock.wait_until(begin + 60'000 * ms);
	EXPECT_EQ(caught, 1);
	EXPECT_LT(clock.now(), begin + 30'000 * ms) << "the signal ends the wait";
	caught = 0;
	raise(SIGUSR1);
	clock.wait_until(0);
	EXPECT_EQ(caught, 1) << "also when there is nothing to wait for";

	sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
	sigaction(SIGUSR1, &before, nullptr);
}

} // namespace
