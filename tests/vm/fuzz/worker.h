// SPDX-License-Identifier: GPL-2.0-only
// A process that plays cases on one CPU, with few privileges or none.
#pragma once

#include <atomic>
#include <vector>

#include "calls.h"

namespace fuzz {

/// What all workers and the test share; in memory that processes share.
struct Progress {
	struct Worker {
		std::atomic<uint64_t> cases, calls, kept, steps;
		std::atomic<bool> failed;
	};
	std::atomic<bool> stop;
	Worker workers[4];
};

/// How a worker finds its cases.
struct Plan {
	unsigned cpu = 0;
	unsigned seed = 0;
	Families families;
	/// Cases to play again, in this order; none: the worker makes its own.
	std::vector<Bytes> cases;
	/// Where each case is written before it is played, as a line of a file of cases; -1: nowhere.
	int log = -1;
	/// Whether the worker keeps CAP_NET_ADMIN, CAP_NET_RAW and CAP_SYS_RESOURCE; otherwise it has
	/// none at all.
	bool operates = false;
};

/// Runs in a process of its own until progress.stop; never returns.
[[noreturn]] void work(const Plan &plan, Progress &progress);

} // namespace fuzz
