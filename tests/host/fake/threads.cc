// SPDX-License-Identifier: GPL-2.0-only
// The copy thread, run by the test in its own thread: at each sleep the test
// decides how it ends.
#include "kernel.h"

using fake::breach;
using fake::Fail;
using fake::kernel;
using fake::Point;

namespace fake {

int Kernel::run_thread()
{
	if (tasks.empty()) {
		breach("no thread to run");
		return -1;
	}
	task_struct *task = *tasks.begin();
	task->ran = true;
	thread_stop_asked = false;
	return task->body(task->argument);
}

} // namespace fake

extern "C" __attribute__((weak)) packet_thread_top g_packet_thread_top;

void seam_waitqueue_init(void)
{
	fake::Kernel::init_lock(&g_packet_thread_top.wait_queue, fake::LockKind::kMutex);
	kernel().journal.push_back("waitqueue");
}

int seam_wait_interruptible(seam_waitqueue *, const u32 *word)
{
	kernel().may_sleep("wait_event");
	kernel().event(Point::kWait, word);
	if (*word != 0 || kernel().thread_stop_asked)
		return 0;
	if (kernel().wait_script.empty()) {
		kernel().thread_stop_asked = true;
		return 0;
	}
	auto next = std::move(kernel().wait_script.front());
	kernel().wait_script.pop_front();
	int result = next();
	if (result == 0 && *word == 0 && !kernel().thread_stop_asked)
		breach("a test's sleep ended without a reason");
	return result;
}

void seam_wake_up(seam_waitqueue *queue)
{
	kernel().wakeups++;
	kernel().event(Point::kWake, queue);
}

void seam_sleep_jiffies(long jiffies)
{
	kernel().may_sleep("schedule_timeout");
	kernel().sleeps.push_back(jiffies);
}

void seam_schedule(void)
{
	kernel().may_sleep("schedule");
	kernel().schedules++;
	kernel().event(Point::kSchedule);
}

extern "C" int seam_fatal_signal_pending(void)
{
	return kernel().killed;
}

extern "C" int seam_need_resched(void)
{
	return kernel().need_resched;
}

extern "C" void seam_cond_resched(void)
{
	kernel().may_sleep("cond_resched");
	kernel().cond_rescheds++;
	kernel().event(Point::kCondResched);
}

task_struct *seam_thread_create(int (*body)(void *), void *argument, const char *name)
{
	kernel().may_sleep("kthread_create");
	if (kernel().failing(Fail::kThreadCreate))
		return reinterpret_cast<task_struct *>(-ENOMEM);
	auto *task = new task_struct{ body, argument, name };
	kernel().tasks.insert(task);
	kernel().journal.push_back(std::string("thread+ ") + name);
	return task;
}

int seam_task_invalid(const task_struct *task)
{
	auto v = reinterpret_cast<intptr_t>(task);
	return v == 0 || (v < 0 && v >= -4095);
}

void seam_thread_set_normal(task_struct *task, int priority)
{
	task->priority = priority;
}
void seam_thread_wake(task_struct *task)
{
	task->wakes++;
}

void seam_thread_stop(task_struct *task)
{
	kernel().may_sleep("kthread_stop");
	kernel().event(Point::kStop, task);
	if (!kernel().tasks.erase(task))
		return breach("kthread_stop of no thread");
	kernel().journal.push_back("thread- " + task->name);
	kernel().thread_stop_asked = true;
	delete task;
}

int seam_thread_should_stop(void)
{
	return kernel().thread_stop_asked;
}
