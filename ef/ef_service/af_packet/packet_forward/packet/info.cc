// SPDX-License-Identifier: GPL-2.0-only
/*
 * A parse stops at the first bound that fails; the fields behind it stay 0.
 *
 * Within 64 bytes of the MAC header and 24 of the network header a parse reads
 * without a bound; everything beyond is checked against the total length. A
 * frame with fewer than 64 bytes is parsed in a copy that is padded with zeroes:
 * what lies behind its end is old memory. Longer frames, nearly all, pay one
 * comparison for that.
 */
#include "packet/info.hpp"

extern "C" {
constinit const u8 pkt_null_mac[6]{};
}

namespace mox {

namespace ef = platform::ef;

namespace {

/*
 * The parses below are inlined twice, for whole frames and for padded copies: a
 * call costs every packet.
 */

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
constexpr u32 kIpv6Destination = 24;

/* Bytes from the MAC header that are read without a bound. */
constexpr u32 kHeadLen = 64;

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

/** Bytes from an address to the end of the frame. */
u32 left_from(const void *efbuff, const u8 *at)
{
	const u8 *end = mac_header(efbuff) + field<u32>(efbuff, ef::kTotalLen);
	return end > at ? static_cast<u32>(end - at) : 0;
}

void set_ports(pkt_info *info, const u8 *l4)
{
	info->src_port = field<u16>(l4, 0);
	info->dst_port = field<u16>(l4, 2);
}

[[gnu::always_inline]] inline void parse_l2(const u8 *mac, pkt_info *info)
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

[[gnu::always_inline]] inline void parse_ipv4(const void *efbuff, const u8 *ip, pkt_info *info)
{
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

[[gnu::always_inline]] inline void parse_ipv6(const void *efbuff, const u8 *ip, pkt_info *info)
{
	u32 len = l3_length(efbuff);
	if (len < kIpv6HeaderLen)
		return;
	u32 payload = host16(field<u16>(ip, 4));
	if (len < kIpv6HeaderLen + payload)
		return;
	info->flags |= pkt_flag::kIpv6;
	info->ipv6_dst = ip + kIpv6Destination;
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

[[gnu::always_inline]] inline void parse_wlan_data(const u8 *mac, pkt_wlan_info *info)
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

/** Fill the summary of a packet from its headers, which are where Headers says. */
template <typename Headers>
[[gnu::always_inline]] inline void parse(void *efbuff, const Headers &headers, pkt_info *info)
{
	/* What not every packet has. Field by field: as a block, it would be a call. */
	info->eth_type = 0;
	info->snap_type = 0;
	info->flags = 0;
	info->eapol_type = 0;
	info->ip_proto = 0;
	info->icmpv6_type = 0;
	info->dst_port = 0;
	info->src_port = 0;
	info->arp_op = 0;
	info->ipv4_dst = 0;
	info->ipv6_dst = nullptr;
	if (without_l2(efbuff)) {
		info->flags = pkt_flag::kNoL2;
		info->src_mac = pkt_null_mac;
		info->dst_mac = pkt_null_mac;
	} else {
		parse_l2(headers.mac(), info);
	}
	info->vlan = field<u32>(efbuff, ef::kVlan) & ef::kVlanIdMask;
	info->ifindex = source_ifindex(efbuff);
	info->attr = field<u32>(efbuff, ef::kAttr);
	info->code = field<u8>(efbuff, ef::kCode);
	info->sub_code = field<u8>(efbuff, ef::kCode + 1);
	info->efbuff = efbuff;
	switch (field<u8>(efbuff, ef::kKind)) {
	case ef::kKindIpv4:
		parse_ipv4(efbuff, headers.ip(), info);
		break;
	case ef::kKindIpv6:
		parse_ipv6(efbuff, headers.ip(), info);
		break;
	default:
		break;
	}
}

/** Whether a frame has no more bytes than are read without a bound. */
bool short_frame(const void *efbuff)
{
	return field<u32>(efbuff, ef::kTotalLen) < kHeadLen;
}

/** The headers of a whole frame. */
struct PlainHeaders {
	const void *efbuff;

	const u8 *mac() const { return mac_header(efbuff); }
	const u8 *ip() const { return net_header(efbuff); }
};

/** The headers of a short frame, padded with zeroes. */
struct PaddedHeaders {
	u8 mac_bytes[kHeadLen];
	u8 ip_bytes[kHeadLen]; /* a parse reads no further: the packet is shorter */

	explicit PaddedHeaders(const void *efbuff)
	{
		copy_padded(efbuff, mac_header(efbuff), mac_bytes, sizeof(mac_bytes));
		copy_padded(efbuff, net_header(efbuff), ip_bytes, sizeof(ip_bytes));
	}
	const u8 *mac() const { return mac_bytes; }
	const u8 *ip() const { return ip_bytes; }
};

/** Addresses in a frame, or copies of the bytes there when the frame ends before them. */
const u8 *lasting(pkt_info *info, const u8 *in_frame, u32 len)
{
	if (left_from(info->efbuff, in_frame) >= len)
		return in_frame;
	copy_padded(info->efbuff, in_frame, info->padded, len);
	return info->padded;
}

/** Apart from the normal path, which its stack and registers would slow down. */
[[gnu::noinline]] void build_short(void *efbuff, pkt_info *info)
{
	const PaddedHeaders headers(efbuff);

	parse(efbuff, headers, info);
	/* The summary outlives the copy. Only one of the two can be cut: a packet has an IPv6
	 * destination only if 40 bytes follow its layer-2 header. */
	if (info->dst_mac == headers.mac()) {
		info->dst_mac = lasting(info, mac_header(efbuff), 12);
		info->src_mac = info->dst_mac + 6;
	}
	if (info->ipv6_dst)
		info->ipv6_dst = lasting(info, net_header(efbuff) + kIpv6Destination, 16);
}

[[gnu::noinline]] void parse_short_wlan_data(const void *efbuff, pkt_wlan_info *info)
{
	const PaddedHeaders headers(efbuff);

	parse_wlan_data(headers.mac(), info);
}

} // namespace

void copy_padded(const void *efbuff, const u8 *from, u8 *to, u32 len)
{
	u32 there = left_from(efbuff, from);

	if (there > len)
		there = len;
	__builtin_memcpy(to, from, there);
	__builtin_memset(to + there, 0, len - there);
}

void pkt_info_build(void *efbuff, pkt_info *info)
{
	if (short_frame(efbuff)) [[unlikely]]
		build_short(efbuff, info);
	else
		parse(efbuff, PlainHeaders{ efbuff }, info);
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
	} else if (short_frame(efbuff)) [[unlikely]] {
		parse_short_wlan_data(efbuff, info);
	} else {
		parse_wlan_data(mac_header(efbuff), info);
	}
	info->ifindex = source_ifindex(efbuff);
	info->attr = field<u32>(efbuff, ef::kAttr);
}

} // namespace mox
