// SPDX-License-Identifier: GPL-2.0-only
// The long comparison of the module with the reference, built with optimisation and without
// sanitizers: tests/host/run --long.
#include <chrono>

#include "dense_fixture.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSeeds = 64;
constexpr long kSteps = 10'000'000;

class Long : public DenseTest {
protected:
	// All seeds of a run follow from one.
	static uint64_t seed(int nth)
	{
		static const uint64_t first = given_seed();
		return first + nth;
	}
	void timed(const char *name, const Shape &shape, uint64_t with)
	{
		const Clock::time_point start = Clock::now();
		run(name, shape, with);
		const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
		printf("  %u steps, %u frames, %u wanted, %u offers: %s, %.1f s, %.0f steps/s\n",
		       tally.steps, tally.frames, tally.hits, tally.offers,
		       HasFailure() ? "DIFFERENT" : "no difference", seconds,
		       tally.steps / seconds);
		fflush(stdout);
	}
};

class LongSeeds : public Long, public testing::WithParamInterface<int> {};

TEST_P(LongSeeds, eight_rules)
{
	timed("LongSeeds.eight_rules",
	      { .rules = 8, .steps = kSteps / kSeeds, .frames = 2, .verify_every = 100 },
	      seed(GetParam()));
}

TEST_F(Long, many_rules)
{
	timed("Long.many_rules",
	      { .rules = 4096,
		.steps = 100'000,
		.frames = 2,
		.compare_every = 1000,
		.verify_every = 10'000,
		.last_frames = 64,
		.spread = 64,
		.fashion = 3000 },
	      seed(0));
}

INSTANTIATE_TEST_SUITE_P(Seeds, LongSeeds, testing::Range(0, kSeeds));

} // namespace
