// SPDX-License-Identifier: GPL-2.0-only
/*
 * stats.c - what became of the frames, counted. Reading never clears.
 */
#include <linux/atomic.h>
#include <linux/build_bug.h>
#include <linux/cpumask.h>
#include "efmp.h"

static atomic64_t counters[EFMP_STATS];

void efmp_count(u32 stat)
{
	atomic64_inc(&counters[stat]);
}

void efmp_stats_read(struct moxlab_stats *s)
{
	u64 *field = &s->seen;
	int i;

#define SAME(field, stat) BUILD_BUG_ON(offsetof(struct moxlab_stats, field) != (stat) * sizeof(u64))
	SAME(point_frames, EFMP_POINT_FRAMES);
	SAME(point_taken, EFMP_POINT_TAKEN);
	SAME(fdb_entries, EFMP_STATS);
#undef SAME
	for (i = 0; i < EFMP_STATS; i++)
		field[i] = atomic64_read(&counters[i]);
	s->fdb_entries = efmp_fdb_count();
	s->cpus = num_online_cpus();
}

void efmp_stats_clear(void)
{
	int i;

	for (i = 0; i < EFMP_STATS; i++)
		atomic64_set(&counters[i], 0);
}
