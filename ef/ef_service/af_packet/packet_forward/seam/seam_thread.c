// SPDX-License-Identifier: GPL-2.0-only
/* The copy thread: sleeping, waking, starting and stopping. */
#include <linux/err.h>
#include <linux/kthread.h>
#include <linux/sched.h>
#include <linux/sched/signal.h>
#include <linux/wait.h>

#include "seam.h"
#include "seam_compat.h"

void seam_waitqueue_init(void)
{
	init_waitqueue_head(&g_packet_thread_top.wait_queue);
}

int seam_wait_interruptible(seam_waitqueue *queue, const u32 *word)
{
	return wait_event_interruptible(*queue, READ_ONCE(*word) || kthread_should_stop());
}

void seam_wake_up(seam_waitqueue *queue)
{
	wake_up_interruptible(queue);
}

void seam_sleep_jiffies(long jiffies)
{
	schedule_timeout_interruptible(jiffies);
}

void seam_schedule(void)
{
	schedule();
}

int seam_fatal_signal_pending(void)
{
	return fatal_signal_pending(current);
}

int seam_need_resched(void)
{
	return need_resched();
}

void seam_cond_resched(void)
{
	cond_resched();
}

struct task_struct *seam_thread_create(int (*body)(void *), void *argument, const char *name)
{
	return kthread_create(body, argument, "%s", name);
}

int seam_task_invalid(const struct task_struct *task)
{
	return IS_ERR_OR_NULL(task);
}

void seam_thread_set_normal(struct task_struct *task, int priority)
{
	seam_compat_set_normal(task, priority);
}

void seam_thread_wake(struct task_struct *task)
{
	wake_up_process(task);
}

void seam_thread_stop(struct task_struct *task)
{
	kthread_stop(task);
}

int seam_thread_should_stop(void)
{
	return kthread_should_stop();
}
