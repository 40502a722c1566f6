// SPDX-License-Identifier: GPL-2.0
#include "harness.h"

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	GTEST_FLAG_SET(break_on_failure, true);
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
	fuzz_case(fuzz::Input(bytes, size));
	return 0;
}
