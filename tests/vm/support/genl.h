// SPDX-License-Identifier: GPL-2.0-only
// Generic netlink by hand: every byte of a message is the test's own, because the bytes are what is tested.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/socket.h"

namespace vm {

/// One message that came back, cut out of its datagram.
struct Reply {
	Bytes bytes; ///< from the netlink header on, nlmsg_len bytes

	uint16_t type() const;
	/// The error of an NLMSG_ERROR: 0 for an acknowledgement, the negative errno otherwise; 1 when it is no such message.
	int error() const;
};

/// An AF_NETLINK socket on NETLINK_GENERIC, bound to a port that the kernel chose, in the thread's network namespace.
class GenlSocket {
public:
	GenlSocket();
	~GenlSocket();
	GenlSocket(const GenlSocket &) = delete;

	int fd() const { return fd_; }
	/// nlmsg_pid of what is addressed to this socket.
	uint32_t port() const { return port_; }
	/// Sends these bytes as one datagram to the kernel, which handles them before this returns; 0 or the errno.
	int send(const Bytes &datagram);
	/// The next message; nothing when none comes within the time.
	std::optional<Reply> receive(int milliseconds = 0);
	/// Throws everything away that is there, overruns included.
	void drain();

private:
	int fd_ = -1;
	uint32_t port_ = 0;
	Bytes rest_;
};

/// Host-order words of a message.
void put16(Bytes &to, uint16_t value);
void put32(Bytes &to, uint32_t value);

/// A message with a netlink and a generic netlink header around the payload; nlmsg_len is the true length unless given.
struct GenlMessage {
	uint16_t type = 0;
	uint16_t flags = 0x01; ///< NLM_F_REQUEST
	uint32_t seq = 1;
	uint8_t cmd = 0;
	uint8_t version = 1;
	uint16_t reserved = 0;
	Bytes payload;
	int64_t length = -1;

	Bytes bytes() const;
};

/// An attribute header and its payload, not padded; nla_len is the true length unless given.
Bytes attribute(uint16_t type, const Bytes &payload, int length = -1);

/// Attributes by type, as they stand in these bytes; of several with one type the last.
std::map<uint16_t, Bytes> attributes(const Bytes &bytes, size_t from = 0);

/// The kernel controller's record of a family by name; nothing when there is none. The map is of its attributes.
std::optional<std::map<uint16_t, Bytes>> genl_family(GenlSocket &socket, const std::string &name);
/// The family's number; 0 when there is none.
uint16_t genl_family_id(GenlSocket &socket, const std::string &name);

} // namespace vm
