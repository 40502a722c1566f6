// SPDX-License-Identifier: GPL-2.0-only
/*
 * latency.c - how long bottom halves stay off: a timer interrupt raises a tasklet
 * in short intervals, and its longest wait counts.
 */
#include <asm/irq_regs.h>
#include <linux/hrtimer.h>
#include <linux/interrupt.h>
#include <linux/ktime.h>
#include <linux/mutex.h>
#include <linux/ptrace.h>
#include <linux/string.h>
#include "compat.h"
#include "efmp.h"

#define PERIOD_MIN 10000
#define PERIOD_MAX 1000000000

static DEFINE_MUTEX(latency_lock); /* starting and stopping */
static bool started;
static struct hrtimer timer;
static struct tasklet_struct tasklet;
static ktime_t period;

/* Of the timer interrupt and its tasklet, which run on one CPU. */
static struct {
	bool waiting;
	u64 raised;
	unsigned long pc; /* where the last interrupt of this wait came into */
	u64 longest;
	u64 longest_at;
	unsigned long longest_pc;
	u64 runs;
} seen;

static enum hrtimer_restart tick(struct hrtimer *unused)
{
	struct pt_regs *regs = get_irq_regs();

	seen.pc = regs ? instruction_pointer(regs) : 0;
	if (!seen.waiting) {
		seen.waiting = true;
		seen.raised = ktime_get_mono_fast_ns();
		/* High priority: it runs at the interrupt's end even where others are left to a thread. */
		tasklet_hi_schedule(&tasklet);
	}
	hrtimer_forward_now(&timer, period);
	return HRTIMER_RESTART;
}

static void tock(unsigned long unused)
{
	u64 now = ktime_get_mono_fast_ns();

	if (now - seen.raised > seen.longest) {
		seen.longest = now - seen.raised;
		seen.longest_at = now;
		seen.longest_pc = seen.pc;
	}
	seen.runs++;
	seen.waiting = false;
}

static void stop(void)
{
	if (!started)
		return;
	hrtimer_cancel(&timer);
	tasklet_kill(&tasklet);
	started = false;
}

static int start(u32 period_ns)
{
	if (period_ns < PERIOD_MIN || period_ns > PERIOD_MAX)
		return -EINVAL;
	stop();
	memset(&seen, 0, sizeof(seen));
	period = ns_to_ktime(period_ns);
	tasklet_init(&tasklet, tock, 0);
	efmp_hrtimer_setup(&timer, tick);
	started = true;
	hrtimer_start(&timer, period, HRTIMER_MODE_REL_PINNED);
	return 0;
}

void efmp_latency_stop(void)
{
	mutex_lock(&latency_lock);
	stop();
	mutex_unlock(&latency_lock);
}

int efmp_latency(struct moxlab_latency *latency)
{
	int err = 0;

	mutex_lock(&latency_lock);
	switch (latency->op) {
	case MOXLAB_LATENCY_START:
		err = start(latency->period_ns);
		break;
	case MOXLAB_LATENCY_READ:
		break;
	case MOXLAB_LATENCY_STOP:
		stop();
		break;
	default:
		err = -EINVAL;
	}
	latency->longest_ns = seen.longest;
	latency->longest_at = seen.longest_at;
	latency->runs = seen.runs;
	snprintf(latency->symbol, sizeof(latency->symbol), "%ps", (void *)seen.longest_pc);
	mutex_unlock(&latency_lock);
	return err;
}
