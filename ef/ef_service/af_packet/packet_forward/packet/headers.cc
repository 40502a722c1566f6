// SPDX-License-Identifier: GPL-2.0-only
#include "packet/headers.hpp"

#include "packet/info.hpp"

namespace mox {

namespace ef = platform::ef;

namespace {

constexpr u16 kIpv4 = 0x0800;
constexpr u16 kIpv6 = 0x86DD;
constexpr u8 kTcp = 6;
constexpr u8 kUdp = 17;
constexpr u32 kEthernet = 14;
constexpr u32 kIpv4Head = 20;
constexpr u32 kIpv6Head = 40;
/* Bytes from the network header on that are read: of IPv4 with options, with the ports. */
constexpr u32 kIpBytes = 64;

u16 big16(const u8 *at)
{
	return static_cast<u16>(at[0] << 8 | at[1]);
}

void read_ports(const u8 *at, FrameHeaders *headers)
{
	headers->has_ports = true;
	headers->src_port = big16(at);
	headers->dst_port = big16(at + 2);
}

bool has_ports(u8 protocol)
{
	return protocol == kTcp || protocol == kUdp;
}

void read_ipv4(const u8 *ip, FrameHeaders *headers)
{
	const u32 size = (ip[0] & 0x0Fu) * 4;
	const bool first = (big16(ip + 6) & 0x1FFF) == 0;

	if (size < kIpv4Head)
		return;
	headers->address_size = 4;
	headers->ip_protocol = ip[9];
	__builtin_memcpy(headers->src_address, ip + 12, 4);
	__builtin_memcpy(headers->dst_address, ip + 16, 4);
	if (first && has_ports(headers->ip_protocol))
		read_ports(ip + size, headers);
}

void read_ipv6(const u8 *ip, FrameHeaders *headers)
{
	headers->address_size = 16;
	headers->ip_protocol = ip[6];
	__builtin_memcpy(headers->src_address, ip + 8, 16);
	__builtin_memcpy(headers->dst_address, ip + 24, 16);
	if (has_ports(headers->ip_protocol))
		read_ports(ip + kIpv6Head, headers);
}

} // namespace

FrameHeaders read_headers(const void *efbuff)
{
	FrameHeaders headers{};
	u8 bytes[kIpBytes + 4];

	headers.length = field<u32>(efbuff, ef::kTotalLen);
	headers.ifindex = source_ifindex(efbuff);
	headers.vlan = static_cast<u16>(vlan_id_of(efbuff));
	if (field<u16>(efbuff, ef::kL2Len) >= kEthernet) {
		copy_padded(efbuff, mac_header(efbuff), bytes, kEthernet);
		headers.has_macs = true;
		__builtin_memcpy(headers.dst_mac, bytes, 6);
		__builtin_memcpy(headers.src_mac, bytes + 6, 6);
		headers.ether_type = big16(bytes + 12);
	}
	copy_padded(efbuff, net_header(efbuff), bytes, sizeof(bytes));
	/* Without a layer-2 header only the version tells the protocols apart. */
	const u8 version = bytes[0] >> 4;
	const bool bare = !headers.has_macs;
	if (version == 4 && (bare || headers.ether_type == kIpv4))
		read_ipv4(bytes, &headers);
	else if (version == 6 && (bare || headers.ether_type == kIpv6))
		read_ipv6(bytes, &headers);
	return headers;
}

} // namespace mox
