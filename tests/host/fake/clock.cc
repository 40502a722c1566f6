// SPDX-License-Identifier: GPL-2.0-only
// Clocks, which stand still unless a test moves them.
#include "kernel.h"

u64 seam_monotonic_ns(void)
{
	return fake::kernel().monotonic_ns;
}
u64 seam_real_ns(void)
{
	return fake::kernel().real_ns;
}
u32 seam_clock_ticks(void)
{
	return fake::kernel().clock_ticks;
}
