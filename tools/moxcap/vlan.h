/* SPDX-License-Identifier: GPL-2.0-only */
/* VLAN tags, in frames and in the control record of a received frame. */
#ifndef MOXCAP_VLAN_H
#define MOXCAP_VLAN_H

#include "mox_packet.h"

#include <cstdint>

namespace moxcap {

/** EtherTypes of a customer and a service tag. */
constexpr std::uint16_t kVlanTag = 0x8100, kServiceTag = 0x88a8;
constexpr std::uint16_t kVlanIdMask = 0xfff;

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

} // namespace moxcap

#endif
