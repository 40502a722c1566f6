// SPDX-License-Identifier: GPL-2.0-only
// The module's copy thread, as a task of the kernel.
#pragma once

#include <sys/types.h>

namespace vm {

/// Its process number, or -1.
pid_t copy_thread();

/// The copy thread on one CPU, for the life of the object.
class CopyThreadOn {
public:
	explicit CopyThreadOn(int cpu);
	~CopyThreadOn();
	CopyThreadOn(const CopyThreadOn &) = delete;
	CopyThreadOn &operator=(const CopyThreadOn &) = delete;

private:
	const pid_t pid_;
};

} // namespace vm
