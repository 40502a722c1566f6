// SPDX-License-Identifier: GPL-2.0-only
/*
 * One condition and one packet: an item of a rule, and a key of a filter list.
 * Read-only, without locks; the rule does not change meanwhile.
 */
#pragma once

#include "rules/ranges.hpp"
#include "rules/values.hpp"

namespace mox {

/** A value of PACKET_PID_T that excludes every packet with an attribute. */
inline constexpr u32 kAnyAttr = 0xFFFFFFFFu;

inline constexpr u8 kProtoIgmp = 2;

/** Multicast listener messages, which a rule for traffic leaves out. */
inline bool is_mld(u8 icmpv6_type)
{
	return (icmpv6_type >= 130 && icmpv6_type <= 132) || icmpv6_type == 143;
}

inline bool ipv4_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv4) || info.ip_proto == kProtoIgmp)
		return false;
	u32 dst = __builtin_bswap32(info.ipv4_dst);
	/* 224.0.0.0/24 is control traffic of the link. */
	return dst >= 0xE0000100u && dst <= 0xEFFFFFFFu;
}

inline bool ipv6_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv6) || !info.ipv6_dst)
		return false;
	return info.ipv6_dst[0] == 0xFF && (info.ipv6_dst[1] & 0x0F) >= 3 &&
	       !is_mld(info.icmpv6_type);
}

inline bool wlan_wps(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kEapol) && (info.flags & pkt_flag::kWps);
}

inline bool wlan_mgmt(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kWlan80211) && (info.flags & pkt_flag::kWlanMgmt);
}

/** Whether a value of PACKET_PID_T excludes a packet with an attribute. */
inline bool excludes(u32 excluded, u32 attr)
{
	return excluded == attr || (excluded == kAnyAttr && attr != 0);
}

/**
 * PACKET_PID_T excludes: it fails when a value names the packet's attribute, and
 * without values, as any item does.
 */
inline bool not_excluded(const regular_item &item, u32 attr)
{
	if (item.count == 0)
		return false;
	if (item.count == 1)
		return !excludes(field<u32>(item.root->value, 0), attr);
	if (item_value(&item, { attr, 0 }))
		return false;
	return attr == 0 || !item_value(&item, { kAnyAttr, 0 });
}

/** Whether the frame has one of the item's values; an item without values passes for no packet. */
template <typename Info> inline bool has_value(const Info &info, const regular_item &item)
{
	Value value;

	if (!frame_value(info, item.type, &value))
		return false;
	if (item_value(&item, value))
		return true;
	return type_has_wildcard(item.type) && item_value(&item, kAnyEthType);
}

inline bool item_passes(const pkt_info &info, const regular_item &item)
{
	switch (item.type) {
	case PACKET_IPv4_MCAST_TRAFFIC:
		return ipv4_mcast_traffic(info);
	case PACKET_IPv6_MCAST_TRAFFIC:
		return ipv6_mcast_traffic(info);
	case PACKET_ALL:
		return true;
	case PACKET_PID_T:
		return not_excluded(item, info.attr);
	default:
		/* PACKET_EAPOL_TYPE_WPS and PACKET_WLAN_MGNT never match outside WLAN. */
		return has_value(info, item);
	}
}

inline bool item_passes(const pkt_wlan_info &info, const regular_item &item)
{
	switch (item.type) {
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_ALL:
		return true;
	case PACKET_PID_T:
		return not_excluded(item, info.attr);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	default:
		return has_value(info, item);
	}
}

/** Whether all items of a rule pass but one, which is known to; null: but none. */
template <typename Info>
inline bool items_pass(const Info &info, const packet_regular &regular, const regular_item *known)
{
	for (const regular_item *item : items_of(&regular))
		if (item != known && !item_passes(info, *item))
			return false;
	return true;
}

/** Whether the frame has a key's value. */
template <typename Info> inline bool has_key(const Info &info, const filter_list_data &key)
{
	Value wanted = rule_value(key.type, key.value);
	Value value;

	if (!frame_value(info, key.type, &value))
		return false;
	return value == wanted || (type_has_wildcard(key.type) && wanted == kAnyEthType);
}

/**
 * A key of the filter list, tested alone. Some tests are looser or narrower
 * than the rule match of the same type; callers have come to rely on it, so
 * both stay as they are.
 */
inline bool key_passes(const pkt_info &info, const filter_list_data &key)
{
	switch (key.type) {
	case PACKET_ICMPV6_TYPE_EQUAL:
		/* Also 0, which every packet without ICMPv6 has. */
		return key.value[0] == info.icmpv6_type;
	case PACKET_IPv4_MCAST_TRAFFIC:
		return ipv4_mcast_traffic(info);
	case PACKET_IPv6_MCAST_TRAFFIC:
		return ipv6_mcast_traffic(info);
	case PACKET_EAPOL_TYPE_WPS:
		return false;
	case PACKET_ALL:
	case PACKET_PID_T:
	case PACKET_WLAN_MGNT:
		return true;
	case PACKET_ARP_TYPE:
		/* One byte against the whole operation word: above 255 never passes. */
		return info.arp_op != 0 && key.value[0] == info.arp_op;
	default:
		return key.type >= MOX_PACKET_RULE_TYPES || has_key(info, key);
	}
}

inline bool key_passes(const pkt_wlan_info &info, const filter_list_data &key)
{
	switch (key.type) {
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	case PACKET_ALL:
		return true;
	default:
		return key.type < MOX_PACKET_RULE_TYPES && has_key(info, key);
	}
}

} // namespace mox
