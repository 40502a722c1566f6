// SPDX-License-Identifier: GPL-2.0-only
#include "socket/closed.hpp"

namespace mox {
namespace {

/* Under their own mutex: nothing else is locked while it is held. */
constinit seam_mutex g_closed_mutex{};
constinit ClosedSockets g_closed[kClosedRows]{};

u32 row_of(u32 location)
{
	return location_valid(location) ? location : kLocationCount;
}

} // namespace

void closed_init()
{
	seam_closed_mutex_init(&g_closed_mutex);
	for (ClosedSockets &row : g_closed)
		row = {};
}

void closed_add(const mox_packet_sock *po)
{
	MutexGuard guard(&g_closed_mutex);
	ClosedSockets &row = g_closed[row_of(po->regular.location)];

	row.sockets++;
	for (u32 number = 0; number < MOX_SOCKET_TOTALS; number++)
		row.totals[number] += read_total(po->ledger.totals[number]);
}

ClosedSockets closed_read(u32 row)
{
	MutexGuard guard(&g_closed_mutex);

	return g_closed[row];
}

} // namespace mox
