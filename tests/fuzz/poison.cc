// SPDX-License-Identifier: GPL-2.0-only
// The targets of the module rely on poisoned memory: without it they would pass whatever is read.
#include <sanitizer/asan_interface.h>

#include <gtest/gtest.h>

#include "fake/efmp.h"
#include "harness.h"

void fuzz_begin()
{
	fake::efmp().reset();
	void *efbuff = fake::efmp().efbuff(std::vector<uint8_t>(512));
	// The platform's own bytes of the header.
	ASSERT_TRUE(__asan_address_is_poisoned(static_cast<uint8_t *>(efbuff) + 192))
		<< "the fakes poison nothing in this build";
	fake::efmp().drop(efbuff);
}
