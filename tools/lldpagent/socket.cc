/* SPDX-License-Identifier: GPL-2.0-only */
#include "socket.h"

#include "mox/error.h"
#include "mox_packet.h"

#include <cerrno>
#include <utility>

namespace lldp {
namespace {

/** A socket that sends out of the port. The errors name the port. */
mox::PacketSocket open_sender(const Port &port, mox::SocketCalls &calls, std::vector<Mac> &macs)
{
	try {
		// A sender names its interface once, by bind; a send without an address then leaves by it. It has no protocol,
		// which would become a rule, and no location: a socket without one captures nothing, so its queue, which no
		// one reads, stays empty.
		mox::PacketSocket socket(mox::SocketKind::kRaw, 0, calls);
		socket.bind(port.ifindex);

		// Once bound, getsockname returns the port's MAC address: no other interface to the platform is needed.
		std::optional<Mac> mac = socket.interface_mac();
		if (!mac)
			throw mox::SocketError(
				"interface " + std::to_string(port.ifindex) +
					" has no MAC address: it was removed just now",
				ENODEV);
		macs.push_back(*mac);
		return socket;
	} catch (const mox::SocketError &error) {
		throw mox::SocketError(port.name + ": " + error.what(), error.error());
	}
}

} // namespace

Senders::Senders(const std::vector<Port> &ports, mox::SocketCalls &calls)
{
	for (const Port &port : ports)
		sockets_.emplace(port.ifindex, open_sender(port, calls, macs_));
}

int Senders::send(std::uint32_t ifindex, View frame)
{
	auto socket = sockets_.find(ifindex);
	if (socket == sockets_.end())
		return ENXIO;
	// A raw socket: the frame begins with its MAC header. Without a control record the platform sends as it does by
	// default; one would name VLANs, WLAN ids or a source interface.
	return socket->second.try_send({ .bytes = frame });
}

// No protocol: it would become a rule value of its own, and this way all rules stand in one place.
Listener::Listener(const std::vector<Port> &ports, mox::SocketCalls &calls)
	: socket_(mox::SocketKind::kRaw, 0, calls)
{
	// 1. The rules, while there is no location: a rule that is not complete yet would capture too much. Types are
	//    ANDed: LLDP frames, to the neighbours' group address, from our ports and no others (binding restricts
	//    nothing). The MAC address comes first: the first type is the one under which the hook looks a frame up, and
	//    the lowest number decides when rules of other daemons match the same frame.
	mox::Rule address(PACKET_DEST_MAC_EQUAL);
	address.add_element(kNearestBridge);
	mox::Rule protocol(PACKET_ETH_PROT_EQUAL);
	protocol.add_number(kEtherType);
	mox::Rule interfaces(PACKET_SRC_INTF_EQUAL);
	for (const Port &port : ports)
		interfaces.add_number(port.ifindex);
	for (const mox::Rule *rule : { &address, &protocol, &interfaces })
		socket_.add_rule(*rule);

	// 2. The control record, before the first frame can come: it has the interface.
	socket_.set_control_info(true);

	// 3. Fetch: LLDP ends at the neighbour, so the platform must not flood it; other sockets that ask for it (a
	//    monitor) get it as well, which a trap would prevent.
	socket_.set_treatment(PACKET_FETCH);

	// 4. The location last: with it the capture starts. RESV is where frames to reserved group addresses pass.
	socket_.set_location(PACKET_RESV_LOC);
}

std::optional<Received> Listener::receive(std::span<std::uint8_t> buffer)
{
	auto frame = socket_.receive(buffer);
	if (!frame)
		return std::nullopt;
	return Received{ frame->bytes, frame->control->pkt_ifx };
}

} // namespace lldp
