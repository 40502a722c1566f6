// SPDX-License-Identifier: GPL-2.0-only
/* The address of bind, getname, recvmsg and sendmsg. */
#pragma once

#include "seam/seam_types.h"

namespace mox {

/** The link-layer address (sockaddr_ll). */
struct link_layer_address {
	u16 family;
	u16 protocol; /* network order */
	u32 ifindex;
	u16 hardware_type;
	u8 packet_type;
	u8 address_len;
	u8 address[8];
};
static_assert(sizeof(link_layer_address) == 20);

/** Bytes of the address before the hardware address. */
inline constexpr u32 kAddressHead = 12;

} // namespace mox
