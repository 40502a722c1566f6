// SPDX-License-Identifier: GPL-2.0-only
#include "support/frames.h"

#include <cstring>

namespace frames {

Bytes operator+(Bytes left, const Bytes &right)
{
	left.insert(left.end(), right.begin(), right.end());
	return left;
}

static Bytes be16(uint16_t value)
{
	return { uint8_t(value >> 8), uint8_t(value) };
}

Frame ethernet(uint16_t type, Bytes payload, Mac dst, Mac src)
{
	Frame frame;
	frame.bytes = Bytes(dst.begin(), dst.end()) + Bytes(src.begin(), src.end()) + be16(type) +
		      payload;
	return frame;
}

Frame plain(uint16_t type, size_t length)
{
	Bytes payload(length - 14);
	for (size_t i = 0; i < payload.size(); ++i)
		payload[i] = uint8_t(i + 1);
	return ethernet(type, payload);
}

Frame arp(uint16_t operation)
{
	Bytes head = { 0, 1, 8, 0, 6, 4 };
	return ethernet(0x0806, head + be16(operation) + Bytes(20, 0x42) + Bytes(18, 0));
}

Frame eapol(uint8_t type, Bytes body)
{
	return ethernet(0x888e, Bytes{ 1, type } + body + Bytes(48, 0));
}

Frame snap(uint16_t type)
{
	Bytes llc = { 0xaa, 0xaa, 0x03, 0, 0, 0 };
	return ethernet(0x0040, llc + be16(type) + Bytes(40, 0x11));
}

Frame ipv4(uint8_t protocol, Bytes payload, uint32_t destination, unsigned header_words)
{
	Bytes header(header_words * 4, 0);
	header[0] = uint8_t(0x40 | header_words);
	uint16_t total = uint16_t(header.size() + payload.size());
	header[2] = uint8_t(total >> 8);
	header[3] = uint8_t(total);
	header[8] = 64;
	header[9] = protocol;
	const uint8_t source[4] = { 10, 0, 0, 1 };
	std::memcpy(&header[12], source, 4);
	for (int i = 0; i < 4; ++i)
		header[16 + i] = uint8_t(destination >> (24 - 8 * i));
	Frame frame = ethernet(0x0800, header + payload);
	frame.kind = lab::kKindIpv4;
	return frame;
}

Bytes udp(uint16_t source, uint16_t destination, size_t payload)
{
	return be16(source) + be16(destination) + be16(uint16_t(8 + payload)) + Bytes{ 0, 0 } +
	       Bytes(payload, 0x33);
}

Bytes tcp(uint16_t source, uint16_t destination)
{
	return be16(source) + be16(destination) +
	       Bytes{ 0, 0, 0, 1, 0, 0, 0, 0, 0x50, 0x02, 0x10, 0, 0, 0, 0, 0 };
}

Addr6 addr6(std::initializer_list<uint8_t> first_bytes, uint8_t last)
{
	Addr6 address{};
	size_t i = 0;
	for (uint8_t byte : first_bytes)
		address[i++] = byte;
	address[15] = last;
	return address;
}

Frame ipv6(uint8_t next, Bytes payload, Addr6 destination, int claimed)
{
	Bytes header(40, 0);
	header[0] = 0x60;
	uint16_t length = claimed >= 0 ? uint16_t(claimed) : uint16_t(payload.size());
	header[4] = uint8_t(length >> 8);
	header[5] = uint8_t(length);
	header[6] = next;
	header[7] = 64;
	Addr6 source = addr6({ 0xfe, 0x80 }, 1);
	std::memcpy(&header[8], source.data(), 16);
	std::memcpy(&header[24], destination.data(), 16);
	Frame frame = ethernet(0x86dd, header + payload);
	frame.kind = lab::kKindIpv6;
	return frame;
}

Bytes icmpv6(uint8_t type)
{
	return { type, 0, 0, 0, 0, 0, 0, 0 };
}

Bytes extension(uint8_t next, uint8_t units, Bytes rest)
{
	Bytes header(8 * (units + 1), 0);
	header[0] = next;
	header[1] = units;
	return header + rest;
}

Bytes authentication(uint8_t next, uint8_t units, Bytes rest)
{
	Bytes header(4 * (units + 2), 0);
	header[0] = next;
	header[1] = units;
	return header + rest;
}

Bytes fragment(uint8_t next, uint16_t offset_units, bool more, Bytes rest)
{
	return Bytes{ next, 0 } + be16(uint16_t(offset_units << 3 | more)) + Bytes{ 0, 0, 0, 9 } +
	       rest;
}

Frame without_l2(Frame frame)
{
	frame.bytes.erase(frame.bytes.begin(), frame.bytes.begin() + 14);
	frame.l2_len = 0;
	return frame;
}

Frame wlan80211(bool management)
{
	Frame frame = plain(0x88b5, 80);
	frame.bytes[0] = management ? 0x80 : 0x08;
	frame.l2_len = 24;
	frame.wlan_flags = lab::kWlan80211 | (management ? lab::kWlanMgmt : 0);
	return frame;
}

static Frame wps_base()
{
	// EAPOL version 1, EAP packet; the EAP header of five bytes ends at byte 22 of the frame, the type.
	return eapol(0, Bytes{ 0, 34, 2, 1, 0, 34, 1 } + Bytes(40, 0));
}

Frame wps_identity()
{
	Frame frame = wps_base();
	std::memcpy(&frame.bytes[23], "WFA-SimpleConfig-Enrollee-1-0", 29);
	return frame;
}

Frame wps_expanded()
{
	Frame frame = wps_base();
	frame.bytes[22] = 0xfe;
	const uint8_t vendor[7] = { 0x00, 0x37, 0x2a, 0, 0, 0, 1 };
	std::memcpy(&frame.bytes[23], vendor, sizeof vendor);
	return frame;
}

} // namespace frames
