// SPDX-License-Identifier: GPL-2.0-only
/* The copy thread, which drains the per-CPU queues into the sockets. */
#pragma once

#include "base/log.hpp"
#include "locations/table.hpp"

extern "C" {
extern u8 mox_packet_thread_init_ok;

/** Mark a location (1 to 8) pending and wake the thread, unless it is draining. Any. */
void mox_packet_thread_active(u32 location);
/** Start the thread, once. 0, or -1 after a log line. Process. */
int mox_packet_thread_init(void);
u8 mox_packet_thread_had_init(void);
/** Set a new thread's scheduling and wake it. Process. */
void mox_packet_thread_setup(task_struct *task);
/** Stop the thread, if it runs, and wait for its end. Process. */
void mox_packet_thread_deinit(void);
/** Print the thread's counters. Any. */
void mox_packet_dump_thread(void);
/** The thread's body. */
int mox_packet_copy_task(void *unused);
}

namespace mox {

/** Print that the running thread will look at a location, if that is asked for; wake it. Any. */
void thread_trace_running(u32 location);
void thread_wake();

/** mox_packet_thread_active for a location that is known to have a queue. Any. */
template <u32 location> inline void thread_activate()
{
	packet_thread_top &top = g_packet_thread_top;

	store(top.pending[location_row(location).queue], u8{ 1 });
	seam_smp_mb();
	if (load(top.running)) {
		if (debug_on())
			thread_trace_running(location);
		return;
	}
	/* Another hook has woken the thread, which will look at the byte: see handle_wake_up. */
	if (!load(top.wake))
		thread_wake();
}

} // namespace mox
