// SPDX-License-Identifier: GPL-2.0-only
/* Changing a socket's rule: out of its library, changed, and back in. */
#pragma once

#include "base/socket_record.hpp"
#include "rules/filing.hpp"
#include "socket/registry.hpp"

namespace mox {

/** Whether a rule that was withdrawn is entered again. */
enum class ReEnter { kAlways, kWithLocation, kNever };

inline void start_running(mox_packet_sock *po, seam_spinlock *lock)
{
	SpinGuard guard(lock);
	po_set_running(po);
}

inline void stop_running(mox_packet_sock *po, seam_spinlock *lock)
{
	SpinGuard guard(lock);
	po_clear_running(po);
}

/** Which lock of the socket is held while the rule's fields and the running flag change. */
enum class ChangeLock { kRule, kBind };

/** Notes that a change is under way, as long as it exists. */
class ChangeNote : Pinned {
public:
	ChangeNote() { registry_change_begins(); }
	~ChangeNote() { registry_change_ends(); }
};

/**
 * Withdraw the socket's rule if it is running, change it, and enter it again.
 * change(lock) takes the lock where it changes the rule, for some values at a
 * time, and returns a ReEnter. The caller holds the socket lock: no other change of
 * this rule comes in between. Process.
 */
template <ChangeLock which, typename Change> void change_rule(mox_packet_sock *po, Change change)
{
	constexpr bool kBind = which == ChangeLock::kBind;
	seam_spinlock *lock = kBind ? &po->bind_lock : &po->rule_lock;
	ChangeNote note;
	RuleChange library;

	if (po_flag(po, PO_RUNNING)) {
		/* Bind stops before it withdraws; the options do so afterwards. */
		if constexpr (kBind)
			stop_running(po, lock);
		library.remove(&po->regular);
		if constexpr (!kBind)
			stop_running(po, lock);
	}
	ReEnter re_enter = change(lock);
	if (re_enter == ReEnter::kNever)
		return;
	if (re_enter == ReEnter::kWithLocation && po->regular.location == PACKET_NONE_LOC)
		return;
	if constexpr (kBind)
		start_running(po, lock);
	library.add(&po->regular);
	if constexpr (!kBind)
		start_running(po, lock);
}

} // namespace mox
