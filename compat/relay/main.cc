/* SPDX-License-Identifier: MIT */
/* The program mox-relay, with the sockets and interfaces of the system. */
#include "relay/interfaces.h"
#include "relay/program.h"

#include "mox/packet_socket.h"

int main(int argc, char **argv)
{
	relay::InterfaceSource source;
	return relay::relay_main(argc, argv, mox::SocketCalls::system(), source);
}
