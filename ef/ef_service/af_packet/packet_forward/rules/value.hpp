// SPDX-License-Identifier: GPL-2.0-only
/*
 * Values as two words, so that equality is one comparison: of rules, with what
 * does not count cut off, and of frames, by rule type.
 */
#pragma once

#include "packet/info.hpp"
#include "rules/types.hpp"

namespace mox {

/** The bytes of a value that count, as they lie in memory; what is beyond them is 0. */
struct Value {
	u32 low;
	u32 high;

	bool operator==(const Value &) const = default;
};

constexpr u32 value_mask(u32 bytes)
{
	return bytes >= 4 ? ~0u : (1u << (8 * bytes)) - 1;
}

/** Masks that leave the bytes of a type's value that are compared. */
struct ValueMask {
	u32 low;
	u32 high;
};

struct ValueMasks {
	ValueMask of[MOX_PACKET_RULE_TYPES];
};

constexpr ValueMasks make_value_masks()
{
	ValueMasks masks{};
	for (const RuleType &row : kRuleTypes)
		masks.of[row.type] = { value_mask(row.compared),
				       row.compared > 4 ? value_mask(row.compared - 4u) : 0 };
	return masks;
}

inline constexpr ValueMasks kValueMasks = make_value_masks();

/** A rule's value of a type below MOX_PACKET_RULE_TYPES. */
inline Value rule_value(u32 type, const void *bytes)
{
	const ValueMask &mask = kValueMasks.of[type];

	return { field<u32>(bytes, 0) & mask.low, field<u32>(bytes, 4) & mask.high };
}

/** The wildcard of the two EtherType types: any type. */
inline constexpr Value kAnyEthType = { MOX_PACKET_ANY_ETH_TYPE, 0 };

constexpr bool type_has_wildcard(u32 type)
{
	return type == PACKET_ETH_PROT_EQUAL || type == PACKET_SNAP_ETH_TYPE_EQUAL;
}

/**
 * Whether conditions of a type are satisfied by a value of the frame that equals theirs:
 * the types of which frame_value() is true for some frames.
 */
constexpr bool type_is_compared(u32 type)
{
	return type < MOX_PACKET_RULE_TYPES && kRuleTypes[type].has_value() &&
	       type != PACKET_PID_T && type != PACKET_EAPOL_TYPE_WPS;
}

/**
 * What a frame has where a rule type looks: true with the value that a rule's
 * must equal, false when no value of the type can match the frame, and for the
 * types without a value to compare.
 */
[[gnu::always_inline]] inline bool frame_value(const pkt_info &info, u32 type, Value *value)
{
	value->high = 0;
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		value->low = info.code | u32{ info.sub_code } << 8;
		return true;
	case PACKET_DEST_MAC_EQUAL:
		*value = { field<u32>(info.dst_mac, 0), field<u16>(info.dst_mac, 4) };
		return true;
	case PACKET_SRC_MAC_EQUAL:
		*value = { field<u32>(info.src_mac, 0), field<u16>(info.src_mac, 4) };
		return true;
	case PACKET_ETH_PROT_EQUAL:
		value->low = info.eth_type;
		return true;
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		value->low = info.snap_type;
		return info.flags & pkt_flag::kSnap;
	case PACKET_IPv4_PROT_EQUAL:
		value->low = info.ip_proto;
		return info.flags & pkt_flag::kIpv4;
	case PACKET_IPv6_PROT_EQUAL:
		value->low = info.ip_proto;
		return info.flags & pkt_flag::kIpv6;
	case PACKET_IPv4_DEST_PORT_EQUAL:
		value->low = info.dst_port;
		return (info.flags & pkt_flag::kIpv4) && info.dst_port != 0;
	case PACKET_IPv4_SRC_PORT_EQUAL:
		value->low = info.src_port;
		return (info.flags & pkt_flag::kIpv4) && info.src_port != 0;
	case PACKET_IPv6_DEST_PORT_EQUAL:
		value->low = info.dst_port;
		return (info.flags & pkt_flag::kIpv6) && info.dst_port != 0;
	case PACKET_SRC_INTF_EQUAL:
		value->low = info.ifindex;
		return true;
	case PACKET_ICMPV6_TYPE_EQUAL:
		value->low = info.icmpv6_type;
		return info.icmpv6_type != 0;
	case PACKET_EAPOL_TYPE_EQUAL:
		value->low = info.eapol_type;
		return info.flags & pkt_flag::kEapol;
	case PACKET_ARP_TYPE:
		value->low = info.arp_op;
		return info.arp_op != 0;
	default:
		return false;
	}
}

inline bool frame_value(const pkt_wlan_info &info, u32 type, Value *value)
{
	value->high = 0;
	switch (type) {
	case PACKET_ETH_PROT_EQUAL:
		value->low = info.eth_type;
		return true;
	case PACKET_EAPOL_TYPE_EQUAL:
		value->low = info.eapol_type;
		return info.flags & pkt_flag::kEapol;
	default:
		return false;
	}
}

} // namespace mox
