// SPDX-License-Identifier: GPL-2.0-only
// Frames that traces follow or do not, and filters by one criterion.
#pragma once

#include "trace_fixture.h"

using Tracer = TraceTest;

inline constexpr u32 kLocation = PACKET_LEV2_LOC;

// A frame of UDP over IPv4.
inline FrameHeaders udp4()
{
	FrameHeaders h{};
	h.length = 60;
	h.ifindex = 7;
	h.vlan = 100;
	h.has_macs = true;
	const u8 dst[6] = { 2, 0, 0, 0, 0, 1 }, src[6] = { 2, 0, 0, 0, 0, 2 };
	memcpy(h.dst_mac, dst, 6);
	memcpy(h.src_mac, src, 6);
	h.ether_type = 0x0800;
	h.address_size = 4;
	const u8 from[4] = { 10, 0, 0, 9 }, to[4] = { 192, 0, 2, 7 };
	memcpy(h.src_address, from, 4);
	memcpy(h.dst_address, to, 4);
	h.ip_protocol = 17;
	h.has_ports = true;
	h.src_port = 1000;
	h.dst_port = 53;
	return h;
}

inline FrameHeaders tcp6()
{
	FrameHeaders h = udp4();
	h.ether_type = 0x86dd;
	h.address_size = 16;
	for (u8 i = 0; i < 16; i++) {
		h.src_address[i] = 0x20 + i;
		h.dst_address[i] = 0x60 + i;
	}
	h.ip_protocol = 6;
	return h;
}

// A frame with nothing but its length.
inline FrameHeaders bare()
{
	FrameHeaders h{};
	h.length = 60;
	return h;
}

inline FrameHeaders arp()
{
	FrameHeaders h = udp4();
	h.ether_type = 0x0806;
	h.vlan = 0;
	h.address_size = 0;
	memset(h.src_address, 0, 16);
	memset(h.dst_address, 0, 16);
	h.ip_protocol = 0;
	h.has_ports = false;
	h.src_port = h.dst_port = 0;
	return h;
}

// A filter by one attribute of a request, or several, as the module reads them.
inline TraceFilter filter(std::initializer_list<mox_capture_request_attr> criteria)
{
	TraceFilter f{};
	for (mox_capture_request_attr which : criteria)
		f.criteria |= 1u << which;
	return f;
}

inline TraceFilter by_mac(const Bytes &mac)
{
	TraceFilter f = filter({ MOX_CAPTURE_REQUEST_MAC });
	memcpy(f.mac, mac.data(), 6);
	return f;
}
inline TraceFilter by_address(const Bytes &address, int prefix = -1)
{
	TraceFilter f = filter({ MOX_CAPTURE_REQUEST_ADDRESS });
	f.address_size = static_cast<u8>(address.size());
	memcpy(f.address, address.data(), address.size());
	if (prefix >= 0) {
		f.criteria |= 1u << MOX_CAPTURE_REQUEST_PREFIX;
		f.prefix = static_cast<u8>(prefix);
	}
	return f;
}
template <typename T> TraceFilter by(mox_capture_request_attr which, T TraceFilter::*field, T value)
{
	TraceFilter f = filter({ which });
	f.*field = value;
	return f;
}
inline TraceFilter by_location(u32 n)
{
	return by(MOX_CAPTURE_REQUEST_LOCATION, &TraceFilter::location, n);
}
inline TraceFilter by_ifindex(u32 n)
{
	return by(MOX_CAPTURE_REQUEST_IFINDEX, &TraceFilter::ifindex, n);
}
inline TraceFilter by_vlan(u16 n)
{
	return by(MOX_CAPTURE_REQUEST_VLAN, &TraceFilter::vlan, n);
}
inline TraceFilter by_type(u16 n)
{
	return by(MOX_CAPTURE_REQUEST_ETHER_TYPE, &TraceFilter::ether_type, n);
}
inline TraceFilter by_protocol(u8 n)
{
	return by(MOX_CAPTURE_REQUEST_IP_PROTOCOL, &TraceFilter::ip_protocol, n);
}
inline TraceFilter by_port(u16 n)
{
	return by(MOX_CAPTURE_REQUEST_PORT, &TraceFilter::port, n);
}

inline const Bytes kDst{ 2, 0, 0, 0, 0, 1 }, kSrc{ 2, 0, 0, 0, 0, 2 }, kOther{ 2, 0, 0, 0, 0, 3 };
