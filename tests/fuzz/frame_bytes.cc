// SPDX-License-Identifier: GPL-2.0-only
#include "frame_bytes.h"

#include "mox_capture.h"
#include "mox_packet.h"
#include "platform.h"

namespace fuzz {

using namespace oracle;

namespace {

// The reference reads as much of the frame as the platform promises to be there.
constexpr size_t kMostBytes = 512;
constexpr uint32_t kPort = 7; // interface that all frames come from

uint8_t address_byte(Input &input)
{
	return uint8_t(1 + input.below(3));
}

// What follows an IPv6 header: extension headers, and at the end a protocol. first: the number of
// the first of them.
Bytes ipv6_chain(Input &input, uint8_t *first)
{
	const uint8_t protocols[] = { 6, 17, 58, 103, 59, 99 };
	const uint8_t protocol = protocols[input.below(std::size(protocols))];
	Bytes chain = ports(uint16_t(input.below(4)), uint16_t(input.below(4)),
			    input.below(2) ? 24 : input.below(24));
	uint8_t next = protocol;

	if (chain.size() > 0 && protocol == 58)
		chain[0] = uint8_t(128 + input.below(16));
	for (unsigned left = input.below(4); left != 0; left--) {
		const uint8_t headers[] = { 0, 43, 60, 51, 44 };
		const uint8_t header = headers[input.below(std::size(headers))];
		const uint8_t extra = uint8_t(input.below(3));
		chain = (header == 51   ? auth(next, extra)
			 : header == 44 ? fragment(next, uint16_t(input.below(2) * input.byte()))
					: options(next, extra)) +
			chain;
		next = header;
	}
	*first = next;
	return chain;
}

Bytes ip_packet(Input &input, Meta &meta)
{
	const uint8_t last = address_byte(input);

	if (input.below(2)) {
		const uint8_t protocols[] = { 6, 17, 1, 2 };
		const uint8_t net[] = { 10, 224, 225, 239 };
		meta.kind = platform::ef::kKindIpv4;
		return ipv4(protocols[input.below(std::size(protocols))],
			    { net[input.below(std::size(net))], 0, 0, last },
			    ports(uint16_t(input.below(4)), uint16_t(input.below(4)),
				  input.below(16)),
			    uint8_t(5 + input.below(2)));
	}
	uint8_t next;
	const Bytes chain = ipv6_chain(input, &next);
	const uint8_t net[] = { 0x20, 0xff };
	meta.kind = platform::ef::kKindIpv6;
	return ipv6(next, addr6(net[input.below(std::size(net))], uint8_t(input.below(8)), last),
		    chain);
}

// A Wi-Fi Simple Config exchange, by its identity or by its EAP type.
Bytes eapol(Input &input)
{
	Bytes frame = eth(0x888e) + Bytes{ 1, uint8_t(input.below(4)) };
	const std::string identity = "WFA-SimpleConfig-Enrollee-1-0";

	frame.resize(23);
	if (input.below(2)) {
		frame.insert(frame.end(), identity.begin(), identity.end());
	} else {
		frame.resize(30);
		frame[22] = 0xfe;
		frame[29] = uint8_t(input.below(2));
	}
	frame.resize(input.below(2) ? 80 : 60);
	return frame;
}

Bytes headers(Input &input, Meta &meta)
{
	switch (input.below(6)) {
	case 0:
		meta.kind = input.byte();
		return input.bytes(input.byte());
	case 1: {
		const Bytes packet = ip_packet(input, meta);
		return eth(meta.kind == platform::ef::kKindIpv4 ? 0x0800 : 0x86dd,
			   address_byte(input), address_byte(input)) +
		       packet;
	}
	case 2: // as tunnels have them
		meta.l2_len = 0;
		return ip_packet(input, meta);
	case 3:
		return eth(0x0806, address_byte(input), 2) + Bytes{ 0, 1, 8, 0, 6, 4 } +
		       be16(uint16_t(1 + input.below(2))) + Bytes(40);
	case 4:
		return eth(uint16_t(input.byte()), 1, 2) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0 } +
		       be16(uint16_t(1 + input.below(2))) + Bytes(40);
	default:
		return eapol(input);
	}
}

} // namespace

Frame any_frame(Input &input)
{
	Frame frame;
	Meta &meta = frame.meta;

	frame.bytes = headers(input, meta);
	const uint8_t how = input.byte();
	if (how & 1) {
		meta.flags = input.number<uint32_t>();
		meta.attr = input.byte();
		meta.code = input.byte();
		meta.sub_code = input.byte();
	}
	if (how & 2)
		meta.flags |= platform::ef::kFlagTrace;
	if (how & 4)
		meta.wlan_flags = input.number<uint32_t>();
	if (how & 8) {
		meta.inner_tci = input.number<uint16_t>();
		meta.outer_tci = input.number<uint16_t>();
	}
	if (how & 16)
		meta.l2_len = uint16_t(input.byte() % 64);
	for (unsigned changes = how / 32 % 4; changes != 0; changes--) {
		const size_t at = input.byte();
		const uint8_t by = input.byte();
		if (at < frame.bytes.size())
			frame.bytes[at] ^= by;
	}
	if (how & 128)
		frame.bytes.resize(input.byte());
	if (frame.bytes.size() > kMostBytes)
		frame.bytes.resize(kMostBytes);
	return frame;
}

namespace {

Bytes part(const Frame &frame, size_t at, size_t size)
{
	Bytes out(size);

	for (size_t i = 0; i < size && at + i < frame.bytes.size(); i++)
		out[i] = frame.bytes[at + i];
	return out;
}

Bytes little(uint64_t number, size_t size)
{
	Bytes out(size);

	for (uint8_t &byte : out) {
		byte = uint8_t(number);
		number >>= 8;
	}
	return out;
}

} // namespace

Bytes attribute_of(uint16_t type, const Bytes &payload)
{
	Bytes out = little(4 + payload.size(), 2) + little(type, 2) + payload;

	out.resize((out.size() + 3) & ~size_t{ 3 });
	return out;
}

Bytes filter_on(Input &input, const Frame &frame)
{
	const size_t net = frame.meta.l2_len;
	const uint32_t vid = frame.meta.inner_tci & 0xfffu;
	Bytes out = Bytes{ uint8_t(input.below(4) != 0), 0, 0, 0 } +
		    little(input.number<uint16_t>(), 4) + little(vid, 4) + part(frame, 6, 6) +
		    part(frame, 0, 6) + little(kPort, 4) + little(kPort, 4) +
		    part(frame, net + 12, 4) + part(frame, net + 16, 4) + part(frame, net + 8, 16) +
		    part(frame, net + 24, 16);
	const uint8_t at = input.byte();

	if (at >= 8 && at < out.size())
		out[at] ^= input.byte();
	return out;
}

Bytes trace_of(Input &input, const Frame &frame, uint32_t location)
{
	const uint16_t asked = input.number<uint16_t>();
	const size_t net = frame.meta.l2_len;
	const bool v6 = frame.meta.kind == platform::ef::kKindIpv6;
	const size_t size = v6 ? 16 : 4;
	const uint8_t how = input.byte();
	const size_t address = net + (v6 ? 8 : 12) + (how & 1 ? size : 0);
	// Lengths of extension headers are left out: the port is that of a plain packet.
	const size_t port = net + (v6 ? 40 : 20) + (how & 2 ? 2 : 0);
	const Bytes port_there = part(frame, port, 2);
	const Bytes type_there = part(frame, 12, 2);
	const struct {
		uint16_t type;
		Bytes value;
	} attributes[] = {
		{ MOX_CAPTURE_REQUEST_LOCATION, little(location, 4) },
		{ MOX_CAPTURE_REQUEST_IFINDEX, little(kPort, 4) },
		{ MOX_CAPTURE_REQUEST_VLAN, little(frame.meta.inner_tci & 0xfffu, 2) },
		{ MOX_CAPTURE_REQUEST_MAC, part(frame, how & 4 ? 6 : 0, 6) },
		{ MOX_CAPTURE_REQUEST_ETHER_TYPE, { type_there[1], type_there[0] } },
		{ MOX_CAPTURE_REQUEST_ADDRESS, part(frame, address, size) },
		{ MOX_CAPTURE_REQUEST_IP_PROTOCOL, part(frame, net + (v6 ? 6 : 9), 1) },
		{ MOX_CAPTURE_REQUEST_PORT, { port_there[1], port_there[0] } },
		{ MOX_CAPTURE_REQUEST_PREFIX, { uint8_t(how / 8 * 5) } },
	};
	Bytes out;
	unsigned bit = 0;

	for (const auto &[type, value] : attributes)
		if (asked & 1u << bit++)
			out = out + attribute_of(type, value);
	if (asked & 0x8000) {
		const uint8_t at = input.byte();
		if (at < out.size())
			out[at] ^= input.byte();
	}
	return out;
}

} // namespace fuzz
