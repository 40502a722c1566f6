/* SPDX-License-Identifier: GPL-2.0-only */
#include "netlink_socket.h"

#include "common/ending.h"

#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include <poll.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

namespace moxctl {
namespace {

/** A trace of a busy location fills this in well under a second; the kernel's default is a fifth of it. */
constexpr int kReceiveBuffer = 1 << 20;
constexpr std::size_t kLongestDatagram = 64 << 10;

struct FreeSocket {
	void operator()(nl_sock *socket) const { nl_socket_free(socket); }
};

class SystemSocket : public NetlinkSocket {
public:
	explicit SystemSocket(const sigset_t *waiting) : socket_(nl_socket_alloc())
	{
		if (!socket_)
			throw Failure("no memory for a netlink socket");
		int error = nl_connect(socket_.get(), NETLINK_GENERIC);
		if (error < 0)
			throw Failure(std::string("cannot open a generic netlink socket: ") +
				      nl_geterror(error) + "; the kernel needs CONFIG_NET");
		// These are improvements only: a kernel that lacks them is no reason to fail.
		int on = 1;
		setsockopt(nl_socket_get_fd(socket_.get()), SOL_NETLINK, NETLINK_EXT_ACK, &on,
			   sizeof(on));
		nl_socket_set_buffer_size(socket_.get(), kReceiveBuffer, 0);
		// Beyond net.core.rmem_max, with CAP_NET_ADMIN.
		setsockopt(nl_socket_get_fd(socket_.get()), SOL_SOCKET, SO_RCVBUFFORCE,
			   &kReceiveBuffer, sizeof(kReceiveBuffer));
		// No datagram of the kernel is longer; without this, libnl reads each of them twice.
		nl_socket_set_msg_buf_size(socket_.get(), kLongestDatagram);
		if (waiting)
			waiting_ = *waiting;
	}

	std::uint32_t port() const override { return nl_socket_get_local_port(socket_.get()); }

	void send(std::span<const std::uint8_t> datagram) override
	{
		// libnl only reads from it.
		int error = nl_sendto(socket_.get(), const_cast<std::uint8_t *>(datagram.data()),
				      datagram.size());
		if (error < 0)
			throw Failure(std::string("cannot send over netlink: ") +
				      nl_geterror(error));
	}

	std::vector<std::uint8_t> receive(std::chrono::milliseconds time) override
	{
		pollfd poll_for{ nl_socket_get_fd(socket_.get()), POLLIN, 0 };
		const timespec limit{ .tv_sec = static_cast<time_t>(time.count() / 1000),
				      .tv_nsec = static_cast<long>(time.count() % 1000 * 1000000) };
		if (ppoll(&poll_for, 1, &limit, waiting_ ? &*waiting_ : nullptr) <= 0)
			return {};
		if (waiting_)
			tool::deliver_pending_signals(*waiting_);
		sockaddr_nl from{};
		unsigned char *bytes = nullptr;
		int length = nl_recv(socket_.get(), &from, &bytes, nullptr);
		if (length == -NLE_NOMEM) // what libnl makes of ENOBUFS
			throw Overrun(
				"the kernel dropped netlink messages: the receive buffer was full");
		if (length < 0)
			throw Failure(std::string("cannot receive over netlink: ") +
				      nl_geterror(length));
		std::vector<std::uint8_t> datagram;
		// Any process may write to the socket; only the kernel has port 0.
		if (length > 0 && from.nl_pid == 0)
			datagram.assign(bytes, bytes + length);
		std::free(bytes);
		return datagram;
	}

private:
	std::unique_ptr<nl_sock, FreeSocket> socket_;
	std::optional<sigset_t> waiting_;
};

} // namespace

std::unique_ptr<NetlinkSocket> open_netlink(const sigset_t *waiting)
{
	return std::make_unique<SystemSocket>(waiting);
}

} // namespace moxctl
