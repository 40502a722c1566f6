// SPDX-License-Identifier: GPL-2.0-only
/*
 * Times of arrival for sockets with SO_TIMESTAMP and the like: the time at the hook. The
 * kernel does not tell when a program sets these options, so each of the family's own
 * calls looks at them. Frames that were queued before have no time: the kernel then gives them
 * that of reading.
 */
#pragma once

#include "seam/seam.h"

namespace mox {

/** Change a socket to what its options say now. Process. */
void stamps_change(mox_packet_sock *po, bool wanted);
/** A socket that is being released needs them no more. Process. */
void stamps_release(mox_packet_sock *po);

/** Look at the options of a socket. Process. */
inline void stamps_look(mox_packet_sock *po)
{
	const int wanted = seam_sk_stamped(reinterpret_cast<sock *>(&po->sk));

	if (wanted != __atomic_load_n(&po->stamped, __ATOMIC_RELAXED)) [[unlikely]]
		stamps_change(po, wanted != 0);
}

} // namespace mox
