/* SPDX-License-Identifier: MIT */
/*
 * A captured frame as an ordinary packet socket reports it: address, VLAN tag, and where its data begins.
 */
#ifndef MOX_RELAY_DESCRIBE_H
#define MOX_RELAY_DESCRIBE_H

#include "relay/filter.h"
#include "relay/interfaces.h"
#include "wire.h"

#include "mox_packet.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace relay {

/** Bytes that have to be free in front of a frame: for the block of the filter, a second tag, and a moved header. */
inline constexpr std::size_t kHeadroom = 64;

/** How the socket receives. */
struct Reception {
	bool cooked = false;         /**< SOCK_DGRAM: without the link header */
	bool leaving = false;        /**< the location is that of frames that leave */
	std::uint32_t report_as = 0; /**< index to report; 0: the one where the frame came in */
};

struct Described {
	mox_wire_frame head{};
	FrameFacts facts{};
	std::span<std::uint8_t> data; /**< what the program receives, before its filter cuts it */
};

/**
 * Describes a frame, in front of which kHeadroom bytes are free. Puts a second VLAN tag, which the platform moves into
 * the control record, back into a frame with link header; the first tag is reported as PACKET_AUXDATA reports it.
 */
Described describe(std::span<std::uint8_t> frame, const mox_packet_ctrl_info &control,
		   std::int64_t seconds, std::uint32_t nanoseconds, const Reception &reception,
		   Interfaces &interfaces);

/** Whether a socket of this protocol (host order) receives a frame of that one; the rule has matched already. */
bool protocol_matches(std::uint16_t bound, std::uint16_t frame);

} // namespace relay

#endif
