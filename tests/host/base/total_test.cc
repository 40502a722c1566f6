// SPDX-License-Identifier: GPL-2.0
// Counters of two words, their carry above all.
#include "base/total.hpp"

#include <gtest/gtest.h>

#include "fake/fixture.h"

using namespace mox;

namespace {

class Total : public fake::KernelTest {};

TEST_F(Total, count__carries_into_the_high_word)
{
	const struct {
		mox_total before;
		u32 more;
		u64 after;
	} rows[] = {
		{ { 0, 0 }, 1, 1 },
		{ { 0, 0 }, 0, 0 },
		{ { 0xfffffffe, 0 }, 1, 0xffffffff },
		{ { 0xffffffff, 0 }, 1, 0x100000000 },
		{ { 0xffffffff, 0 }, 0xffffffff, 0x1fffffffe },
		{ { 0xfffffff0, 6 }, 0x20, 0x700000010 },
		{ { 0xffffffff, 0x7ffffffe }, 1, 0x7fffffff00000000 },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.after);
		mox_total one = row.before, shared = row.before;
		count(one, row.more);
		EXPECT_EQ(read_total(one), row.after);
		count_shared(shared, row.more);
		EXPECT_EQ(read_total(shared), row.after);
	}
}

// A reader in the middle of a carry, on another CPU, sees the total before it or behind it.
TEST_F(Total, read__in_the_middle_of_a_carry)
{
	const mox_total carrying[] = {
		{ 0xffffffff, 4 | 1u << 31 },
		{ 0, 4 | 1u << 31 },
		{ 3, 4 | 1u << 31 },
	};
	for (const mox_total &total : carrying)
		EXPECT_EQ(read_total(total), 0x500000000u);
}

} // namespace
