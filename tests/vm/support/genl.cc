// SPDX-License-Identifier: GPL-2.0-only
#include "support/genl.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <unistd.h>

namespace vm {

uint16_t Reply::type() const
{
	uint16_t type;
	std::memcpy(&type, &bytes[4], sizeof type);
	return type;
}

int Reply::error() const
{
	if (type() != NLMSG_ERROR || bytes.size() < NLMSG_HDRLEN + 4)
		return 1;
	int error;
	std::memcpy(&error, &bytes[NLMSG_HDRLEN], sizeof error);
	return error;
}

GenlSocket::GenlSocket() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC))
{
	sockaddr_nl address{};
	address.nl_family = AF_NETLINK;
	socklen_t length = sizeof address;
	if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) ||
	    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length))
		throw std::runtime_error("no generic netlink socket");
	port_ = address.nl_pid;
}

GenlSocket::~GenlSocket()
{
	::close(fd_);
}

int GenlSocket::send(const Bytes &datagram)
{
	sockaddr_nl kernel{};
	kernel.nl_family = AF_NETLINK;
	ssize_t sent = ::sendto(fd_, datagram.data(), datagram.size(), 0,
				reinterpret_cast<sockaddr *>(&kernel), sizeof kernel);
	if (sent < 0)
		return errno;
	return size_t(sent) == datagram.size() ? 0 : EMSGSIZE;
}

std::optional<Reply> GenlSocket::receive(int milliseconds)
{
	if (rest_.empty()) {
		pollfd waiting{ fd_, POLLIN, 0 };
		if (::poll(&waiting, 1, milliseconds) != 1)
			return std::nullopt;
		Bytes buffer(16384);
		ssize_t length = ::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
		if (length < ssize_t(NLMSG_HDRLEN))
			return std::nullopt;
		buffer.resize(length);
		rest_ = std::move(buffer);
	}
	uint32_t length;
	std::memcpy(&length, rest_.data(), sizeof length);
	if (length < NLMSG_HDRLEN || length > rest_.size())
		throw std::runtime_error(
			"the kernel sent a message that is longer than its datagram");
	Reply reply{ Bytes(rest_.begin(), rest_.begin() + length) };
	rest_.erase(rest_.begin(),
		    rest_.begin() + std::min(rest_.size(), size_t(NLMSG_ALIGN(length))));
	return reply;
}

void GenlSocket::drain()
{
	uint8_t buffer[4096];
	rest_.clear();
	while (::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC) >= 0 ||
	       errno == ENOBUFS || errno == EINTR) {}
}

void put16(Bytes &to, uint16_t value)
{
	Bytes bytes = le16(value);
	to.insert(to.end(), bytes.begin(), bytes.end());
}

void put32(Bytes &to, uint32_t value)
{
	Bytes bytes = le32(value);
	to.insert(to.end(), bytes.begin(), bytes.end());
}

Bytes GenlMessage::bytes() const
{
	Bytes out;
	put32(out, length < 0 ? uint32_t(NLMSG_HDRLEN + GENL_HDRLEN + payload.size())
			      : uint32_t(length));
	put16(out, type);
	put16(out, flags);
	put32(out, seq);
	put32(out, 0);
	out.push_back(cmd);
	out.push_back(version);
	put16(out, reserved);
	out.insert(out.end(), payload.begin(), payload.end());
	return out;
}

Bytes attribute(uint16_t type, const Bytes &payload, int length)
{
	Bytes out;
	put16(out, length < 0 ? uint16_t(NLA_HDRLEN + payload.size()) : uint16_t(length));
	put16(out, type);
	out.insert(out.end(), payload.begin(), payload.end());
	return out;
}

std::map<uint16_t, Bytes> attributes(const Bytes &bytes, size_t from)
{
	std::map<uint16_t, Bytes> out;
	while (from + NLA_HDRLEN <= bytes.size()) {
		nlattr head;
		std::memcpy(&head, &bytes[from], sizeof head);
		if (head.nla_len < NLA_HDRLEN || from + head.nla_len > bytes.size())
			throw std::runtime_error("attributes that do not add up");
		out[head.nla_type & NLA_TYPE_MASK] = Bytes(bytes.begin() + from + NLA_HDRLEN,
							   bytes.begin() + from + head.nla_len);
		from += NLA_ALIGN(head.nla_len);
	}
	return out;
}

std::optional<std::map<uint16_t, Bytes>> genl_family(GenlSocket &socket, const std::string &name)
{
	GenlMessage request;
	request.type = GENL_ID_CTRL;
	request.cmd = CTRL_CMD_GETFAMILY;
	request.payload = attribute(CTRL_ATTR_FAMILY_NAME,
				    Bytes(name.c_str(), name.c_str() + name.size() + 1));
	socket.drain();
	if (int error = socket.send(request.bytes()))
		throw std::runtime_error(std::string("the controller of generic netlink: ") +
					 strerror(error));
	auto reply = socket.receive(3000);
	if (!reply)
		throw std::runtime_error("the controller of generic netlink does not answer");
	if (reply->type() == NLMSG_ERROR) {
		if (reply->error() != -ENOENT)
			throw std::runtime_error("the controller of generic netlink answers " +
						 std::to_string(reply->error()));
		return std::nullopt;
	}
	return attributes(reply->bytes, NLMSG_HDRLEN + GENL_HDRLEN);
}

uint16_t genl_family_id(GenlSocket &socket, const std::string &name)
{
	auto family = genl_family(socket, name);
	if (!family)
		return 0;
	uint16_t id;
	std::memcpy(&id, family->at(CTRL_ATTR_FAMILY_ID).data(), sizeof id);
	return id;
}

} // namespace vm
