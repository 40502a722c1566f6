/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The sockets of an LLDP agent: one that takes LLDP off the forwarding pipeline, and one for each port that sends out
 * of it. Everything that is particular to family 17 is here and in the library (mox/capture_socket.h); read socket.cc
 * for the order in which a daemon sets its options, and why.
 */
#ifndef LLDPAGENT_SOCKET_H
#define LLDPAGENT_SOCKET_H

#include "agent.h"

#include "mox/capture_socket.h"

namespace lldp {

/** Sends out of the ports. */
class Senders : public Wire {
public:
	/** Throws mox::SocketError, for instance for an index that the platform does not have. */
	explicit Senders(const std::vector<Port> &ports,
			 mox::SocketCalls &calls = mox::SocketCalls::system());

	/** The address of each port, in the order of the ports. */
	const std::vector<Mac> &macs() const { return macs_; }

	int send(std::uint32_t ifindex, View frame) override;

private:
	std::map<std::uint32_t, mox::PacketSocket> sockets_;
	std::vector<Mac> macs_;
};

/** A frame that came in. */
struct Received {
	View frame;            /**< what fitted into the buffer, that is: at most its size */
	std::uint32_t ifindex; /**< the platform's index of the interface it came in on */
};

/** Takes the LLDP frames of the ports off the pipeline as long as it exists. */
class Listener {
public:
	/** Throws mox::SocketError. */
	explicit Listener(const std::vector<Port> &ports,
			  mox::SocketCalls &calls = mox::SocketCalls::system());

	/** For poll. */
	int fd() const { return socket_.fd(); }

	/** The next frame, stored in buffer; nothing when there is none now. Throws mox::SocketError. */
	std::optional<Received> receive(std::span<std::uint8_t> buffer);

private:
	mox::CaptureSocket socket_;
};

} // namespace lldp

#endif
