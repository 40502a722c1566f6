// SPDX-License-Identifier: GPL-2.0
/*
 * Budgets: how much kernel memory rules may take. What a rule takes at most, its
 * filing in a library included, is charged to its socket when a value is added, so
 * that filing never meets a limit.
 *
 *   who                           limit                  when it is reached
 *   a socket                      1/32 of the memory     -ENOMEM, counted
 *   all sockets                   1/8                    -ENOMEM, counted
 *   of that, without              1/16                   -ENOMEM, counted
 *   CAP_NET_ADMIN
 */
#pragma once

#include "seam/seam.h"

extern "C" {
/* Bytes that are charged to all sockets, and calls that a budget refused. */
extern u32 g_packet_rule_bytes;
extern u32 g_packet_rule_refused;
}

namespace mox {

/** Read the machine's memory, on which the budgets depend. Process. */
void budget_init();

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
