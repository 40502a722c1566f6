/* SPDX-License-Identifier: GPL-2.0-only */
/* A netlink socket, as far as the channels to the module need one. */
#ifndef MOXCTL_NETLINK_SOCKET_H
#define MOXCTL_NETLINK_SOCKET_H

#include "status.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace moxctl {

/** The kernel dropped messages because the socket's receive buffer was full. Later ones can still be received. */
class Overrun : public Failure {
public:
	using Failure::Failure;
};

/** Sends and receives whole netlink datagrams; tests replace it. Functions throw Failure. */
class NetlinkSocket {
public:
	virtual ~NetlinkSocket() = default;
	/** The port id of the socket. */
	virtual std::uint32_t port() const = 0;
	virtual void send(std::span<const std::uint8_t> datagram) = 0;
	/** The next datagram from the kernel; empty when none arrived in time, or a signal came. Throws Overrun. */
	virtual std::vector<std::uint8_t> receive(std::chrono::milliseconds time) = 0;
};

/**
 * A generic netlink socket of the calling process's network namespace. waiting is the signal mask while it waits,
 * and after the wait for a moment; null: the process's own.
 */
std::unique_ptr<NetlinkSocket> open_netlink(const sigset_t *waiting = nullptr);

} // namespace moxctl

#endif
