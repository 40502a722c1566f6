// SPDX-License-Identifier: GPL-2.0-only
#include "base/numbers.hpp"

#include <memory>

#include <gtest/gtest.h>

TEST(Numbers, saw)
{
	Seen seen;
	saw(seen);
	EXPECT_EQ(seen.times, 1u);
}

TEST(Numbers, clamp)
{
	EXPECT_EQ(clamp(-1, 9), 0);
	EXPECT_EQ(clamp(0, 9), 0);
	EXPECT_EQ(clamp(5, 9), 5);
	EXPECT_EQ(clamp(10, 9), 9);
}

TEST(Numbers, digits)
{
	EXPECT_EQ(digits(7), 1u);
	EXPECT_EQ(digits(123), 3u);
}

TEST(Numbers, holds)
{
	/* The allocator's own words stand behind the block. */
	const std::unique_ptr<char[]> bytes(new char[24]());
	bytes[23] = 'b';
	EXPECT_TRUE(holds(bytes.get(), 24, 'b'));
	EXPECT_FALSE(holds(bytes.get(), 24, 'z'));
}
