/* SPDX-License-Identifier: GPL-2.0-only */
#include "dhcp_message.h"

#include <algorithm>

namespace dhcp {
namespace {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

constexpr std::size_t ip_header = 20, udp_header = 8, bootp = 236, cookie = 4;
constexpr std::uint8_t udp = 17, boot_request = 1, boot_reply = 2, ethernet = 1;
constexpr std::uint16_t server_port = 67, client_port = 68, broadcast_flag = 0x8000;
constexpr std::uint32_t magic = 0x63825363;
enum Option : std::uint8_t {
	pad = 0,
	mask_option = 1,
	wanted_option = 50,
	lease_option = 51,
	type_option = 53,
	server_option = 54,
	end = 255,
};

std::uint16_t u16_at(View bytes, std::size_t at)
{
	return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::uint32_t u32_at(View bytes, std::size_t at)
{
	return static_cast<std::uint32_t>(u16_at(bytes, at)) << 16 | u16_at(bytes, at + 2);
}

void put(Bytes &out, std::size_t at, std::uint32_t value, unsigned width)
{
	for (unsigned i = 0; i < width; ++i)
		out[at + i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
}

void option(Bytes &out, std::uint8_t number, std::uint32_t value, std::uint8_t width)
{
	out.insert(out.end(), { number, width });
	out.resize(out.size() + width);
	put(out, out.size() - width, value, width);
}

/** The Internet checksum, on top of a sum begun elsewhere. */
std::uint16_t checksum(View bytes, std::uint32_t sum = 0)
{
	for (std::size_t i = 0; i < bytes.size(); i += 2)
		sum += static_cast<std::uint32_t>(bytes[i] << 8) |
		       (i + 1 < bytes.size() ? bytes[i + 1] : 0);
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<std::uint16_t>(~sum);
}

/** False when the options are not sound, or do not say what kind of message it is. */
bool parse_options(View options, Request &request)
{
	bool has_type = false;
	for (std::size_t at = 0; at < options.size() && options[at] != end;) {
		if (options[at] == pad) {
			++at;
			continue;
		}
		if (at + 2 > options.size() || at + 2 + options[at + 1] > options.size())
			return false;
		View value = options.subspan(at + 2, options[at + 1]);
		switch (options[at]) {
		case type_option:
			has_type = value.size() == 1;
			if (has_type)
				request.type = static_cast<Type>(value[0]);
			break;
		case wanted_option:
			if (value.size() == 4)
				request.wanted = u32_at(value, 0);
			break;
		case server_option:
			if (value.size() == 4)
				request.server = u32_at(value, 0);
			break;
		}
		at += 2 + value.size();
	}
	return has_type;
}

} // namespace

std::optional<Request> parse(View packet)
{
	if (packet.size() < ip_header || packet[0] >> 4 != 4 || packet[9] != udp)
		return std::nullopt;
	std::size_t header = (packet[0] & 0x0fu) * 4, total = u16_at(packet, 2);
	if (header < ip_header || total > packet.size() ||
	    total < header + udp_header + bootp + cookie || checksum(packet.first(header)) != 0)
		return std::nullopt;
	View message = packet.first(total).subspan(header);
	if (u16_at(message, 2) != server_port)
		return std::nullopt;

	message = message.subspan(udp_header);
	constexpr std::size_t hardware_length = 6;
	if (message[0] != boot_request || message[1] != ethernet || message[2] != hardware_length ||
	    u32_at(message, bootp) != magic)
		return std::nullopt;
	Request request;
	request.transaction = u32_at(message, 4);
	request.wants_broadcast = u16_at(message, 10) & broadcast_flag;
	request.client_address = u32_at(message, 12);
	std::copy_n(message.begin() + 28, request.client.size(), request.client.begin());
	if (!parse_options(message.subspan(bootp + cookie), request))
		return std::nullopt;
	return request;
}

std::vector<std::uint8_t> build(const Request &request, const Reply &reply, Address to)
{
	Bytes out(ip_header + udp_header + bootp + cookie);
	const std::size_t message = ip_header + udp_header;
	out[message] = boot_reply;
	out[message + 1] = ethernet;
	out[message + 2] = static_cast<std::uint8_t>(request.client.size());
	put(out, message + 4, request.transaction, 4);
	put(out, message + 10, request.wants_broadcast ? broadcast_flag : 0, 2);
	put(out, message + 16, reply.offered, 4);
	put(out, message + 20, reply.type == nak ? 0 : reply.server, 4);
	std::copy(request.client.begin(), request.client.end(),
		  out.begin() + static_cast<std::ptrdiff_t>(message) + 28);
	put(out, message + bootp, magic, 4);
	option(out, type_option, reply.type, 1);
	option(out, server_option, reply.server, 4);
	if (reply.type != nak) {
		option(out, lease_option, reply.lease, 4);
		option(out, mask_option, reply.mask, 4);
	}
	out.push_back(end);
	// Old clients require a message at least as long as BOOTP's.
	out.resize(std::max(out.size(), message + 300));

	out[0] = 0x45;
	put(out, 2, static_cast<std::uint32_t>(out.size()), 2);
	out[8] = 64;
	out[9] = udp;
	put(out, 12, reply.server, 4);
	put(out, 16, to, 4);
	put(out, 10, checksum(View(out).first(ip_header)), 2);

	auto length = static_cast<std::uint32_t>(out.size() - ip_header);
	put(out, ip_header, server_port, 2);
	put(out, ip_header + 2, client_port, 2);
	put(out, ip_header + 4, length, 2);
	std::uint32_t pseudo = udp + length;
	for (std::size_t at : { 12, 14, 16, 18 })
		pseudo += u16_at(out, at);
	std::uint16_t sum = checksum(View(out).subspan(ip_header), pseudo);
	put(out, ip_header + 6, sum ? sum : 0xffff, 2);
	return out;
}

} // namespace dhcp
