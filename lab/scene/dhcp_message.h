/* SPDX-License-Identifier: GPL-2.0-only */
/* DHCP (RFC 2131) inside an IPv4 packet, as far as a server for a handful of stations needs it. */
#ifndef DHCP_MESSAGE_H
#define DHCP_MESSAGE_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace dhcp {

using Mac = std::array<std::uint8_t, 6>;
using Address = std::uint32_t; // host order

enum Type : std::uint8_t { discover = 1, offer = 2, request = 3, ack = 5, nak = 6, release = 7 };

constexpr Address broadcast = 0xffffffff;

/** What a client sent. */
struct Request {
	Type type{};
	std::uint32_t transaction = 0;
	bool wants_broadcast = false;
	Mac client{};
	Address client_address = 0;    /**< ciaddr: what it has already; 0: nothing */
	std::optional<Address> wanted; /**< option 50 */
	std::optional<Address> server; /**< option 54 */
};

/** What a server answers. */
struct Reply {
	Type type{};
	Address server = 0;
	Address offered = 0; /**< yiaddr; 0 in a nak */
	Address mask = 0;
	std::uint32_t lease = 0; /**< seconds */
};

/** The request in an IPv4 packet; nothing when it is not a whole and sound one to UDP port 67. */
std::optional<Request> parse(std::span<const std::uint8_t> packet);

/** The IPv4 packet of an answer, to an IPv4 address. */
std::vector<std::uint8_t> build(const Request &request, const Reply &reply, Address to);

} // namespace dhcp

#endif
