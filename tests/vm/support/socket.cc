// SPDX-License-Identifier: GPL-2.0-only
#include "support/socket.h"

#include <string>
#include <sstream>
#include <fstream>
#include <cerrno>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace vm {

Bytes Rule::record() const
{
	Bytes out;
	for (uint16_t word : { type, size, count }) {
		out.push_back(uint8_t(word));
		out.push_back(uint8_t(word >> 8));
	}
	out.insert(out.end(), elements.begin(), elements.end());
	return out;
}

Bytes be16(uint16_t value)
{
	return { uint8_t(value >> 8), uint8_t(value) };
}
Bytes le16(uint16_t value)
{
	return { uint8_t(value), uint8_t(value >> 8) };
}
Bytes le32(uint32_t value)
{
	return { uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24) };
}

Rule rule(uint16_t type, std::initializer_list<Bytes> elements)
{
	Rule out{ type, 0, uint16_t(elements.size()), {} };
	for (const Bytes &element : elements) {
		out.size = uint16_t(element.size());
		out.elements.insert(out.elements.end(), element.begin(), element.end());
	}
	return out;
}

Rule all()
{
	return Rule{ PACKET_ALL, 0, 0, {} };
}
Rule flag(uint16_t type)
{
	return Rule{ type, 0, 1, {} };
}
Rule ethertype(uint16_t host_order)
{
	return be16s(PACKET_ETH_PROT_EQUAL, { host_order });
}

namespace {
template <class T, class Encode>
Rule encoded(uint16_t type, std::initializer_list<T> values, Encode encode)
{
	Rule out{ type, 0, uint16_t(values.size()), {} };
	for (T value : values) {
		Bytes element = encode(value);
		out.size = uint16_t(element.size());
		out.elements.insert(out.elements.end(), element.begin(), element.end());
	}
	return out;
}
} // namespace

Rule u8s(uint16_t type, std::initializer_list<uint8_t> values)
{
	return encoded(type, values, [](uint8_t value) { return Bytes{ value }; });
}
Rule be16s(uint16_t type, std::initializer_list<uint16_t> values)
{
	return encoded(type, values, be16);
}
Rule le16s(uint16_t type, std::initializer_list<uint16_t> values)
{
	return encoded(type, values, le16);
}
Rule u32s(uint16_t type, std::initializer_list<uint32_t> values)
{
	return encoded(type, values, le32);
}

Socket::Socket(int type, uint16_t protocol_net)
{
	fd_ = ::socket(MOX_PACKET_FAMILY, type, protocol_net);
	error_ = fd_ < 0 ? errno : 0;
}

Socket::~Socket()
{
	close();
}

Socket::Socket(Socket &&other) noexcept : fd_(std::exchange(other.fd_, -1)), error_(other.error_) {}

Socket &Socket::operator=(Socket &&other) noexcept
{
	if (this != &other) {
		close();
		fd_ = std::exchange(other.fd_, -1);
		error_ = other.error_;
	}
	return *this;
}

void Socket::close()
{
	if (fd_ >= 0)
		::close(std::exchange(fd_, -1));
}

int Socket::option_raw(int level, int option, const void *value, socklen_t length)
{
	return ::setsockopt(fd_, level, option, value, length) ? errno : 0;
}

int Socket::add(const Rule &rule)
{
	Bytes record = rule.record();
	return option_raw(MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, record.data(), record.size());
}

int Socket::del(const Rule &rule)
{
	Bytes record = rule.record();
	return option_raw(MOX_SOL_PACKET, MOX_PACKET_DEL_RULE, record.data(), record.size());
}

int Socket::bind(uint32_t ifindex, uint16_t protocol_net, socklen_t length, uint16_t family)
{
	sockaddr_ll address{};
	address.sll_family = family;
	address.sll_protocol = protocol_net;
	address.sll_ifindex = int(ifindex);
	return ::bind(fd_, reinterpret_cast<sockaddr *>(&address), length) ? errno : 0;
}

mox_packet_stats Socket::stats()
{
	mox_packet_stats stats{};
	socklen_t length = sizeof stats;
	if (::getsockopt(fd_, MOX_SOL_PACKET, MOX_PACKET_STATISTICS, &stats, &length) ||
	    length != sizeof stats)
		ADD_FAILURE() << "PACKET_STATISTICS: " << strerror(errno) << ", length " << length;
	return stats;
}

std::optional<Packet> Socket::receive(int milliseconds)
{
	pollfd waiting{ fd_, POLLIN, 0 };
	if (::poll(&waiting, 1, milliseconds) != 1)
		return std::nullopt;
	Packet packet;
	Bytes buffer(65536);
	iovec vector{ buffer.data(), buffer.size() };
	msghdr message{};
	message.msg_name = &packet.addr;
	message.msg_namelen = sizeof packet.addr;
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	message.msg_control = &packet.info;
	message.msg_controllen = sizeof packet.info;
	packet.result = raw_recvmsg(fd_, &message, MSG_DONTWAIT);
	if (packet.result < 0)
		return std::nullopt;
	packet.flags = message.msg_flags;
	packet.namelen = message.msg_namelen;
	buffer.resize(packet.result);
	packet.bytes = std::move(buffer);
	return packet;
}

size_t Socket::drain()
{
	size_t frames = 0;
	while (receive_now())
		++frames;
	return frames;
}

ssize_t raw_recvmsg(int fd, msghdr *message, int flags)
{
	return ::syscall(SYS_recvmsg, fd, message, flags);
}

Socket capture(uint32_t location, uint32_t treatment, const Rule &rule, int type)
{
	Socket socket(type);
	EXPECT_EQ(socket.error(), 0);
	EXPECT_EQ(socket.add(rule), 0);
	EXPECT_EQ(socket.treatment(treatment), 0);
	EXPECT_EQ(socket.location(location), 0);
	return socket;
}

long sockets_in_use()
{
	std::ifstream protocols("/proc/thread-self/net/protocols");
	for (std::string line; std::getline(protocols, line);) {
		std::istringstream fields(line);
		std::string name;
		long size, sockets;
		if (fields >> name >> size >> sockets && name == "PACKET")
			return sockets;
	}
	return -1;
}

} // namespace vm
