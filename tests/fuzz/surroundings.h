// SPDX-License-Identifier: GPL-2.0-only
// What surrounds the calls of a case, as its bytes choose it: debug lines, capabilities, a pending
// signal, memory, a call that fails, and a process in a virtual switch device.
#pragma once

#include "fake/kernel.h"
#include "input.h"

namespace fuzz {

class World {
public:
	// Takes 1 byte, and up to 6 more.
	explicit World(Input &input);
	// Everything is as it was, so that the case can be taken down.
	~World();
	World(const World &) = delete;
	World &operator=(const World &) = delete;

private:
	bool fails(fake::Fail call);

	fake::Fail failing_ = fake::Fail::kCount;
	unsigned fails_after_ = 0; // calls of that kind before the first one that fails
	unsigned failures_ = 0;    // that are left
	unsigned signal_after_ = 0;
};

// What the module counts on to succeed: the caller of a hook cannot answer a failure.
bool may_fail(fake::Fail call);

} // namespace fuzz
