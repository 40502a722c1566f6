/* SPDX-License-Identifier: MIT */
/*
 * The whole of mox-relay but where its sockets and interfaces come from.
 *
 * libmox-compat starts it as "mox-relay PROGRAM TYPE PROTOCOL" with two descriptors (wire.h). It sends one reply that
 * says whether the socket is open, and lives until the program's descriptor is closed.
 */
#ifndef MOX_RELAY_PROGRAM_H
#define MOX_RELAY_PROGRAM_H

#include "relay/interfaces.h"

#include "mox/packet_socket.h"

namespace relay {

/** Returns the exit status: 0 the program has closed its socket, 1 the socket could not be opened, 2 wrong use. */
int relay_main(int argc, char **argv, mox::SocketCalls &calls, InterfaceSource &source);

} // namespace relay

#endif
