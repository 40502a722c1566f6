// SPDX-License-Identifier: GPL-2.0-only
// Socket calls, frames and failing allocations as the bytes choose them, beside the reference:
// rules, keys, copies, answers, offers and counters are compared behind every step, as far as it can
// have changed them, and all of them at the end.
#include "dense_fixture.h"
#include "fixture_case.h"

namespace {

class Calls : public DenseTest {
public:
	void play(fuzz::Input &input)
	{
		// Steps are bounded so that a case stays short: a longer one finds no more.
		Shape shape{ .rules = 6, .steps = 64, .frames = 2, .fashion = 16 };
		const unsigned how = input.byte();
		shape.failing = how % 4 == 0;
		// Slower, and what one step breaks elsewhere shows behind that step.
		shape.changed_only = how / 4 % 8 != 0;
		// Lines are made, which takes longest of all.
		debug(how / 32 == 7);
		shape.stray_keys = how / 32 == 6 && !shape.failing;
		const std::vector<uint8_t> bytes = input.rest();
		replay(shape, bytes.data(), bytes.size());
		debug(false);
	}
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Calls>::run([&](Calls &calls) { calls.play(input); });
}
