// SPDX-License-Identifier: GPL-2.0-only
/* What closed sockets have counted, by the location that their rule was of. */
#pragma once

#include "base/counters.hpp"
#include "locations/table.hpp"

namespace mox {

/** Rows of the table: the locations, and one for all numbers beyond them. */
inline constexpr u32 kClosedRows = kLocationCount + 1;

/** The sums of a row. */
struct ClosedSockets {
	u64 sockets;
	u64 totals[MOX_SOCKET_TOTALS]; /* by attribute, less 1 */
};

/** Prepare the lock, once. Process. */
void closed_init();
/** Add a socket that nothing counts for any more to the row of its location. Process. */
void closed_add(const mox_packet_sock *po);
/** A copy of a row. Process. */
ClosedSockets closed_read(u32 row);

} // namespace mox
