// SPDX-License-Identifier: GPL-2.0-only
/* A socket in reports. */
#pragma once

#include "seam/seam.h"

extern "C" {
/** The socket's report. Its rule stands still: the socket lock is held. Process. */
void mox_packet_sock_dump(mox_packet_sock *po);
}

namespace mox {

/**
 * The lines of a socket's report before its rule's items, and those behind them.
 * references: those that the report itself holds on the socket. Any context.
 */
void dump_socket_begin(mox_packet_sock *po);
void dump_socket_end(mox_packet_sock *po, u32 references);

} // namespace mox
