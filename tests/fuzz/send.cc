// SPDX-License-Identifier: GPL-2.0-only
// Sends of any name, control record and data in a world that changes, compared with the reference.
#include "fixture_case.h"
#include "random_send_fixture.h"

namespace {

class Sends : public RandomSendTest {
public:
	void play(fuzz::Input &input)
	{
		const std::vector<uint8_t> bytes = input.rest();
		rng.take_from(bytes.data(), bytes.size());
		// What a send leaves to the next shows soon.
		for (int sends = 0; sends < 16 && !rng.exhausted(); sends++)
			step();
	}
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Sends>::run([&](Sends &sends) { sends.play(input); });
}
