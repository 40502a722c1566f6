// SPDX-License-Identifier: GPL-2.0-only
#include "match.h"

#include <algorithm>

namespace oracle {
namespace {

using contract::kAnyEth;

uint16_t v16(const Value &v)
{
	return load<uint16_t>(v.data());
}
uint32_t v32(const Value &v)
{
	return load<uint32_t>(v.data());
}

bool mac_equal(const Value &v, const std::array<uint8_t, 6> &mac)
{
	return std::equal(mac.begin(), mac.end(), v.begin());
}

bool v4_multicast(const Packet &p)
{
	if (!p.v4 || p.ip_proto == 2)
		return false;
	uint32_t dst = uint32_t(p.v4_dst[0]) << 24 | p.v4_dst[1] << 16 | p.v4_dst[2] << 8 |
		       p.v4_dst[3];
	return dst >= 0xe0000100u && dst <= 0xefffffffu;
}

bool v6_multicast(const Packet &p)
{
	if (!p.v6 || !p.v6_dst_set || p.v6_dst[0] != 0xff || (p.v6_dst[1] & 0x0f) < 3)
		return false;
	return p.icmp6 != 130 && p.icmp6 != 131 && p.icmp6 != 132 && p.icmp6 != 143;
}

// One value of one type against the packet, for the types that compare a value.
bool value_match(uint32_t type, const Value &v, const Packet &p)
{
	switch (type) {
	case kCode:
		return v[0] == p.code && v[1] == p.sub_code;
	case kDstMac:
		return mac_equal(v, p.dst_mac);
	case kSrcMac:
		return mac_equal(v, p.src_mac);
	case kEth:
		return v16(v) == kAnyEth || v16(v) == p.eth_net;
	case kSnap:
		return p.snap && (v16(v) == kAnyEth || v16(v) == p.snap_net);
	case kV4Proto:
		return p.v4 && v[0] == p.ip_proto;
	case kV6Proto:
		return p.v6 && v[0] == p.ip_proto;
	case kV4DstPort:
		return p.v4 && p.dst_port_net != 0 && v16(v) == p.dst_port_net;
	case kV4SrcPort:
		return p.v4 && p.src_port_net != 0 && v16(v) == p.src_port_net;
	case kV6DstPort:
		return p.v6 && p.dst_port_net != 0 && v16(v) == p.dst_port_net;
	case kIntf:
		return v32(v) == p.ifindex;
	case kIcmp6:
		return p.icmp6 != 0 && v[0] == p.icmp6;
	case kEapol:
		return p.eapol && v[0] == p.eapol_type;
	case kArp:
		return p.arp_net != 0 && v16(v) == p.arp_net;
	default:
		return false;
	}
}

bool pid_item(const Item &item, uint32_t attr)
{
	if (item.datas.empty())
		return false;
	for (const Value &v : item.datas)
		if (v32(v) == attr || (v32(v) == 0xffffffffu && attr != 0))
			return false;
	return true;
}

bool item_match(const Item &item, const Packet &p)
{
	switch (item.type) {
	case kV4Mcast:
		return v4_multicast(p);
	case kV6Mcast:
		return v6_multicast(p);
	case kAll:
		return true;
	case kPid:
		return pid_item(item, p.attr);
	default:
		break;
	}
	for (const Value &v : item.datas)
		if (value_match(item.type, v, p))
			return true;
	return false;
}

bool wlan_item_match(const Item &item, const WlanPacket &p)
{
	switch (item.type) {
	case kEth:
		for (const Value &v : item.datas)
			if (v16(v) == kAnyEth || v16(v) == p.eth_net)
				return true;
		return false;
	case kEapol:
		for (const Value &v : item.datas)
			if (p.eapol && v[0] == p.eapol_type)
				return true;
		return false;
	case kWps:
		return p.eapol && p.wsc;
	case kAll:
		return true;
	case kPid:
		return pid_item(item, p.attr);
	case kWlanMgnt:
		return p.dot11 && p.mgnt;
	default:
		return false;
	}
}

bool key_match(const Entry &e, const Packet &p)
{
	Value v = e.value.value_or(Value{});
	switch (e.type) {
	case kIcmp6:
		return v[0] == p.icmp6; // unlike the item, 0 is a value here
	case kV4Mcast:
		return v4_multicast(p);
	case kV6Mcast:
		return v6_multicast(p);
	case kWps:
		return false;
	case kAll:
	case kPid:
	case kWlanMgnt:
		return true;
	case kArp:
		return p.arp_net != 0 && v[0] == p.arp_net; // one byte against two
	default:
		break;
	}
	if (e.type >= kTypes)
		return true;
	return value_match(e.type, v, p);
}

bool wlan_key_match(const Entry &e, const WlanPacket &p)
{
	Value v = e.value.value_or(Value{});
	switch (e.type) {
	case kEth:
		return v16(v) == kAnyEth || v16(v) == p.eth_net;
	case kEapol:
		return p.eapol && v[0] == p.eapol_type;
	case kWps:
		return p.eapol && p.wsc;
	case kAll:
		return true;
	case kWlanMgnt:
		return p.dot11 && p.mgnt;
	default:
		return false;
	}
}

} // namespace

bool value_equal(uint32_t type, const Value *a, const Value *b)
{
	if (type >= kTypes)
		return false;
	const unsigned width = contract::width(type);
	return width == 0 || (a && b && std::equal(a->begin(), a->begin() + width, b->begin()));
}

bool rule_match(const Packet &packet, const Regular &regular)
{
	if (regular.items.empty())
		return false;
	for (const Item &item : regular.items)
		if (!item_match(item, packet))
			return false;
	return true;
}

bool wlan_rule_match(const WlanPacket &packet, const Regular &regular)
{
	if (regular.items.empty())
		return false;
	for (const Item &item : regular.items)
		if (!wlan_item_match(item, packet))
			return false;
	return true;
}

bool location_open(uint32_t location, const Packet &packet, const World &world)
{
	if (location == 9)
		return packet.dst_block == world.lev2_block;
	if (location == 10)
		return packet.dst_block == world.lev3_block;
	return true;
}

Answer fast_answer(const Packet &packet, const Library &library, const World &world)
{
	for (const Entry &entry : library.filter_list) {
		if (!key_match(entry, packet))
			continue;
		for (const Regular &copy : entry.match_list) {
			if (!location_open(copy.location, packet, world))
				continue;
			if (world.vsd(copy.owner) != 0)
				continue;
			if (!copy.items.empty() && !rule_match(packet, copy))
				continue;
			if (copy.treatment != 0)
				return { copy.treatment, &entry, &copy };
			break;
		}
	}
	return {};
}

Answer wlan_fast_answer(const WlanPacket &packet, const Library &library, const World &world)
{
	for (const Entry &entry : library.filter_list) {
		if (!wlan_key_match(entry, packet))
			continue;
		for (const Regular &copy : entry.match_list) {
			if (world.vsd(copy.owner) != 0)
				continue;
			if (!copy.items.empty() && !wlan_rule_match(packet, copy))
				continue;
			if (copy.treatment != 0)
				return { copy.treatment, &entry, &copy };
		}
	}
	return {};
}

uint32_t fast_filter(const Packet &packet, const Library &library, const World &world)
{
	return fast_answer(packet, library, world).treatment;
}

uint32_t wlan_fast_filter(const WlanPacket &packet, const Library &library, const World &world)
{
	return wlan_fast_answer(packet, library, world).treatment;
}

} // namespace oracle
