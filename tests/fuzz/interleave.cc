// SPDX-License-Identifier: GPL-2.0-only
// Calls, frames, requests, dumps, failing allocations and loads in the middle of each other, as the
// bytes choose them.
#include "fixture_case.h"
#include "play.h"

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<fuzz::Play>::run([&](fuzz::Play &play) { play.run(input); });
}
