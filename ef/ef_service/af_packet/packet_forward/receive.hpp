// SPDX-License-Identifier: GPL-2.0
/*
 * The receive path's view of a packet: the efbuff, the summaries that rules
 * are matched against, and the hooks.
 */
#pragma once

#include "platform.h"
#include "regular.hpp"

/** What the fast filters and the rule match read of a packet. */
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
	u32 vlan; /* the VLAN id's bits of the efbuff's VLAN word */
	u32 ifindex;
	u32 attr;
	u16 arp_op;   /* network order */
	u32 ipv4_dst; /* network order */
	const u8 *ipv6_dst;
	void *efbuff;
};

/** The smaller summary of the WLAN location. */
struct pkt_wlan_info {
	u8 reserved;
	u8 eapol_type;
	u16 eth_type; /* network order */
	u32 ifindex;
	u32 attr;
	u32 flags; /* pkt_flag */
};

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

/** A field of a platform record; platform records are only aligned to 4 bytes. */
template <typename T> inline T field(const void *record, u32 offset)
{
	T value;
	__builtin_memcpy(&value, static_cast<const u8 *>(record) + offset, sizeof(value));
	return value;
}

template <typename T> inline void set_field(void *record, u32 offset, T value)
{
	__builtin_memcpy(static_cast<u8 *>(record) + offset, &value, sizeof(value));
}

/** The address that a 32-bit pointer word of the platform holds. */
inline void *address_of(u32 word)
{
	return reinterpret_cast<void *>(static_cast<uintptr_t>(word));
}

/** A platform address as the platform's records hold it. */
inline u32 word_of(const void *address)
{
	return static_cast<u32>(reinterpret_cast<uintptr_t>(address));
}

inline const u8 *mac_header(const void *efbuff)
{
	return static_cast<const u8 *>(efbuff) + field<u16>(efbuff, platform::ef::kMacOffset);
}

inline const u8 *net_header(const void *efbuff)
{
	return static_cast<const u8 *>(efbuff) + field<u16>(efbuff, platform::ef::kNetOffset);
}

/** Whether the platform asks for every hook's trace of this packet. */
inline bool traced(const void *efbuff)
{
	return (field<u32>(efbuff, platform::ef::kFlags) & platform::ef::kFlagTrace) != 0;
}

/** The control block of the interface that the packet came in on; null for one that the device made. */
inline const void *source_intf(const void *efbuff)
{
	return address_of(field<u32>(efbuff, platform::ef::kSrcIntf));
}

/** Index of the source interface, 0 without one. */
inline u32 source_ifindex(const void *efbuff)
{
	const void *intf = source_intf(efbuff);
	return intf ? field<u32>(intf, platform::intf::kIfindex) : 0;
}

/** Name of the source interface, empty without one. */
inline const char *source_name(const void *efbuff)
{
	const void *intf = source_intf(efbuff);
	return intf ? static_cast<const char *>(intf) + platform::intf::kName : "";
}

/** The VLAN id, 0 to 4095, out of a VLAN word masked with kVlanIdMask. */
inline u32 vlan_id(u32 vlan_word)
{
	return __builtin_bswap32(vlan_word);
}

/** The same id straight from an efbuff. */
inline u32 vlan_id_of(const void *efbuff)
{
	return vlan_id(field<u32>(efbuff, platform::ef::kVlan) & platform::ef::kVlanIdMask);
}

/** A host-order view of a network-order u16. */
inline u16 host16(u16 network)
{
	return __builtin_bswap16(network);
}

/**
 * Whether a rule at a reserved location may see the packet: its destination
 * must be that location's control-plane interface. Any other location may.
 */
bool location_sees(u32 location, const void *efbuff);

/** Fill a summary from an efbuff. Any context; reads only what the platform promises is there. */
void pkt_info_build(void *efbuff, pkt_info *info);
void pkt_wlan_info_build(void *efbuff, pkt_wlan_info *info);

/** Print the layer-2 and layer-3 trace lines of a packet. The tag is "RCV" or "FW". */
enum class TraceTag { kReceive, kForward };
void trace_packet(const pkt_info &info, TraceTag tag);
void trace_wlan_packet(const void *efbuff, TraceTag tag);

extern "C" {
/** Six zero bytes: the MAC addresses of a packet without a layer-2 header. */
extern const u8 pkt_null_mac[6];

/* The hooks. Called by the platform with bottom halves disabled; platform.h has the answers. */
u32 mox_packet_local_rcv(void);
u32 mox_packet_lev2_rcv(void);
u32 mox_packet_ipv4_rcv(void);
u32 mox_packet_ipv6_rcv(void);
u32 mox_packet_mpls_rcv(void);
u32 mox_packet_trill_rcv(void);
u32 mox_packet_resv_rcv(void);
u32 mox_packet_wlan_in_rcv(void);
u32 mox_packet_wlan_out_rcv(void);

/**
 * 1 when every item of the rule passes for the packet, 0 otherwise and for a
 * rule without items. The library's lock is held.
 */
int pkt_rule_match(const pkt_info *info, const packet_regular *regular);
int pkt_wlan_rule_match(const pkt_wlan_info *info, const packet_regular *regular);

/** The treatment of the first rule that wants the packet, or 0. The read lock is held. */
u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
	SEAM_REQUIRES_SHARED(g_wlan_packet_regular_lib.lock);
} // extern "C"
