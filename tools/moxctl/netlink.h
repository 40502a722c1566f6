/* SPDX-License-Identifier: GPL-2.0-only */
/* The channel to the module's family for requests: PACKET_GENL. */
#ifndef MOXCTL_NETLINK_H
#define MOXCTL_NETLINK_H

#include "netlink_socket.h"
#include "request.h"

#include <chrono>
#include <cstdint>

namespace moxctl {

/** The module's family, found by name. */
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
	template <typename Take> bool receive_messages(Take take);

	NetlinkSocket &socket_;
	std::chrono::milliseconds timeout_;
	std::uint32_t sequence_ = 0;
	std::uint16_t family_ = 0;
	unsigned answers_ = 0;
};

} // namespace moxctl

#endif
