/* SPDX-License-Identifier: GPL-2.0-only */
/* The netlink socket itself, against the family that every kernel has. */
#include "netlink_socket.h"

#include "pending_signal.h"

#include <gtest/gtest.h>

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstring>

namespace {

/** A request for the list of all families; the kernel queues the answer's begin before the send returns. */
std::vector<std::uint8_t> list_of_families(std::uint32_t port)
{
	struct {
		nlmsghdr head;
		genlmsghdr body;
	} request{};
	request.head.nlmsg_len = sizeof(request);
	request.head.nlmsg_type = GENL_ID_CTRL;
	request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	request.head.nlmsg_pid = port;
	request.body.cmd = CTRL_CMD_GETFAMILY;
	request.body.version = 1;
	std::vector<std::uint8_t> bytes(sizeof(request));
	std::memcpy(bytes.data(), &request, sizeof(request));
	return bytes;
}

TEST(NetlinkSocket, receive__a_queued_datagram_does_not_keep_signals_out)
{
	PendingSignal signal;
	auto socket = moxctl::open_netlink(&signal.waiting);
	socket->send(list_of_families(socket->port()));
	EXPECT_FALSE(socket->receive(std::chrono::seconds(10)).empty());
	EXPECT_EQ(PendingSignal::stopped, 1);
}

TEST(NetlinkSocket, receive__without_a_mask_signals_stay_blocked)
{
	PendingSignal signal;
	auto socket = moxctl::open_netlink();
	socket->send(list_of_families(socket->port()));
	EXPECT_FALSE(socket->receive(std::chrono::seconds(10)).empty());
	EXPECT_EQ(PendingSignal::stopped, 0);
}

} // namespace
