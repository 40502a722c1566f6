// SPDX-License-Identifier: GPL-2.0-only
/*
 * The summaries of a packet that rules are matched against. Hooks and delivery
 * build them with the same code: a packet must look the same to both.
 */
#pragma once

#include "packet/efbuff.hpp"

/**
 * What the fast filters and the rule match read of a packet. Stays where it was
 * built: its addresses may lead into itself.
 */
struct alignas(64) pkt_info {
	const u8 *src_mac;
	const u8 *dst_mac;
	u16 eth_type;  /* network order */
	u16 snap_type; /* network order */
	u8 flags;      /* pkt_flag */
	u8 eapol_type;
	u8 ip_proto;
	u8 icmpv6_type;
	u16 dst_port; /* network order */
	u16 src_port; /* network order */
	u8 code;
	u8 sub_code;
	u16 arp_op; /* network order */
	u32 vlan;   /* the VLAN id's bits of the efbuff's VLAN word */
	u32 ifindex;
	u32 attr;
	u32 ipv4_dst; /* network order */
	const u8 *ipv6_dst;
	void *efbuff;
	/* Only where a frame ends within them: its MAC addresses, or its IPv6 destination. */
	u8 padded[16];
};
static_assert(sizeof(void *) != 4 || sizeof(pkt_info) == 64, "one cache line on the device");

/** The smaller summary of the WLAN location. */
struct pkt_wlan_info {
	u8 reserved;
	u8 eapol_type;
	u16 eth_type; /* network order */
	u32 ifindex;
	u32 attr;
	u32 flags; /* pkt_flag */
};

namespace mox {

namespace pkt_flag {
inline constexpr u32 kEapol = 0x02;
inline constexpr u32 kSnap = 0x04;
inline constexpr u32 kIpv4 = 0x08;
inline constexpr u32 kIpv6 = 0x10;
inline constexpr u32 kNoL2 = 0x20;
inline constexpr u32 kWlan80211 = 0x40;
inline constexpr u32 kWlanMgmt = 0x80;
inline constexpr u32 kWps = 0x100;
} // namespace pkt_flag

/** EtherTypes as they stand in a frame, read as a little-endian u16. */
namespace eth_type {
inline constexpr u16 kArp = 0x0608;
inline constexpr u16 kEapol = 0x8E88;
} // namespace eth_type

/**
 * Fill a summary from an efbuff; bytes behind the frame's end count as 0. Any
 * context; reads only what the platform promises is there.
 */
void pkt_info_build(void *efbuff, pkt_info *info);
void pkt_wlan_info_build(void *efbuff, pkt_wlan_info *info);

/**
 * Copy len bytes of the efbuff's frame, from an address in it on, with 0 for
 * those behind the frame's end. Any context.
 */
void copy_padded(const void *efbuff, const u8 *from, u8 *to, u32 len);

} // namespace mox

extern "C" {
/** Six zero bytes: the MAC addresses of a packet without a layer-2 header. */
extern const u8 pkt_null_mac[6];
}
