// SPDX-License-Identifier: GPL-2.0-only
// sendmsg against the reference: random messages on a few sockets, in a world that
// changes. After each send result, every counter, every line and the whole efbuff are
// what the reference has.
//
// SEED=n replays a run, STEPS=n changes its length.
#include <random>

#include "random_send_fixture.h"

namespace {

class RandomSend : public RandomSendTest {
protected:
	void SetUp() override
	{
		RandomSendTest::SetUp();
		const char *given = getenv("SEED");
		seed = given ? strtoull(given, nullptr, 0) : std::random_device{}();
		steps = getenv("STEPS") ? atoi(getenv("STEPS")) : 20000;
		rng.seed(seed);
	}

	uint64_t seed = 0;
	int steps = 0;
};

TEST_F(RandomSend, module_and_reference_agree)
{
	printf("SEED=%llu STEPS=%d RandomSend\n", static_cast<unsigned long long>(seed), steps);
	for (int i = 0; i < steps && !HasFailure(); i++) {
		SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(i));
		step();
	}
	// A run in which one of the ways to end hardly occurs would prove little.
	for (int way = kSendmsgIll; way < kCounters; way++)
		EXPECT_GE(seen[way], steps / 400) << "way " << way;
}

} // namespace
