// SPDX-License-Identifier: GPL-2.0
// One case of a fuzz target in a fixture of the host tests: a fresh kernel and module before it,
// the fixture's audits behind it. A failed expectation ends the process, as a crash does.
#pragma once

#include "fake/fixture.h"
#include "input.h"

namespace fuzz {

// The fixture, with SetUp() and TearDown() around a case.
template <typename Fixture> class Case : public Fixture {
public:
	template <typename Play> static void run(Play play)
	{
		Case fixture;
		fixture.SetUp();
		play(fixture);
		fixture.TearDown();
		// What the fakes noted would be taken for a leak of the case.
		fake::kernel().reset();
		fake::efmp().reset();
	}

private:
	void TestBody() override {}
};

} // namespace fuzz

// What each target defines: plays one case.
void fuzz_case(fuzz::Input input);
// What a target may define: runs before the first case.
void fuzz_begin();
