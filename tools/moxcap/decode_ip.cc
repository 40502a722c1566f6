/* SPDX-License-Identifier: GPL-2.0-only */
#include "decode_ip.h"

#include "decode.h"

#include <arpa/inet.h>

#include <string>

namespace moxcap {
namespace {

enum Protocol : std::uint8_t {
	hop_by_hop = 0,
	icmp = 1,
	tcp = 6,
	udp = 17,
	routing = 43,
	fragment = 44,
	ah = 51,
	icmpv6 = 58,
	no_next = 59,
	destination_options = 60,
};

constexpr std::uint16_t kDhcpServerPort = 67, kDhcpClientPort = 68;

std::string shown_ipv6(std::span<const std::uint8_t> address)
{
	char text[INET6_ADDRSTRLEN];
	return inet_ntop(AF_INET6, address.data(), text, sizeof(text)) ? text : "?";
}

std::string between(const std::string &source, const std::string &destination)
{
	return " " + source + " > " + destination;
}

std::string echo(const Reader &message)
{
	return " id " + std::to_string(message.u16(4)) + " seq " + std::to_string(message.u16(6));
}

std::string icmp_text(const Reader &message)
{
	static constexpr mox::NamedValue kTypes[] = {
		{ 0, "echo reply" },
		{ 3, "unreachable" },
		{ 5, "redirect" },
		{ 8, "echo request" },
		{ 9, "router advertisement" },
		{ 10, "router solicitation" },
		{ 11, "time exceeded" },
		{ 12, "parameter problem" },
	};
	std::uint8_t type = message.u8(0);
	std::string text = " " + name_or_number(kTypes, "type", type);
	return type == 0 || type == 8 ? text + echo(message) : text;
}

std::string icmpv6_text(const Reader &message)
{
	constexpr std::uint8_t echo_request = 128, echo_reply = 129, solicitation = 135,
			       advertisement = 136;
	static constexpr mox::NamedValue kTypes[] = {
		{ 1, "unreachable" },
		{ 2, "packet too big" },
		{ 3, "time exceeded" },
		{ 4, "parameter problem" },
		{ echo_request, "echo request" },
		{ echo_reply, "echo reply" },
		{ 130, "listener query" },
		{ 131, "listener report" },
		{ 132, "listener done" },
		{ 133, "router solicitation" },
		{ 134, "router advertisement" },
		{ solicitation, "neighbour solicitation" },
		{ advertisement, "neighbour advertisement" },
		{ 137, "redirect" },
		{ 143, "listener report v2" },
	};
	std::uint8_t type = message.u8(0);
	std::string text = " " + name_or_number(kTypes, "type", type);
	if (type == echo_request || type == echo_reply)
		text += echo(message);
	else if (type == solicitation || type == advertisement)
		text += " for " + shown_ipv6(message.some(8, 16));
	return text;
}

std::string tcp_text(const Reader &segment)
{
	static constexpr char kLetters[] = "FSRPAUEW"; // in the order of the bits, from bit 0 up
	std::uint8_t flags = segment.u8(13);
	std::string set;
	for (int bit = 0; bit < 8; ++bit)
		if (flags >> bit & 1)
			set += kLetters[bit];
	return " flags " + (set.empty() ? std::string("none") : set);
}

// The message type is an option somewhere behind the fixed part and the magic number.
std::string dhcp_text(const Reader &message)
{
	constexpr std::size_t magic_at = 236;
	constexpr std::uint32_t magic = 0x63825363;
	constexpr std::uint8_t pad = 0, message_type = 53, end = 255;
	static constexpr mox::NamedValue kTypes[] = {
		{ 1, "discover" }, { 2, "offer" }, { 3, "request" }, { 4, "decline" },
		{ 5, "ack" },      { 6, "nak" },   { 7, "release" }, { 8, "inform" },
	};

	std::string text = " for " + shown(message.mac(28));
	std::string yours = shown_ipv4(message.some(16, 4));
	if (yours != "0.0.0.0")
		text += " address " + yours;
	if (message.u32(magic_at) != magic)
		return " BOOTP" + text;
	for (std::size_t at = magic_at + 4; message.u8(at) != end;) {
		if (message.u8(at) == pad) {
			++at;
			continue;
		}
		if (message.u8(at) == message_type)
			return " " + name_or_number(kTypes, "type", message.u8(at + 2)) + text;
		at += 2 + message.u8(at + 1);
	}
	return " BOOTP" + text;
}

// The protocol's own name takes the place of "IPv4" or "IPv6" at the end of text.
void decode_transport(std::uint8_t protocol, const Reader &payload, const std::string &source,
		      const std::string &destination, std::string &text)
{
	if (protocol == icmp) {
		text.replace(text.size() - 4, 4, "ICMP" + between(source, destination));
		text += icmp_text(payload);
	} else if (protocol == icmpv6) {
		text.replace(text.size() - 4, 4, "ICMPv6" + between(source, destination));
		text += icmpv6_text(payload);
	} else if (protocol == udp || protocol == tcp) {
		std::uint16_t from = payload.u16(0), to = payload.u16(2);
		bool dhcp = protocol == udp && (to == kDhcpServerPort || to == kDhcpClientPort);
		text += protocol == tcp ? " TCP" : dhcp ? " DHCP" : " UDP";
		text += between(source + "." + std::to_string(from),
				destination + "." + std::to_string(to));
		if (dhcp)
			text += dhcp_text(payload.from(8));
		else if (protocol == tcp)
			text += tcp_text(payload);
	} else {
		text += between(source, destination) + " " +
			name_or_number(mox::ip_protocol_names(), "protocol", protocol);
	}
}

} // namespace

void decode_ipv4(const Reader &packet, std::string &text)
{
	constexpr std::uint16_t offset_mask = 0x1fff;

	std::string source = shown_ipv4(packet.some(12, 4)),
		    destination = shown_ipv4(packet.some(16, 4));
	std::uint16_t offset = packet.u16(6) & offset_mask;
	if (offset != 0) {
		text += between(source, destination) + " fragment at " + std::to_string(offset * 8);
		return;
	}
	decode_transport(packet.u8(9), packet.from((packet.u8(0) & 0xf) * 4), source, destination,
			 text);
}

void decode_ipv6(const Reader &packet, std::string &text)
{
	constexpr std::size_t header = 40;
	constexpr std::uint16_t offset_mask = 0xfff8;

	std::string source = shown_ipv6(packet.some(8, 16)),
		    destination = shown_ipv6(packet.some(24, 16));
	std::uint8_t next = packet.u8(6);
	std::size_t at = header;
	for (;;) {
		std::size_t length;
		if (next == hop_by_hop || next == routing || next == destination_options) {
			length = (packet.u8(at + 1) + 1) * 8;
		} else if (next == ah) {
			length = (packet.u8(at + 1) + 2) * 4;
		} else if (next == fragment) {
			length = 8;
			if (std::uint16_t offset = packet.u16(at + 2) & offset_mask) {
				text += between(source, destination) + " fragment at " +
					std::to_string(offset);
				return;
			}
		} else {
			break;
		}
		next = packet.u8(at);
		at += length;
	}
	if (next == no_next)
		text += between(source, destination) + " no payload";
	else
		decode_transport(next, packet.from(at), source, destination, text);
}

std::string shown_ipv4(std::span<const std::uint8_t> address)
{
	char text[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, address.data(), text, sizeof(text)) ? text : "?";
}

std::string name_or_number(std::span<const mox::NamedValue> names, std::string_view kind,
			   std::uint32_t value)
{
	std::string_view name = mox::value_name(names, value);
	return name.empty() ? std::string(kind) + " " + std::to_string(value) : std::string(name);
}

std::string printable(std::span<const std::uint8_t> text)
{
	std::string result;
	for (std::uint8_t c : text)
		result += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.';
	return result;
}

} // namespace moxcap
