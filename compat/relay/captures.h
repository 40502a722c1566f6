/* SPDX-License-Identifier: MIT */
/*
 * The capture sockets of one packet socket of a program: one for each location of its settings. They follow the
 * protocol and interface that the program binds.
 */
#ifndef MOX_RELAY_CAPTURES_H
#define MOX_RELAY_CAPTURES_H

#include "relay/config.h"

#include "mox/capture_socket.h"

#include <cstdint>
#include <span>
#include <vector>

namespace relay {

class Captures {
public:
	struct Capture {
		std::uint32_t location;
		mox::CaptureSocket socket;
		std::vector<mox::Rule> rules; // in force
	};

	/** Opens the sockets; none captures yet. Throws mox::SocketError. */
	Captures(const Settings &settings, mox::SocketCalls &calls);

	/**
	 * Captures frames of a protocol (host order; ETH_P_ALL: all; 0: none) on an interface (0: all). Throws
	 * mox::SocketError; nothing is captured then.
	 */
	void select(std::uint16_t protocol, std::uint32_t ifindex);

	std::span<Capture> all() { return captures_; }

	/** Sends one frame with link header. Returns 0 or an errno. */
	int send(std::span<const std::uint8_t> frame, std::uint32_t ifindex);

	/** Frames that the sockets have dropped since the last call. */
	std::uint32_t take_drops();

	/** SO_RCVBUF of each. Returns 0 or an errno. */
	int set_receive_buffer(int bytes);
	/** Returns 0 or an errno. */
	int receive_buffer(int &bytes);

private:
	std::vector<mox::Rule> rules_for(const Capture &capture, std::uint16_t protocol,
					 std::uint32_t ifindex) const;

	const Settings &settings_;
	mox::SocketCalls &calls_;
	std::vector<Capture> captures_;
};

/** Whether a socket can be bound to the protocol (host order). */
bool protocol_is_open(std::uint16_t protocol);
/** What to say about one that is not, behind its number. */
inline constexpr const char *kOpenProtocols =
	" cannot be captured: an EtherType, ETH_P_ALL, ETH_P_802_3 and ETH_P_802_2 can";

} // namespace relay

#endif
