// SPDX-License-Identifier: GPL-2.0
/*
 * A parse stops at the first bound that fails; the fields behind it stay 0.
 *
 * Reading is safe without bounds within 64 bytes of the MAC header and 24 of
 * the network header, which the platform keeps readable whatever the length;
 * everything beyond is checked against the total length.
 */
#include "packet/info.hpp"

extern "C" {
constinit const u8 pkt_null_mac[6]{};
}

namespace mox {

namespace ef = platform::ef;

namespace {

namespace next_header {
constexpr u8 kHopByHop = 0;
constexpr u8 kTcp = 6;
constexpr u8 kUdp = 17;
constexpr u8 kRouting = 43;
constexpr u8 kFragment = 44;
constexpr u8 kAh = 51;
constexpr u8 kIcmpv6 = 58;
constexpr u8 kNone = 59;
constexpr u8 kDestOptions = 60;
constexpr u8 kPim = 103;
} // namespace next_header

constexpr u32 kIpv6HeaderLen = 40;

/** A layer-3 packet that the platform handed over without a layer-2 header. */
bool without_l2(const void *efbuff)
{
	u8 kind = field<u8>(efbuff, ef::kKind);
	return (kind == ef::kKindIpv4 || kind == ef::kKindIpv6) &&
	       field<u16>(efbuff, ef::kL2Len) == 0;
}

/** Bytes of the packet behind its layer-2 header. */
u32 l3_length(const void *efbuff)
{
	u32 total = field<u32>(efbuff, ef::kTotalLen);
	u16 l2 = field<u16>(efbuff, ef::kL2Len);
	return total > l2 ? total - l2 : 0;
}

void set_ports(pkt_info *info, const u8 *l4)
{
	info->src_port = field<u16>(l4, 0);
	info->dst_port = field<u16>(l4, 2);
}

void parse_l2(const u8 *mac, pkt_info *info)
{
	info->dst_mac = mac;
	info->src_mac = mac + 6;
	info->eth_type = field<u16>(mac, 12);
	if (info->eth_type == eth_type::kEapol) {
		info->flags |= pkt_flag::kEapol;
		info->eapol_type = mac[15];
	}
	/* Looked for behind any EtherType, EAPOL included. */
	if (mac[14] == 0xAA && mac[15] == 0xAA) {
		info->flags |= pkt_flag::kSnap;
		info->snap_type = field<u16>(mac, 20);
	}
	if (info->eth_type == eth_type::kArp)
		info->arp_op = field<u16>(mac, 20);
}

void parse_ipv4(const void *efbuff, pkt_info *info)
{
	const u8 *ip = net_header(efbuff);
	info->flags |= pkt_flag::kIpv4;
	info->ip_proto = ip[9];
	info->ipv4_dst = field<u32>(ip, 16);
	if (info->ip_proto != next_header::kTcp && info->ip_proto != next_header::kUdp)
		return;
	u32 header_len = (ip[0] & 0x0Fu) * 4;
	/* Eight bytes for TCP as well: only the ports are read. */
	if (l3_length(efbuff) > 8 + header_len)
		set_ports(info, ip + header_len);
}

/** What the walk over IPv6 headers does behind a header. */
struct Ipv6Walk {
	const u8 *ip;
	u32 len; /* of the whole packet from the IPv6 header */
	u8 next;
	u32 offset; /* of the header that next names */

	bool has(u32 bytes) const { return len >= bytes && offset <= len - bytes; }

	/** Step over an extension header; false at the end of what can be followed. */
	bool step()
	{
		const u8 *header = ip + offset;
		/* A header cut before its length byte ends the walk as any cut one does. */
		if (!has(2))
			return false;
		switch (next) {
		case next_header::kHopByHop:
		case next_header::kRouting:
		case next_header::kDestOptions:
			offset += (header[1] + 1u) * 8;
			break;
		case next_header::kAh:
			offset += (header[1] + 2u) * 4;
			break;
		case next_header::kFragment:
			offset += 8;
			if (len <= offset)
				return false;
			/* Only a first fragment holds the headers that follow. */
			if ((header[2] | (header[3] & 0xF8)) != 0)
				return false;
			break;
		default:
			return false;
		}
		if (len <= offset)
			return false;
		next = header[0];
		return next != next_header::kNone;
	}
};

void parse_ipv6(const void *efbuff, pkt_info *info)
{
	const u8 *ip = net_header(efbuff);
	u32 len = l3_length(efbuff);
	if (len < kIpv6HeaderLen)
		return;
	u32 payload = host16(field<u16>(ip, 4));
	if (len < kIpv6HeaderLen + payload)
		return;
	info->flags |= pkt_flag::kIpv6;
	info->ipv6_dst = ip + 24;
	if (len == kIpv6HeaderLen || ip[6] == next_header::kNone)
		return;

	Ipv6Walk walk{ ip, len, ip[6], kIpv6HeaderLen };
	do {
		switch (walk.next) {
		case next_header::kTcp:
		case next_header::kUdp:
			info->ip_proto = walk.next;
			if (walk.has(walk.next == next_header::kTcp ? 20 : 8))
				set_ports(info, ip + walk.offset);
			return;
		case next_header::kIcmpv6:
		case next_header::kPim:
			info->ip_proto = walk.next;
			if (walk.next == next_header::kIcmpv6 && walk.has(4))
				info->icmpv6_type = ip[walk.offset];
			return;
		default:
			break;
		}
	} while (walk.step());
}

constexpr char kWpsEnrollee[] = "WFA-SimpleConfig-Enrollee-1-0";
constexpr u32 kWpsEnrolleeLen = sizeof(kWpsEnrollee) - 1;
static_assert(kWpsEnrolleeLen == 29);

void parse_wlan_data(const u8 *mac, pkt_wlan_info *info)
{
	info->eth_type = field<u16>(mac, 12);
	if (info->eth_type != eth_type::kEapol)
		return;
	info->flags = pkt_flag::kEapol;
	info->eapol_type = mac[15];
	/* An EAP identity of Wi-Fi Simple Config, or an expanded EAP type of its method. */
	if (__builtin_memcmp(mac + 23, kWpsEnrollee, kWpsEnrolleeLen) == 0)
		info->flags |= pkt_flag::kWps;
	if (mac[22] == 0xFE && mac[29] == 1)
		info->flags |= pkt_flag::kWps;
}

} // namespace

void pkt_info_build(void *efbuff, pkt_info *info)
{
	*info = pkt_info{};
	if (without_l2(efbuff)) {
		info->flags = pkt_flag::kNoL2;
		info->src_mac = pkt_null_mac;
		info->dst_mac = pkt_null_mac;
	} else {
		parse_l2(mac_header(efbuff), info);
	}
	info->vlan = field<u32>(efbuff, ef::kVlan) & ef::kVlanIdMask;
	info->ifindex = source_ifindex(efbuff);
	info->attr = field<u32>(efbuff, ef::kAttr);
	info->code = field<u8>(efbuff, ef::kCode);
	info->sub_code = field<u8>(efbuff, ef::kCode + 1);
	info->efbuff = efbuff;
	switch (field<u8>(efbuff, ef::kKind)) {
	case ef::kKindIpv4:
		parse_ipv4(efbuff, info);
		break;
	case ef::kKindIpv6:
		parse_ipv6(efbuff, info);
		break;
	default:
		break;
	}
}

void pkt_wlan_info_build(void *efbuff, pkt_wlan_info *info)
{
	*info = pkt_wlan_info{};
	u32 wlan = field<u32>(efbuff, ef::kWlanFlags);
	if (wlan & ef::kWlan80211) {
		info->flags = pkt_flag::kWlan80211;
		if (wlan & ef::kWlanMgmt)
			info->flags |= pkt_flag::kWlanMgmt;
	} else if (without_l2(efbuff)) {
		info->flags = pkt_flag::kNoL2;
	} else {
		parse_wlan_data(mac_header(efbuff), info);
	}
	info->ifindex = source_ifindex(efbuff);
	info->attr = field<u32>(efbuff, ef::kAttr);
}

} // namespace mox
