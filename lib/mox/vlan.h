/* SPDX-License-Identifier: MIT */
/*
 * VLAN tags, in frames and in the control record of a received frame. The platform takes the tags off a frame: they
 * are in the record alone, unless the frame came with more tags than it takes.
 */
#ifndef MOX_VLAN_H
#define MOX_VLAN_H

#include "mox/export.h"
#include "mox_packet.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace mox {

/** EtherTypes of a customer and a service tag. */
constexpr std::uint16_t kVlanTag = 0x8100, kServiceTag = 0x88a8;
constexpr std::uint16_t kVlanIdMask = 0xfff;
/** Bytes of one tag, and how many tags the record has. */
constexpr std::size_t kVlanTagSize = 4, kMostVlanTags = 2;

/** Whether a tag begins with this EtherType. */
constexpr bool is_vlan_protocol(std::uint16_t ether_type)
{
	return ether_type == kVlanTag || ether_type == kServiceTag;
}

/** The tags that the platform took off a frame. */
struct VlanTags {
	std::uint16_t id = 0;
	std::uint16_t priority = 0;
	std::uint16_t inner_id = 0; /**< 0: no inner tag */

	bool has_outer() const { return id != 0 || priority != 0; }
};

/** Reads them from the record, whose priority stands in bits 0 to 2 and the id above bit 3. */
constexpr VlanTags vlan_tags(const mox_packet_ctrl_info &control)
{
	return { static_cast<std::uint16_t>(control.vlan >> 4),
		 static_cast<std::uint16_t>(control.vlan & 7),
		 static_cast<std::uint16_t>(control.inner_vlan & kVlanIdMask) };
}

/** Tags as the bytes of a frame. */
struct VlanTagBytes {
	std::array<std::uint8_t, kMostVlanTags * kVlanTagSize> bytes{};
	std::size_t length = 0;
};

/**
 * The tags of the record that the frame's bytes lack. They belong before the EtherType field of the frame.
 *
 *   ether_type   of that field, host order
 *   tag_control  the two bytes that follow it, host order; nothing where the frame's bytes end before them
 *
 * The outer tag is 0x88a8 if another tag follows, otherwise 0x8100. The record has no priority of the inner tag and no
 * DEI bit: they are 0. An outer tag of id 0 and priority 0 means that there was none.
 */
MOX_API VlanTagBytes missing_vlan_tags(const mox_packet_ctrl_info &control,
				       std::uint16_t ether_type,
				       std::optional<std::uint16_t> tag_control);

/**
 * Puts the missing tags of an Ethernet frame back in place. buffer holds the frame in its first `captured` bytes. Returns
 * the bytes that the frame grew by, 0 to 8. What then has no room at the buffer's end is cut off: the frame has
 * min(captured + result, buffer.size()) bytes. A frame whose bytes end before its EtherType stays as it is.
 */
MOX_API std::size_t restore_vlan_tags(std::span<std::uint8_t> buffer, std::size_t captured,
				      const mox_packet_ctrl_info &control);

} // namespace mox

#endif
