// SPDX-License-Identifier: GPL-2.0-only
/*
 * Times of arrival. No byte of an efbuff is free for them, so they travel in a ring beside
 * each queue: the entry of a frame has the frame's number on its queue. Hooks write them
 * while there is a user: a socket with SO_TIMESTAMP or the like, or a trace.
 *
 * A ring has as many entries as its queue may hold, so none is overwritten that still
 * counts. An entry is the lower half of the monotonic clock's 64-ns ticks: it is exact for a
 * frame that waits no more than 274 seconds.
 */
#pragma once

#include "receive/queue.hpp"

namespace mox {

/* Nanoseconds of a tick, as a power of two. */
inline constexpr u32 kArrivalShift = 6;

/** What an arrival is, when nothing is known of it. */
inline constexpr u64 kNoArrival = 0;

/** Prepare, once: no times are needed yet. Process. */
void arrivals_init();
/** Free the rings; no hook and no delivery runs any more. Process. */
void arrivals_deinit();

/**
 * One more, or one less, needs the times. The first makes the rings: false, and not
 * counted, without memory for them. They stay until arrivals_deinit. Process.
 */
bool arrivals_need();
void arrivals_release();

/** Whether hooks note times of arrival. Any. */
inline bool arrivals_needed(const hook_cpu *here)
{
	return load(here->arrivals) != nullptr;
}

/** Note the time for a frame that is about to be queued. On the queue's CPU, bottom halves off. */
void arrival_note(const hook_cpu *here, u32 queue, u32 frame);

/**
 * The monotonic time in nanoseconds at which a frame of a queue came, or kNoArrival. now:
 * the current monotonic time. The frame still counts as held.
 */
u64 arrival_of(const efbuff_queue *queue, u32 frame, u64 now);

} // namespace mox
