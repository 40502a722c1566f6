// SPDX-License-Identifier: GPL-2.0-only
// The kernel's own failure injection, one call at a time: the n-th slab allocation or user copy that a thread makes fails.
#pragma once

#include <sys/types.h>

namespace vm {

/// Whether the kernel can do it (the checked one can).
bool can_inject_failures();

/// Whether copies from and to user space fail, too: kernels since 5.10 do that.
bool user_copies_can_fail();

/// One file /proc/.../fail-nth: the calling thread's, or another task's.
class FailNth {
public:
	FailNth();
	explicit FailNth(pid_t task);
	~FailNth();
	FailNth(const FailNth &) = delete;

	/// The nth allocation or user copy from now on fails.
	void arm(unsigned nth);
	/// Ends it; what was left of the count: 0 when the failure took place.
	unsigned disarm();

private:
	int fd_;
};

/// While it exists, allocations of the calling thread fail as the kernel's failslab draws them.
class AllocationsFail {
public:
	AllocationsFail();
	~AllocationsFail();
	AllocationsFail(const AllocationsFail &) = delete;

private:
	/// Open from the start: with failing allocations it might not open any more.
	int fd_;
};

/// Runs call() with its first, its second, ... allocation failing, and after() behind each, until one run hits no
/// failure any more. The number of failures injected; -1 when that never came to an end.
template <class Call, class After>
int with_each_failure(Call call, After after, unsigned limit = 400)
{
	FailNth injector;
	for (unsigned nth = 1; nth <= limit; ++nth) {
		injector.arm(nth);
		call();
		bool injected = injector.disarm() == 0;
		after(injected);
		if (!injected)
			return int(nth) - 1;
	}
	return -1;
}

} // namespace vm
