// SPDX-License-Identifier: GPL-2.0-only
// The CPUs of the machine. Tests are written for four of them, numbered from 0, and run on machines with fewer too.
#pragma once

#include <sched.h>

namespace vm {

/// How many CPUs are present, which is how many the module's reports list, online or not.
int present_cpus();

/// The online CPU that stands for CPU `cpu` of a test: that one, or on a machine with fewer CPUs the remainder of the
/// division by their number. -1, which is any CPU, stays -1.
int cpu_for(int cpu);

/// That CPU for an affinity; with -1 all that are present.
cpu_set_t affinity_for(int cpu);

} // namespace vm

/// Leaves a test that one CPU cannot run, with the reason, which says what it needs a second CPU for.
#define VM_NEEDS_TWO_CPUS(reason)                                                       \
	do {                                                                            \
		if (vm::cpu_for(1) == 0)                                                \
			GTEST_SKIP() << "this machine has one CPU online, and " reason; \
	} while (0)
