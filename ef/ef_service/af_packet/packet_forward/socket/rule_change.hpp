// SPDX-License-Identifier: GPL-2.0
/* Changing a socket's rule: out of its library, changed, and back in. */
#pragma once

#include "base/socket_record.hpp"
#include "rules/filing.hpp"

namespace mox {

/** Whether a rule that was withdrawn is entered again. */
enum class ReEnter { kAlways, kWithLocation, kNever };

/** Which lock of the socket guards the change, and whether it is held while the rule is withdrawn. */
enum class ChangeLock {
	kRule, /* rule_lock, held throughout */
	kBind, /* bind_lock, dropped for the withdrawal */
};

/**
 * Withdraw the socket's rule if it is running, change it, and enter it again.
 * change() runs under the lock, never sleeps, and returns a ReEnter. The caller
 * holds the socket lock: it keeps a second caller, with the other lock, from
 * withdrawing the same rule twice.
 */
template <ChangeLock which, typename Change> void change_rule(mox_packet_sock *po, Change change)
{
	constexpr bool kBind = which == ChangeLock::kBind;
	seam_spinlock *lock = kBind ? &po->bind_lock : &po->rule_lock;

	if constexpr (kBind) {
		bool running;
		{
			SpinGuard guard(lock);
			running = po_flag(po, PO_RUNNING);
			if (running)
				po_clear_running(po);
		}
		if (running)
			mox_packet_remove_regular(&po->regular);
	}
	SpinGuard guard(lock);
	if (!kBind && po_flag(po, PO_RUNNING)) {
		mox_packet_remove_regular(&po->regular);
		po_clear_running(po);
	}
	ReEnter re_enter = change();
	if (re_enter == ReEnter::kNever)
		return;
	if (re_enter == ReEnter::kWithLocation && po->regular.location == PACKET_NONE_LOC)
		return;
	if constexpr (kBind)
		po_set_running(po);
	mox_packet_add_regular(&po->regular);
	if constexpr (!kBind)
		po_set_running(po);
}

} // namespace mox
