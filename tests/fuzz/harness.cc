// SPDX-License-Identifier: GPL-2.0-only
#include "harness.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace {

// Ends the process as a crash does, which makes libFuzzer keep the case: a trap would not.
class AbortOnFailure : public testing::EmptyTestEventListener {
	void OnTestPartResult(const testing::TestPartResult &result) override
	{
		if (result.failed())
			abort();
	}
};

} // namespace

__attribute__((weak)) void fuzz_begin() {}

// Freed blocks are kept long enough for a case to touch them, and for allocations one caller is
// noted: ASAN_OPTIONS of the environment come later.
extern "C" const char *__asan_default_options()
{
	return "quarantine_size_mb=8:malloc_context_size=2";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	testing::UnitTest::GetInstance()->listeners().Append(new AbortOnFailure);
	fuzz_begin();
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
	fuzz_case(fuzz::Input(bytes, size));
	return 0;
}
