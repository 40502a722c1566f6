// SPDX-License-Identifier: GPL-2.0-only
// Builds efbuffs byte by byte, in a plain vector: header of 256 bytes, frame behind.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace oracle {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes a, const Bytes &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

inline Bytes be16(uint16_t v)
{
	return { uint8_t(v >> 8), uint8_t(v) };
}

// Ethernet header with given addresses (last byte only varies) and EtherType.
inline Bytes eth(uint16_t type, uint8_t dst = 1, uint8_t src = 2)
{
	return Bytes{ 2, 0, 0, 0, 0, dst, 2, 0, 0, 0, 0, src } + be16(type);
}

inline Bytes ipv4(uint8_t proto, const Bytes &dst, const Bytes &payload, uint8_t ihl = 5)
{
	uint16_t total = ihl * 4 + payload.size();
	Bytes h{ uint8_t(0x40 | ihl),
		 0,
		 uint8_t(total >> 8),
		 uint8_t(total),
		 0,
		 0,
		 0,
		 0,
		 64,
		 proto,
		 0,
		 0,
		 10,
		 0,
		 0,
		 9 };
	h = h + dst;
	h.resize(ihl * 4, 0x01);
	return h + payload;
}

inline Bytes ports(uint16_t src, uint16_t dst, size_t size = 8)
{
	Bytes h = be16(src) + be16(dst);
	h.resize(size);
	return h;
}

inline Bytes ipv6(uint8_t next, const Bytes &dst, const Bytes &payload)
{
	Bytes h{ 0x60, 0, 0, 0 };
	h = h + be16(payload.size()) + Bytes{ next, 64 };
	Bytes src(16, 0);
	src[15] = 9;
	return h + src + dst + payload;
}

// An IPv6 address: two leading bytes and the last one.
inline Bytes addr6(uint8_t a, uint8_t b, uint8_t last)
{
	Bytes v(16, 0);
	v[0] = a;
	v[1] = b;
	v[15] = last;
	return v;
}

// An options header (hop-by-hop, routing, destination) of 8 * (1 + extra) bytes.
inline Bytes options(uint8_t next, uint8_t extra = 0)
{
	Bytes h{ next, extra };
	h.resize(8 * (1 + extra));
	return h;
}

inline Bytes auth(uint8_t next, uint8_t words_minus_2 = 4)
{
	Bytes h{ next, words_minus_2 };
	h.resize(4 * (words_minus_2 + 2));
	return h;
}

inline Bytes fragment(uint8_t next, uint16_t offset_field)
{
	return Bytes{ next, 0 } + be16(offset_field) + Bytes{ 0, 0, 0, 1 };
}

struct Meta {
	uint8_t kind = 2;
	uint16_t l2_len = 14;
	uint32_t wlan_flags = 0;
	uint32_t attr = 0;
	uint32_t flags = 0;
	uint16_t inner_tci = 0; // host order; stored in network order
	uint16_t outer_tci = 0;
	uint8_t code = 0, sub_code = 0;
	uint32_t source = 0, dest = 0; // addresses of control blocks
	int64_t total = -1;            // -1: the frame's length
	uint16_t mac_offset = 256 + 16;
	int net_offset = -1;   // -1: behind the layer-2 header
	uint8_t behind = 0xee; // what lies behind the frame
};

// Past the frame stand at least 64 bytes from its start, filled with old memory: they
// may be read and mean nothing.
inline Bytes efbuff(const Meta &m, const Bytes &frame)
{
	Bytes b(m.mac_offset, 0);
	auto put16 = [&](size_t at, uint16_t v) { std::memcpy(&b[at], &v, 2); };
	auto put32 = [&](size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); };
	put32(4, m.source);
	put32(8, m.dest);
	b[16] = m.inner_tci >> 8;
	b[17] = m.inner_tci;
	b[18] = m.outer_tci >> 8;
	b[19] = m.outer_tci;
	put16(20, m.l2_len);
	put16(22, m.mac_offset);
	put16(24, m.net_offset >= 0 ? m.net_offset : m.mac_offset + m.l2_len);
	put32(32, m.flags);
	b[40] = m.kind;
	put32(56, m.wlan_flags);
	put32(96, m.attr);
	put32(164, m.total >= 0 ? m.total : frame.size());
	b[184] = m.code;
	b[185] = m.sub_code;
	b = b + frame;
	if (frame.size() < 80)
		b.resize(b.size() + 80 - frame.size(), m.behind);
	return b;
}

} // namespace oracle
