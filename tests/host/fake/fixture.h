// SPDX-License-Identifier: GPL-2.0-only
// Base of every test that runs module code: a fresh kernel and platform before,
// an audit of everything left over behind.
#pragma once

#include <gtest/gtest.h>

#include "efmp.h"
#include "kernel.h"
#include "ledger.h"

namespace fake {

class KernelTest : public testing::Test {
protected:
	void SetUp() override
	{
		kernel().reset();
		efmp().reset();
	}
	void TearDown() override
	{
		audit_frames();
		efmp().audit();
		kernel().audit();
	}
};

} // namespace fake
