/* SPDX-License-Identifier: GPL-2.0-only */
/* A signal that is blocked and pending, for loops that have to take it while their input never pauses. */
#ifndef PENDING_SIGNAL_H
#define PENDING_SIGNAL_H

#include <csignal>

class PendingSignal {
public:
	/** Sets `stopped` when SIGUSR1 is delivered, and raises it where it is blocked. */
	PendingSignal()
	{
		stopped = 0;
		struct sigaction action {};
		action.sa_handler = [](int) { stopped = 1; };
		sigaction(SIGUSR1, &action, &before_);
		sigset_t blocked;
		sigemptyset(&blocked);
		sigaddset(&blocked, SIGUSR1);
		sigprocmask(SIG_BLOCK, &blocked, &waiting);
		raise(SIGUSR1);
	}
	~PendingSignal()
	{
		sigprocmask(SIG_SETMASK, &waiting, nullptr);
		sigaction(SIGUSR1, &before_, nullptr);
	}
	PendingSignal(const PendingSignal &) = delete;
	PendingSignal &operator=(const PendingSignal &) = delete;

	static inline volatile std::sig_atomic_t stopped;
	sigset_t waiting; /**< the mask that lets it in */

private:
	struct sigaction before_ {};
};

#endif
