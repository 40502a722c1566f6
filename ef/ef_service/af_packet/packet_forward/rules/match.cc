// SPDX-License-Identifier: GPL-2.0
#include "rules/match.hpp"

#include "rules/ranges.hpp"

namespace mox {
namespace {

/** htons(3) as it lies in a value: any EtherType. */
constexpr u16 kAnyEthType = MOX_PACKET_ANY_ETH_TYPE;
/** A value of PACKET_PID_T that excludes every packet with an attribute. */
constexpr u32 kAnyAttr = 0xFFFFFFFFu;

constexpr u8 kProtoIgmp = 2;

bool eth_type_matches(const u8 *value, u16 type)
{
	u16 wanted = field<u16>(value, 0);
	return wanted == kAnyEthType || wanted == type;
}

/** Multicast listener messages, which a rule for traffic leaves out. */
bool is_mld(u8 icmpv6_type)
{
	return (icmpv6_type >= 130 && icmpv6_type <= 132) || icmpv6_type == 143;
}

bool ipv4_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv4) || info.ip_proto == kProtoIgmp)
		return false;
	u32 dst = __builtin_bswap32(info.ipv4_dst);
	/* 224.0.0.0/24 is control traffic of the link. */
	return dst >= 0xE0000100u && dst <= 0xEFFFFFFFu;
}

bool ipv6_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv6) || !info.ipv6_dst)
		return false;
	return info.ipv6_dst[0] == 0xFF && (info.ipv6_dst[1] & 0x0F) >= 3 &&
	       !is_mld(info.icmpv6_type);
}

/** Whether a packet satisfies one value of a rule type; the types that consult values. */
bool value_matches(const pkt_info &info, u32 type, const u8 *value)
{
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		return value[0] == info.code && value[1] == info.sub_code;
	case PACKET_DEST_MAC_EQUAL:
		return __builtin_memcmp(value, info.dst_mac, 6) == 0;
	case PACKET_SRC_MAC_EQUAL:
		return __builtin_memcmp(value, info.src_mac, 6) == 0;
	case PACKET_ETH_PROT_EQUAL:
		return eth_type_matches(value, info.eth_type);
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		return (info.flags & pkt_flag::kSnap) && eth_type_matches(value, info.snap_type);
	case PACKET_IPv4_PROT_EQUAL:
		return (info.flags & pkt_flag::kIpv4) && value[0] == info.ip_proto;
	case PACKET_IPv6_PROT_EQUAL:
		return (info.flags & pkt_flag::kIpv6) && value[0] == info.ip_proto;
	case PACKET_IPv4_DEST_PORT_EQUAL:
		return (info.flags & pkt_flag::kIpv4) && info.dst_port != 0 &&
		       field<u16>(value, 0) == info.dst_port;
	case PACKET_IPv4_SRC_PORT_EQUAL:
		return (info.flags & pkt_flag::kIpv4) && info.src_port != 0 &&
		       field<u16>(value, 0) == info.src_port;
	case PACKET_IPv6_DEST_PORT_EQUAL:
		return (info.flags & pkt_flag::kIpv6) && info.dst_port != 0 &&
		       field<u16>(value, 0) == info.dst_port;
	case PACKET_SRC_INTF_EQUAL:
		return field<u32>(value, 0) == info.ifindex;
	case PACKET_ICMPV6_TYPE_EQUAL:
		return info.icmpv6_type != 0 && value[0] == info.icmpv6_type;
	case PACKET_EAPOL_TYPE_EQUAL:
		return (info.flags & pkt_flag::kEapol) && value[0] == info.eapol_type;
	case PACKET_ARP_TYPE:
		return info.arp_op != 0 && field<u16>(value, 0) == info.arp_op;
	default:
		/* PACKET_EAPOL_TYPE_WPS and PACKET_WLAN_MGNT never match outside WLAN. */
		return false;
	}
}

bool wlan_eapol_type_matches(const pkt_wlan_info &info, const u8 *value)
{
	return (info.flags & pkt_flag::kEapol) && value[0] == info.eapol_type;
}

bool wlan_wps(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kEapol) && (info.flags & pkt_flag::kWps);
}

bool wlan_mgmt(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kWlan80211) && (info.flags & pkt_flag::kWlanMgmt);
}

/** Whether one value passes; an item without values passes for no packet. */
template <typename Test> bool any_value(const regular_item &item, Test test)
{
	for (const regular_data *datum : datas_of(&item))
		if (test(datum->value))
			return true;
	return false;
}

/**
 * PACKET_PID_T excludes: it fails when a value names the packet's attribute, and
 * without values, as any item does.
 */
bool not_excluded(const regular_item &item, u32 attr)
{
	if (list_empty(&item.datas))
		return false;
	return !any_value(item, [attr](const u8 *value) {
		u32 excluded = field<u32>(value, 0);
		return excluded == attr || (excluded == kAnyAttr && attr != 0);
	});
}

bool item_passes(const pkt_info &info, const regular_item &item)
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
		return any_value(item, [&](const u8 *value) {
			return value_matches(info, item.type, value);
		});
	}
}

bool item_passes(const pkt_wlan_info &info, const regular_item &item)
{
	switch (item.type) {
	case PACKET_ETH_PROT_EQUAL:
		return any_value(item, [&](const u8 *value) {
			return eth_type_matches(value, info.eth_type);
		});
	case PACKET_EAPOL_TYPE_EQUAL:
		return any_value(item, [&](const u8 *value) {
			return wlan_eapol_type_matches(info, value);
		});
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_ALL:
		return true;
	case PACKET_PID_T:
		return not_excluded(item, info.attr);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	default:
		return false;
	}
}

/** All items must pass; a rule without items matches nothing. */
template <typename Info> int rule_match(const Info &info, const packet_regular &regular)
{
	if (list_empty(&regular.items))
		return 0;
	for (const regular_item *item : items_of(&regular))
		if (!item_passes(info, *item))
			return 0;
	return 1;
}

/**
 * A key of the filter list, tested alone. Some tests are looser or narrower
 * than the rule match of the same type; callers have come to rely on it, so
 * both stay as they are.
 */
bool key_passes(const pkt_info &info, const filter_list_data &key)
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
		return key.type >= MOX_PACKET_RULE_TYPES ||
		       value_matches(info, key.type, key.value);
	}
}

bool key_passes(const pkt_wlan_info &info, const filter_list_data &key)
{
	switch (key.type) {
	case PACKET_ETH_PROT_EQUAL:
		return eth_type_matches(key.value, info.eth_type);
	case PACKET_EAPOL_TYPE_EQUAL:
		return wlan_eapol_type_matches(info, key.value);
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	case PACKET_ALL:
		return true;
	default:
		return false;
	}
}

bool copy_considered(const pkt_info &info, const packet_regular &copy)
{
	return location_sees(copy.location, info.efbuff) && copy.owner->vsd == 0;
}

bool copy_considered(const pkt_wlan_info &, const packet_regular &copy)
{
	return copy.owner->vsd == 0;
}

/** First key that passes, first copy there that passes; local copies never answer. */
template <typename Info> u32 fast_filter(const Info &info, const list_head *filter_list)
{
	for (const filter_list_data *key : entries_of(filter_list)) {
		if (!key_passes(info, *key))
			continue;
		for (const packet_regular *copy : regulars_of(&key->match_list)) {
			if (!copy_considered(info, *copy))
				continue;
			/* A copy without items had no condition but its key. */
			if (!list_empty(&copy->items) && !rule_match(info, *copy))
				continue;
			if (copy->treatment != PACKET_TREATMENT_NONE)
				return copy->treatment;
			break;
		}
	}
	return PACKET_TREATMENT_NONE;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int pkt_rule_match(const pkt_info *info, const packet_regular *regular)
{
	return rule_match(*info, *regular);
}

int pkt_wlan_rule_match(const pkt_wlan_info *info, const packet_regular *regular)
{
	return rule_match(*info, *regular);
}

u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
{
	return fast_filter(*info, &lib->filter_list);
}

u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
{
	return fast_filter(*info, &g_wlan_packet_regular_lib.filter_list);
}
} // extern "C"
