// SPDX-License-Identifier: GPL-2.0-only
// A capture socket as a process sees it. Calls return 0 or the errno, so that a test reads as "this call, that answer".
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <linux/if_packet.h>
#include <sys/socket.h>

#include "mox_packet.h"

namespace vm {

using Bytes = std::vector<uint8_t>;

/// The rule record of options 11 and 12, with its elements.
struct Rule {
	uint16_t type;
	uint16_t size;
	uint16_t count;
	Bytes elements;

	Bytes record() const;
};

/// Rule of one type: elements are laid end to end, size is the type's own element size.
Rule rule(uint16_t type, std::initializer_list<Bytes> elements);
Rule all();
Rule ethertype(uint16_t host_order);
Rule u8s(uint16_t type, std::initializer_list<uint8_t> values);
Rule be16s(uint16_t type, std::initializer_list<uint16_t> host_order);
Rule le16s(uint16_t type, std::initializer_list<uint16_t> values);
Rule u32s(uint16_t type, std::initializer_list<uint32_t> values);
/// For the types that have no value: one element of nothing.
Rule flag(uint16_t type);

Bytes be16(uint16_t value);
Bytes le16(uint16_t value);
Bytes le32(uint32_t value);

/// What one recvmsg gave.
struct Packet {
	Bytes bytes; ///< what was copied
	ssize_t result = 0;
	int flags = 0; ///< msg_flags
	sockaddr_ll addr{};
	socklen_t namelen = 0;
	mox_packet_ctrl_info info{};
};

class Socket {
public:
	explicit Socket(int type = SOCK_RAW, uint16_t protocol_net = 0);
	~Socket();
	Socket(Socket &&other) noexcept;
	Socket &operator=(Socket &&other) noexcept;
	Socket(const Socket &) = delete;
	Socket &operator=(const Socket &) = delete;

	int fd() const { return fd_; }
	/// 0, or the errno of the failed socket(2).
	int error() const { return error_; }
	void close();

	int option_raw(int level, int option, const void *value, socklen_t length);
	int option(int option, uint32_t value)
	{
		return option_raw(MOX_SOL_PACKET, option, &value, sizeof value);
	}
	int location(uint32_t value) { return option(PACKET_LOCATION, value); }
	int treatment(uint32_t value) { return option(PACKET_TREATMENT, value); }
	int ctrl(bool on) { return option(PACKET_CTRL_INFO, on); }
	int add(const Rule &rule);
	int del(const Rule &rule);
	int bind(uint32_t ifindex, uint16_t protocol_net = 0,
		 socklen_t length = sizeof(sockaddr_ll), uint16_t family = MOX_PACKET_FAMILY);
	/// PACKET_STATISTICS; the reading clears every counter of the socket.
	mox_packet_stats stats();

	/// Waits up to the time for a frame and reads it with its control record, when the socket asks for one.
	std::optional<Packet> receive(int milliseconds = 3000);
	/// A frame that is there now.
	std::optional<Packet> receive_now() { return receive(0); }
	/// Throws everything queued away; the number of frames.
	size_t drain();

private:
	int fd_ = -1;
	int error_ = 0;
};

/// recvmsg(2) itself. The C library's wrapper may rewrite the control buffer (it converts timestamps for programs with a
/// 64-bit clock), so the tests go to the system call: the bytes checked are the kernel's.
ssize_t raw_recvmsg(int fd, msghdr *message, int flags);

/// A socket with location, treatment and one rule, ready to capture; fails the test when a step is refused.
Socket capture(uint32_t location, uint32_t treatment, const Rule &rule, int type = SOCK_RAW);

/// Sockets of the family in use in the calling thread's namespace, by the kernel's own books, or -1.
long sockets_in_use();

} // namespace vm
