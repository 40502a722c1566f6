// SPDX-License-Identifier: GPL-2.0-only
/*
 * Budgets: how much kernel memory rules may take, and how much work they may be for a
 * frame. What a rule takes at most, its filing in a library included, is charged to its
 * socket when a value is added, so that filing never reaches a limit.
 *
 *   who                           memory, of the machine's   work, in instructions
 *   a socket                      1/32                       that of all
 *   all sockets                   1/8                        kFrameWork
 *   of that, without              1/16                       kFrameWork / 2
 *   CAP_NET_ADMIN
 *
 * When a limit is reached: -ENOMEM, counted.
 *
 * Work is what a hook spends, with bottom halves off, on a frame that satisfies all of a
 * rule's conditions but one. The index finds rules of one condition by its value, and they
 * cost other frames nothing. Of several conditions it looks up one; whoever makes many
 * rules share that one has each of them compared with the frame.
 */
#pragma once

#include "seam/seam.h"

extern "C" {
/* Bytes and work that are charged to all sockets, and calls that a budget refused. */
extern u32 g_packet_rule_bytes;
extern u32 g_packet_rule_work;
extern u32 g_packet_rule_refused;
}

namespace mox {

/** Instructions that rules may cost a frame which none of them matches. */
inline constexpr u32 kFrameWork = 50000;

/** Set the limits: those of memory by the machine's, and that of work. Process. */
void budget_init(u32 frame_work = kFrameWork);

/** The two budgets. */
enum class BudgetOf { kBytes, kWork };

/** The state of a budget: what is used, its limit, and the calls that it refused. */
struct BudgetState {
	u32 used;
	u32 all;
	u32 unprivileged;
	u32 socket;
	u32 refused;
};
BudgetState budget_state(BudgetOf which);

/**
 * Charge a socket for a rule that gets so many further values of a type; 0 for an
 * item without data. The socket lock is held. 0, or -ENOMEM, counted, with nothing
 * changed. Process.
 */
int budget_charge(mox_packet_sock *po, u32 type, u32 values);

/** Whether a charge for so many further values would be accepted now. The socket lock is held. */
bool budget_fits(const mox_packet_sock *po, u32 type, u32 values);

/** Charge a socket for its rule as it is now, which is less than before. The socket lock is held. */
void budget_settle(mox_packet_sock *po);

/** Give back what is charged to a socket that is being released. */
void budget_release(mox_packet_sock *po);

} // namespace mox
