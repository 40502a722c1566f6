/* SPDX-License-Identifier: GPL-2.0-only */
/* What capture files store of a frame, whatever their format: the header it lacks, and its VLAN tags. */
#ifndef MOXCAP_STORED_FRAME_H
#define MOXCAP_STORED_FRAME_H

#include "decode.h"
#include "mox_packet.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace moxcap {

/** A frame as the socket returned it. */
struct ReceivedFrame {
	std::span<const std::uint8_t> bytes; /**< all of it, or its beginning */
	std::size_t length = 0;              /**< of the whole frame */
	std::uint16_t ether_type = 0;        /**< host order; of the header that it lacks */
	bool has_header = true; /**< false: a raw socket's frame without a layer-2 header */
	const mox_packet_ctrl_info *control = nullptr; /**< null when there is none */
};

/** The same for a capture file. */
struct StoredFrame {
	std::span<const std::uint8_t> bytes; /**< what the file stores */
	std::size_t length = 0; /**< of the whole frame, its header and tags included */
};

/** Turns received frames into stored ones. */
class FrameStorer {
public:
	/** vlan_tags: whether the tags that the platform took off are put back. */
	FrameStorer(Layout layout, bool vlan_tags) : layout_(layout), vlan_tags_(vlan_tags) {}

	/** The most bytes by which a stored frame is longer than the received one. */
	std::size_t most_added() const;

	/**
	 * Adds what the frame lacks:
	 *
	 *  - with Layout::kNetwork Linux's cooked header, which has a field for the EtherType;
	 *  - with Layout::kEthernet and no header the one that the rules compared, of zero addresses with ether_type;
	 *  - the VLAN tags of the control record, unless the frame's bytes have them. The outer one is 0x88a8 if
	 *    another tag follows, otherwise 0x8100. The record has no priority of the inner tag and no DEI bit: they
	 *    are 0. An outer tag of id 0 and priority 0 means that there was none.
	 *
	 * The result's bytes are those of the frame, or this object's and then valid until the next call.
	 */
	StoredFrame store(const ReceivedFrame &frame);

private:
	Layout layout_;
	bool vlan_tags_;
	std::vector<std::uint8_t> scratch_;
};

} // namespace moxcap

#endif
