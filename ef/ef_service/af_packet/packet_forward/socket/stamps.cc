// SPDX-License-Identifier: GPL-2.0-only
#include "socket/stamps.hpp"

#include "base/sync.hpp"
#include "receive/arrivals.hpp"

namespace mox {

void stamps_change(mox_packet_sock *po, bool wanted)
{
	/* Several threads may look at one socket: one of them makes the change. */
	u8 expected = wanted ? 0 : 1;

	/* Without memory for the times the next look tries again. */
	if (wanted && !arrivals_need())
		return;
	const bool changed = __atomic_compare_exchange_n(&po->stamped, &expected,
							 static_cast<u8>(wanted), false,
							 __ATOMIC_RELAXED, __ATOMIC_RELAXED);
	if (changed != wanted)
		arrivals_release();
}

void stamps_release(mox_packet_sock *po)
{
	if (load(po->stamped))
		stamps_change(po, false);
}

} // namespace mox
