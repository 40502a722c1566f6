/* SPDX-License-Identifier: GPL-2.0-only */
#include "common/ending.h"

#include <poll.h>

#include <ctime>

namespace tool {
namespace {

void request_stop(int)
{
	stop_requested = 1;
}

} // namespace

volatile std::sig_atomic_t stop_requested;

sigset_t catch_ending_signals(std::initializer_list<int> signals)
{
	sigset_t ending, before;
	sigemptyset(&ending);
	for (int number : signals) {
		struct sigaction action {};
		action.sa_handler = request_stop;
		sigaction(number, &action, nullptr);
		sigaddset(&ending, number);
	}
	sigprocmask(SIG_BLOCK, &ending, &before);
	for (int number : signals)
		sigdelset(&before, number);
	return before;
}

void deliver_pending_signals(const sigset_t &waiting)
{
	const timespec none{};
	ppoll(nullptr, 0, &none, &waiting);
}

} // namespace tool
