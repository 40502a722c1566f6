// SPDX-License-Identifier: GPL-2.0-only
#include "receive/thread.hpp"

#include "base/report.hpp"
#include "locations/table.hpp"
#include "receive/deliver.hpp"
#include "receive/queue.hpp"

extern "C" {
constinit packet_thread_top g_packet_thread_top{};
constinit u8 mox_packet_thread_init_ok = 0;
}

namespace mox {
namespace {

/** The pending byte of a location, or null for a number that no hook has. */
u8 *pending_byte(u32 location)
{
	return location_has_report(location)
		       ? &g_packet_thread_top.pending[location_row(location).queue]
		       : nullptr;
}

/** The copy thread's lines need the location's own switch besides the general one. */
bool action_traced(u32 location)
{
	return debug_on() && location < sizeof(mox_packet_debug) &&
	       load(mox_packet_debug[location]) != 0;
}

bool any_pending()
{
	for (u8 &byte : g_packet_thread_top.pending)
		if (load(byte))
			return true;
	return false;
}

void drain_queue(u32 number, u32 *budget)
{
	const u32 location = queue_location(number);
	const Location &row = location_row(location);

	/* A slot exists for each possible CPU; one that is not present has never queued. */
	for (int cpu = seam_next_present_cpu(-1); cpu < seam_nr_cpu_ids();
	     cpu = seam_next_present_cpu(cpu)) {
		efbuff_queue *queue = &g_cpu_pkt_que[cpu][number];
		if (row.summary == Summary::kWlan)
			mox_packet_deal_regular_lib_wlan_pkt_global(row.library, queue, budget);
		else
			mox_packet_deal_regular_lib_pkt_global(location, row.library, queue,
							       budget);
	}
}

void drain(u32 *budget)
{
	while (any_pending()) {
		for (u32 number = 0; number < CPU_QUEUES; number++) {
			u8 &byte = g_packet_thread_top.pending[number];
			if (!load(byte))
				continue;
			/* Cleared first: what is queued from here on sets it again. */
			store(byte, u8{ 0 });
			seam_smp_mb();
			drain_queue(number, budget);
		}
	}
}

/**
 * One wake-up: drain until nothing is pending. A hook that finds running set
 * leaves a packet to this drain without a wake-up, so after running is cleared
 * the bytes are looked at once more. The barriers here and in
 * mox_packet_thread_active pair: either this look sees the hook's byte, or the
 * hook sees running clear and wakes the thread.
 */
void handle_wake_up()
{
	packet_thread_top &top = g_packet_thread_top;
	u32 budget = kDrainBudget;

	bump(g_packet_thread_debug.scheduled);
	store(top.wake, 0u);
	/* A hook that saw wake set has set its byte before: it is seen below. */
	seam_smp_mb();
	do {
		store(top.running, u8{ 1 });
		drain(&budget);
		store(top.running, u8{ 0 });
		seam_smp_mb();
	} while (any_pending());
}

} // namespace

void thread_trace_running(u32 location)
{
	if (action_traced(location))
		MOX_TRACE("THREAD-ACTION: copy-task is running\n");
}

void thread_wake()
{
	packet_thread_top &top = g_packet_thread_top;

	store(top.wake, 1u);
	seam_smp_wmb();
	seam_wake_up(&top.wait_queue);
}

} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_thread_active(u32 location)
{
	packet_thread_top &top = g_packet_thread_top;

	if (u8 *byte = pending_byte(location))
		store(*byte, u8{ 1 });
	else if (action_traced(location))
		MOX_TRACE("THREAD-ACTION: act illegal type location !\n");
	seam_smp_mb();
	if (load(top.running))
		thread_trace_running(location);
	else if (!load(top.wake))
		thread_wake();
}

int mox_packet_copy_task(void *)
{
	packet_thread_top &top = g_packet_thread_top;

	for (;;) {
		int signalled = seam_wait_interruptible(&top.wait_queue, &top.wake);
		if (seam_thread_should_stop())
			return 0;
		if (signalled) {
			/* No code signals this thread; should a signal come, the loop must not spin. */
			seam_sleep_jiffies(1000);
			continue;
		}
		do
			handle_wake_up();
		while (load(top.wake) && !seam_thread_should_stop());
	}
}

int mox_packet_thread_init(void)
{
	packet_thread_top &top = g_packet_thread_top;

	if (mox_packet_thread_init_ok)
		return 0;
	seam_waitqueue_init();
	top.task = seam_thread_create(mox_packet_copy_task, nullptr, "packet-copy");
	if (seam_task_invalid(top.task)) {
		mox_printk(MOX_KERN_INFO "CAN NOT CREATE PACKET-COPY-THREAD !\n");
		top.task = nullptr;
		return -1;
	}
	for (u8 &byte : top.pending)
		store(byte, u8{ 0 });
	mox_packet_thread_setup(top.task);
	seam_thread_wake(top.task);
	mox_packet_thread_init_ok = 1;
	return 0;
}

u8 mox_packet_thread_had_init(void)
{
	return mox_packet_thread_init_ok;
}

void mox_packet_thread_setup(task_struct *task)
{
	/*
	 * A priority that the policy does not have: the kernel refuses the
	 * request and the thread stays an ordinary one. Intended; a real-time
	 * copy thread would starve the daemons that it serves.
	 */
	seam_thread_set_normal(task, 100);
	seam_thread_wake(task);
}

void mox_packet_thread_deinit(void)
{
	packet_thread_top &top = g_packet_thread_top;

	if (!mox_packet_thread_init_ok || seam_task_invalid(top.task))
		return;
	store(top.wake, 1u);
	seam_wake_up(&top.wait_queue);
	seam_thread_stop(top.task);
	top.task = nullptr;
	mox_packet_thread_init_ok = 0;
}

void mox_packet_dump_thread(void)
{
	REPORT_LINE("\n-------------PACKET-COPY-THREAD---------------\n");
	REPORT_LINE("scheduled:          %lu\n",
		    static_cast<unsigned long>(load(g_packet_thread_debug.scheduled)));
	REPORT_LINE("Alloc skb failed:   %lu\n",
		    static_cast<unsigned long>(load(g_packet_thread_debug.alloc_skb_failed)));
}
} // extern "C"
