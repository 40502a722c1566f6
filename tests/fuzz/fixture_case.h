// SPDX-License-Identifier: GPL-2.0-only
// One case of a fuzz target in a fixture of the host tests: a fresh kernel and module before it,
// the fixture's audits behind it.
#pragma once

#include "fake/fixture.h"
#include "harness.h"

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
