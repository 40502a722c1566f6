/* SPDX-License-Identifier: GPL-2.0 */
/* The channel to the module: a generic netlink socket and its messages. */
#ifndef MOXCTL_NETLINK_H
#define MOXCTL_NETLINK_H

#include "request.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace moxctl {

/** Sends and receives whole netlink datagrams; tests replace it. Functions throw Failure. */
class NetlinkSocket {
public:
	virtual ~NetlinkSocket() = default;
	/** The port id of the socket. */
	virtual std::uint32_t port() const = 0;
	virtual void send(std::span<const std::uint8_t> datagram) = 0;
	/** The next datagram from the kernel; empty when none arrived in time. */
	virtual std::vector<std::uint8_t> receive(std::chrono::milliseconds time) = 0;
};

/** A generic netlink socket of the calling process's network namespace. */
std::unique_ptr<NetlinkSocket> open_netlink();

/**
 * The module's family, found by name.
 *
 * The messages are read here and not by libnl's genl_ctrl_resolve and nl_wait_for_ack: both read one datagram and take
 * it for the answer, while the module's own answer comes before the acknowledgement and has no sequence number.
 */
class Channel {
public:
	/** Finds the family. timeout is for each answer. Throws Failure with the remedy when it is not there. */
	Channel(NetlinkSocket &socket, std::chrono::milliseconds timeout);

	/**
     * Sends a request and waits for its acknowledgement. The module serves a request in the context of its sender,
     * so the work is done, and all of its log lines are written, when this returns. Throws Failure.
     */
	void request(const Request &request);

	/** Waits for the module's own answer, which only MOX_MSG_TECH has; false when it did not come in time. */
	bool wait_for_answer();

private:
	std::vector<std::uint8_t> message(std::uint16_t type, std::uint16_t flags,
					  std::uint8_t command, std::uint8_t version,
					  std::uint16_t attribute,
					  std::span<const std::uint8_t> payload);
	template <typename Take> bool receive_until(Take take);

	NetlinkSocket &socket_;
	std::chrono::milliseconds timeout_;
	std::uint32_t sequence_ = 0;
	std::uint16_t family_ = 0;
	unsigned answers_ = 0;
};

} // namespace moxctl

#endif
