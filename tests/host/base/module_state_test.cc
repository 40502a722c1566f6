// SPDX-License-Identifier: GPL-2.0-only
// Who sets the flag and when: main_test.cc.
#include "base/module_state.hpp"

#include "fake/fixture.h"

namespace {

class ModuleState : public fake::KernelTest {};

TEST_F(ModuleState, down_until_set)
{
	EXPECT_FALSE(mox::module_up());
	mox::set_module_up(true);
	EXPECT_TRUE(mox::module_up());
	mox::set_module_up(false);
	EXPECT_FALSE(mox::module_up());
}

TEST_F(ModuleState, what_is_set_up_is_visible_before_the_flag)
{
	std::vector<bool> up;
	fake::kernel().at.watch(fake::Point::kStoreBarrier,
				[&](const void *) { up.push_back(mox::module_up()); });
	mox::set_module_up(true);
	mox::set_module_up(false);
	EXPECT_EQ(up, (std::vector<bool>{ false, true }));
}

} // namespace
