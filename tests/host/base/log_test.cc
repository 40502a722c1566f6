// SPDX-License-Identifier: GPL-2.0-only
#include "base/log.hpp"

#include "fake/fixture.h"

using fake::kernel;

namespace {

class Log : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	}
	void TearDown() override
	{
		memset(mox_packet_debug, 0, sizeof mox_packet_debug);
		KernelTest::TearDown();
	}
};

TEST_F(Log, debug__only_the_general_switch_counts)
{
	for (size_t at = 1; at < sizeof mox_packet_debug; at++)
		mox_packet_debug[at] = 1;
	MOX_DEBUG("LINE %d\n", 1);
	EXPECT_TRUE(kernel().log.empty());
	mox_packet_debug[0] = 255;
	MOX_DEBUG("LINE %d\n", 2);
	EXPECT_EQ(kernel().text(), "[MOX-PACKET(0)]: LINE 2\n");
}

TEST_F(Log, tag__names_the_cpu_that_prints)
{
	kernel().cpu = 3;
	MOX_TRACE("LINE\n");
	EXPECT_EQ(kernel().text(), "[MOX-PACKET(3)]: LINE\n");
}

TEST_F(Log, debug__arguments_are_not_computed_while_off)
{
	int computed = 0;
	MOX_DEBUG("LINE %d\n", ++computed);
	EXPECT_EQ(computed, 0);
}

} // namespace
