// SPDX-License-Identifier: GPL-2.0-only
/*
 * Counters that nothing clears. 64-bit loads and stores of all 32-bit machines are not
 * atomic, and 64-bit atomic adds would cost every frame a loop, so a counter is two
 * words: one writer stores the low one, and every 2^32 counts the high one, too.
 */
#pragma once

#include "base/sync.hpp"

namespace mox {

/* In the high word: the low word is being set to 0, and then the high word rises by 1. */
inline constexpr u32 kTotalCarries = 1u << 31;

[[gnu::noinline, gnu::cold]] inline void total_carry(mox_total &total, u32 low)
{
	const u32 high = load(total.high);

	store(total.high, high | kTotalCarries);
	seam_smp_mb();
	store(total.low, low);
	seam_smp_mb();
	store(total.high, high + 1);
}

/** Count. The total has one writer at a time. Any context. */
[[gnu::always_inline]] inline void count(mox_total &total, u32 more = 1)
{
	u32 low;

	if (__builtin_add_overflow(load(total.low), more, &low)) [[unlikely]]
		total_carry(total, low);
	else
		store(total.low, low);
}

/** Count, in a total of which every writer uses this function. Any context. */
inline void count_shared(mox_total &total, u32 more = 1)
{
	typedef u64 __attribute__((may_alias)) Word;

	__atomic_fetch_add(reinterpret_cast<Word *>(&total), u64{ more }, __ATOMIC_RELAXED);
}

/** The current total; a part that is written meanwhile may be a count behind. Any context. */
inline u64 read_total(const mox_total &total)
{
	for (;;) {
		const u32 high = load(total.high);
		seam_smp_mb();
		const u32 low = load(total.low);
		seam_smp_mb();
		if (load(total.high) != high)
			continue;
		if (high & kTotalCarries)
			return u64{ (high & ~kTotalCarries) + 1 } << 32;
		return u64{ high } << 32 | low;
	}
}

} // namespace mox
