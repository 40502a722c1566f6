/* SPDX-License-Identifier: GPL-2.0 */
#include "netlink.h"

#include "status.h"

#include <linux/netlink.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace moxctl {
namespace {

struct FreeSocket {
	void operator()(nl_sock *socket) const { nl_socket_free(socket); }
};

class SystemSocket : public NetlinkSocket {
public:
	SystemSocket() : socket_(nl_socket_alloc())
	{
		if (!socket_)
			throw Failure("no memory for a netlink socket");
		int error = nl_connect(socket_.get(), NETLINK_GENERIC);
		if (error < 0)
			throw Failure(std::string("cannot open a generic netlink socket: ") +
				      nl_geterror(error) + "; the kernel needs CONFIG_NET");
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
		if (poll(&poll_for, 1, static_cast<int>(time.count())) <= 0)
			return {};
		sockaddr_nl from{};
		unsigned char *bytes = nullptr;
		int length = nl_recv(socket_.get(), &from, &bytes, nullptr);
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
};

} // namespace

std::unique_ptr<NetlinkSocket> open_netlink()
{
	return std::make_unique<SystemSocket>();
}

} // namespace moxctl
