// SPDX-License-Identifier: GPL-2.0-only
/*
 * All capture sockets of all network namespaces, in the order in which they were opened,
 * for readers who take them a few at a time.
 */
#pragma once

#include "base/list.hpp"
#include "base/sync.hpp"

namespace mox {

/** Prepare an empty registry. Process. */
void registry_init();
/** Add a socket at the end. It stays until registry_remove. Process. */
void registry_add(mox_packet_sock *po);
/** Take out a socket that is being released, and add what it counted to its location. Process. */
void registry_remove(mox_packet_sock *po);

/**
 * A socket's rule is about to change, or has: each begin has its end. A list that is written
 * in between, even all of it, is of neither state. Any.
 */
void registry_change_begins();
void registry_change_ends();
/**
 * How often sockets came or went, or rules changed: never 0, and another number with each call
 * while a change is under way. Any.
 */
u32 registry_changes();

/** A place in the registry: behind the sockets that were opened up to serial. */
struct RegistryPlace {
	u64 serial = 0;
	/* Where that is as long as no socket has left since. */
	u32 departures = 0;
	list_head *link = nullptr;
};

/**
 * Calls visit(po) for the sockets behind a place until it returns false, or for
 * `most` of them, while none of them can be released: visit does not sleep and locks
 * nothing. Moves the place behind those for which it was true. Returns whether all sockets
 * were visited. Process.
 */
bool registry_visit(RegistryPlace *place, u32 most,
		    bool (*visit)(void *context, mox_packet_sock *po), void *context);

/** The number of sockets. Any. */
u32 registry_size();

} // namespace mox
