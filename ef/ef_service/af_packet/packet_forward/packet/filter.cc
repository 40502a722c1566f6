// SPDX-License-Identifier: GPL-2.0-only
#include "packet/filter.hpp"

extern "C" {
constinit mox_packet_filter g_pktd_kdbg_filter{};
}

namespace mox {

namespace ef = platform::ef;
namespace intf = platform::intf;

namespace {

static_assert(sizeof(mox_packet_filter) == 72);
static_assert(offsetof(mox_packet_filter, flags) == 4);
static_assert(offsetof(mox_packet_filter, vid) == 8);
static_assert(offsetof(mox_packet_filter, src_mac) == 12);
static_assert(offsetof(mox_packet_filter, dst_mac) == 18);
static_assert(offsetof(mox_packet_filter, src_intf) == 24);
static_assert(offsetof(mox_packet_filter, dst_intf) == 28);
static_assert(offsetof(mox_packet_filter, src_ipv4) == 32);
static_assert(offsetof(mox_packet_filter, dst_ipv4) == 36);
static_assert(offsetof(mox_packet_filter, src_ipv6) == 40);
static_assert(offsetof(mox_packet_filter, dst_ipv6) == 56);

/* The record's bytes, seen as the words in which CPUs share it. */
typedef u32 __attribute__((may_alias)) shared_word;
typedef u16 __attribute__((may_alias)) shared_half;

/** The four bytes at an address inside the filter, read once. */
u32 word_at(const void *at)
{
	return __atomic_load_n(static_cast<const shared_word *>(at), __ATOMIC_RELAXED);
}

u16 half_at(const void *at)
{
	return __atomic_load_n(static_cast<const shared_half *>(at), __ATOMIC_RELAXED);
}

bool same_mac(const u8 *wanted, const u8 *mac)
{
	return half_at(wanted) == field<u16>(mac, 0) && half_at(wanted + 2) == field<u16>(mac, 2) &&
	       half_at(wanted + 4) == field<u16>(mac, 4);
}

bool same_ipv6(const u8 *wanted, const u8 *address)
{
	return word_at(wanted) == field<u32>(address, 0) &&
	       word_at(wanted + 4) == field<u32>(address, 4) &&
	       word_at(wanted + 8) == field<u32>(address, 8) &&
	       word_at(wanted + 12) == field<u32>(address, 12);
}

/** The packet's destination interface number; false when it has none yet. */
bool dst_intf_of(const void *efbuff, u32 *number)
{
	const void *intf = address_of(field<u32>(efbuff, ef::kDstIntf));
	if (!intf)
		return false;
	*number = field<u32>(intf, intf::kIfindex);
	return true;
}

/* Source addresses, from the start of their headers. */
constexpr u32 kIpv4Source = 12;
constexpr u32 kIpv6Source = 8;

/** Bytes of the network header, with 0 for those behind the frame's end. */
template <u32 len> struct NetBytes {
	u8 bytes[len];

	NetBytes(const void *efbuff, u32 at)
	{
		copy_padded(efbuff, net_header(efbuff) + at, bytes, len);
	}
};

} // namespace

void pktd_filter_store(const mox_packet_filter &filter)
{
	auto *to = reinterpret_cast<shared_word *>(&g_pktd_kdbg_filter);

	for (u32 at = 0; at < sizeof(filter); at += sizeof(u32))
		__atomic_store_n(to++, field<u32>(&filter, at), __ATOMIC_RELAXED);
}

} // namespace mox

using namespace mox;

extern "C" {

int pktd_match_filter_debug(const void *efbuff, const pkt_info *info)
{
	const mox_packet_filter &filter = g_pktd_kdbg_filter;
	const u32 flags = word_at(&filter.flags);

	if (flags == 0)
		return 1;
	if ((flags & MOX_FILTER_VID) && word_at(&filter.vid) != info->vlan)
		return 0;
	if ((flags & MOX_FILTER_SRC_MAC) && !same_mac(filter.src_mac, info->src_mac))
		return 0;
	if ((flags & MOX_FILTER_DST_MAC) && !same_mac(filter.dst_mac, info->dst_mac))
		return 0;
	if ((flags & MOX_FILTER_SRC_INTF) && word_at(&filter.src_intf) != info->ifindex)
		return 0;
	if (flags & MOX_FILTER_DST_INTF) {
		u32 number;
		if (!dst_intf_of(efbuff, &number) || word_at(&filter.dst_intf) != number)
			return 0;
	}
	if ((flags & (MOX_FILTER_SRC_IPV4 | MOX_FILTER_DST_IPV4)) &&
	    !(info->flags & pkt_flag::kIpv4))
		return 0;
	if ((flags & MOX_FILTER_SRC_IPV4) &&
	    word_at(filter.src_ipv4) != field<u32>(NetBytes<4>(efbuff, kIpv4Source).bytes, 0))
		return 0;
	if ((flags & MOX_FILTER_DST_IPV4) && word_at(filter.dst_ipv4) != info->ipv4_dst)
		return 0;
	if ((flags & (MOX_FILTER_SRC_IPV6 | MOX_FILTER_DST_IPV6)) &&
	    !(info->flags & pkt_flag::kIpv6))
		return 0;
	if ((flags & MOX_FILTER_SRC_IPV6) &&
	    !same_ipv6(filter.src_ipv6, NetBytes<16>(efbuff, kIpv6Source).bytes))
		return 0;
	if ((flags & MOX_FILTER_DST_IPV6) && !same_ipv6(filter.dst_ipv6, info->ipv6_dst))
		return 0;
	return 1;
}

/* Unlike all other lines these end in CR LF: kept, as operators' scripts expect it. */
void show_pktd_filter_debug(const mox_packet_filter *filter)
{
	const u32 flags = filter->flags;

	if (flags & MOX_FILTER_VID)
		MOX_DEBUG("    Filter: vid %u\r\n", __builtin_bswap32(filter->vid) & 0xfff);
	if (flags & MOX_FILTER_SRC_MAC)
		MOX_DEBUG("    Filter: src_mac %pM\r\n", filter->src_mac);
	if (flags & MOX_FILTER_DST_MAC)
		MOX_DEBUG("    Filter: dst_mac %pM\r\n", filter->dst_mac);
	if (flags & MOX_FILTER_SRC_INTF)
		MOX_DEBUG("    Filter: src_intf %u\r\n", filter->src_intf);
	if (flags & MOX_FILTER_DST_INTF)
		MOX_DEBUG("    Filter: dst_intf %u\r\n", filter->dst_intf);
	if (flags & MOX_FILTER_SRC_IPV4)
		MOX_DEBUG("    Filter: src_ipv4 %pI4\r\n", filter->src_ipv4);
	if (flags & MOX_FILTER_DST_IPV4)
		MOX_DEBUG("    Filter: dst_ipv4 %pI4\r\n", filter->dst_ipv4);
	if (flags & MOX_FILTER_SRC_IPV6)
		MOX_DEBUG("    Filter: src_ipv6 %pI6\r\n", filter->src_ipv6);
	if (flags & MOX_FILTER_DST_IPV6)
		MOX_DEBUG("    Filter: dst_ipv6 %pI6\r\n", filter->dst_ipv6);
}
} // extern "C"
