// SPDX-License-Identifier: GPL-2.0-only
// What must hold of the libraries when no call runs, whatever ran at the same time before: they
// hold exactly what the reference files for the rules that they list.
#pragma once

#include "module_fixture.h"

namespace fuzz {

struct RestCheck {
	// Allocations have failed since the sockets were opened: keys and copies may be missing.
	bool failed = false;
	// Dumps that are open: each may hold the socket whose rule it has begun.
	u32 dumps = 0;

	// Every rule of these sockets is where its record says, and nothing else is.
	void run(const std::vector<std::unique_ptr<Sock>> &socks) const;
};

// The library of a location as the reference holds one, in the module's order. Owners are places
// in the list.
oracle::Library library_of(u32 location, const std::vector<std::unique_ptr<Sock>> &socks,
			   std::vector<std::unique_ptr<oracle::Regular>> &storage);

} // namespace fuzz
