/* SPDX-License-Identifier: MIT */
/*
 * One packet socket of a program: frames from the capture sockets to the program's descriptor, requests of the program
 * the other way.
 *
 * A frame that the program's filter refuses is never sent to the descriptor. While the program does not read, the relay
 * stops reading as well, so that frames wait, and are counted when there is no room, in the capture socket.
 */
#ifndef MOX_RELAY_RELAY_H
#define MOX_RELAY_RELAY_H

#include "relay/captures.h"
#include "relay/describe.h"
#include "relay/options.h"
#include "wire.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace relay {

/** Bytes of frames, with their bookkeeping, that may wait in the program's descriptor (SO_SNDBUF of the relay's end). */
inline constexpr int kChannelBytes = 262144;
/** Frames of one capture socket that are passed on before requests are looked at again. */
inline constexpr int kBatch = 32;

class Relay {
public:
	/**
	 * Opens the capture sockets and starts to capture, if the socket has a protocol. channel: the relay's end of
	 * the pair, not closed here. settings has to stay valid. Throws mox::SocketError.
	 */
	Relay(const SocketIdentity &identity, const Settings &settings, mox::SocketCalls &calls,
	      InterfaceSource &source, int channel);

	/** Works until the last process has closed the descriptor. Throws mox::SocketError when a capture socket fails. */
	void run();

private:
	void serve_request();
	Answer answer(const mox_wire_request &request, std::span<const std::uint8_t> data);
	Answer bind(std::span<const std::uint8_t> address);
	Answer name();
	Answer send(std::span<const std::uint8_t> address, std::span<const std::uint8_t> frame);

	bool read_frame(Captures::Capture &capture);
	void pass(const Described &frame, std::size_t length);
	void drain(Captures::Capture &capture);

	const SocketIdentity identity_;
	const Settings &settings_;
	Interfaces interfaces_;
	Captures captures_;
	Options options_;
	const int channel_;
	bool ended_ = false;
	std::uint16_t protocol_; // host order
	std::uint32_t ifindex_ = 0;

	// The frame that waits for room in the descriptor; it is in buffer_.
	bool waiting_ = false;
	Described waiting_frame_;
	std::size_t waiting_length_ = 0;

	std::array<std::uint8_t, kHeadroom + MOX_WIRE_MAX_FRAME> buffer_;
	std::vector<std::uint8_t> request_;
};

} // namespace relay

#endif
