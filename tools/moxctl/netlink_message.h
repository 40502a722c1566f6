/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Generic netlink messages, and the look-up of a family.
 *
 * The messages are read here and not by libnl's genl_ctrl_resolve and nl_wait_for_ack: both read one datagram and take
 * it for the answer, while the answers of the module's families come before the acknowledgement.
 */
#ifndef MOXCTL_NETLINK_MESSAGE_H
#define MOXCTL_NETLINK_MESSAGE_H

#include "netlink_socket.h"

#include <linux/netlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace moxctl {

using Milliseconds = std::chrono::milliseconds;

/** The fixed part of a generic netlink message. */
struct MessageHead {
	std::uint16_t type; /**< the family's id */
	std::uint16_t flags;
	std::uint32_t sequence;
	std::uint32_t port;
	std::uint8_t command;
	std::uint8_t version;
};

/** Adds an attribute, padded to a multiple of four bytes. Throws Failure for a payload beyond 65,531 bytes. */
void append_attribute(std::vector<std::uint8_t> &to, std::uint16_t type,
		      std::span<const std::uint8_t> payload);

/** A whole message; attributes as append_attribute makes them. */
std::vector<std::uint8_t> make_message(const MessageHead &head,
				       std::span<const std::uint8_t> attributes);

/** The attributes of a generic netlink message; empty when it is too short for its own header. */
std::span<const std::uint8_t> attributes_in(const nlmsghdr *message);

/** The command of a generic netlink message; nothing when it is too short. */
std::optional<std::uint8_t> command_of(const nlmsghdr *message);

/** How the kernel answered a request. */
struct Acknowledgement {
	int error = 0;    /**< an errno value; 0: done */
	std::string text; /**< the kernel's own explanation, or empty */
};

/** The acknowledgement of a request, or the end of a dump (NLMSG_DONE); nothing when the message is neither. */
std::optional<Acknowledgement> acknowledgement(const nlmsghdr *message, std::uint32_t sequence);

/**
 * Passes every message of one datagram to take. Returns whether one of the calls returned true. A datagram that is cut
 * ends with its last whole message.
 */
template <typename Take> bool for_each_message(std::vector<std::uint8_t> &datagram, Take take)
{
	bool taken = false;
	int length = static_cast<int>(datagram.size());
	for (auto head = reinterpret_cast<nlmsghdr *>(datagram.data()); nlmsg_ok(head, length);
	     head = nlmsg_next(head, &length))
		taken = take(head) || taken;
	return taken;
}

/** Passes every message that arrives to take until that returns true; false when the time is over first. */
template <typename Take> bool receive_until(NetlinkSocket &socket, Milliseconds timeout, Take take)
{
	auto end = std::chrono::steady_clock::now() + timeout;
	for (;;) {
		auto left = std::chrono::duration_cast<Milliseconds>(
			end - std::chrono::steady_clock::now());
		auto datagram = socket.receive(std::max(left, Milliseconds(0)));
		if (datagram.empty() && left.count() <= 0)
			return false;
		if (for_each_message(datagram, take))
			return true;
	}
}

/**
 * The id of a generic netlink family; nothing when the kernel has none of that name. Throws Failure, with status_timeout
 * when the kernel does not answer.
 */
std::optional<std::uint16_t> find_family(NetlinkSocket &socket, const std::string &name,
					 std::uint32_t sequence, Milliseconds timeout);

/** The failure of a request that the kernel did not answer in time. */
Failure unanswered(Milliseconds timeout);

} // namespace moxctl

#endif
