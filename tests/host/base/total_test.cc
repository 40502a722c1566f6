// SPDX-License-Identifier: GPL-2.0-only
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

// Each half of a carry is seen before the next one: what the words are at the barriers.
TEST_F(Total, count__carries_in_three_steps)
{
	using Words = std::vector<std::pair<u32, u32>>;
	mox_total total = { 0xffffffff, 4 };
	Words seen;
	fake::kernel().at.watch(fake::Point::kBarrier,
				[&](const void *) { seen.emplace_back(total.low, total.high); });
	count(total);
	EXPECT_EQ(seen, (Words{ { 0xffffffff, 4 | 1u << 31 }, { 0, 4 | 1u << 31 } }));
	EXPECT_EQ(total.low, 0u);
	EXPECT_EQ(total.high, 5u);
}

// The words are read with the high one on both sides: a carry in between is noticed.
TEST_F(Total, read__while_it_carries)
{
	for (int when : { 1, 2 }) {
		mox_total total = { 0xffffffff, 4 };
		int barriers = 0;
		fake::kernel().at[fake::Point::kBarrier] = [&](const void *) {
			if (++barriers == when)
				total = { 3, 5 };
		};
		EXPECT_EQ(read_total(total), 0x500000003u);
		EXPECT_EQ(barriers, 4) << "two of each turn";
		fake::kernel().at.clear();
	}
}

} // namespace
