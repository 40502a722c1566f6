/* SPDX-License-Identifier: GPL-2.0-only */
/* How the programs end: by a signal, or at once with a text. Independent of sockets. */
#ifndef MOX_TOOLS_COMMON_ENDING_H
#define MOX_TOOLS_COMMON_ENDING_H

#include <csignal>
#include <cstdio>
#include <initializer_list>

namespace tool {

/** Not zero when the program shall end: a caught signal sets it, and so does an Output that cannot be written. */
extern volatile std::sig_atomic_t stop_requested;

/**
 * Lets each of the signals set stop_requested, and blocks them but where the program waits, so that none is lost
 * between a test of stop_requested and the wait. Returns the mask for ppoll and the like while waiting.
 */
sigset_t catch_ending_signals(std::initializer_list<int> signals);

/**
 * Runs the handlers of the caught signals that are pending, and returns immediately. waiting: what
 * catch_ending_signals returned. The kernel delivers no signal in a ppoll that finds a descriptor ready, so a loop
 * whose input may never pause calls this once a batch.
 */
void deliver_pending_signals(const sigset_t &waiting);

/** Prints the text of a command line that ends the program (help, version, an error) and returns the exit status. */
template <typename Ending> int end_at_once(const Ending &ending)
{
	std::fputs(ending.text.c_str(), ending.status == 0 ? stdout : stderr);
	return ending.status;
}

} // namespace tool

#endif
