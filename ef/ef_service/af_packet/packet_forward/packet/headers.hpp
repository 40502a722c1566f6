// SPDX-License-Identifier: GPL-2.0-only
/*
 * The headers of a frame, for traces. Unlike pkt_info it holds copies, so that it
 * outlives the frame, and it reads the frame's own EtherType, so that it also serves
 * frames that a program sends.
 */
#pragma once

#include "packet/efbuff.hpp"

namespace mox {

struct FrameHeaders {
	u32 length;
	u32 ifindex; /* it came in on, or goes out of */
	u16 vlan;    /* id; 0 without one */
	bool has_macs;
	u8 dst_mac[6];
	u8 src_mac[6];
	u16 ether_type;  /* host order; 0 without one */
	u8 address_size; /* of an IP packet: 4 or 16; else 0 */
	u8 src_address[16];
	u8 dst_address[16];
	u8 ip_protocol;
	bool has_ports;
	u16 src_port; /* host order */
	u16 dst_port;
};

/** Read an efbuff's headers; what the frame is too short for is 0. Any. */
FrameHeaders read_headers(const void *efbuff);

} // namespace mox
