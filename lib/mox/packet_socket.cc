/* SPDX-License-Identifier: MIT */
#include "mox/packet_socket.h"

#include "mox/error.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace mox {
namespace {

// An option number that Linux's own packet sockets answer and ours refuse.
constexpr int kLinuxPacketVersion = 10;

const std::string kVsdRemedy = std::string("a process whose working directory lies below ") +
			       MOX_VSD_PREFIX +
			       "N, N other than 0, may not: change to another directory";

[[noreturn]] void fail_to_open()
{
	constexpr char what[] = "cannot open a packet socket";
	switch (errno) {
	case EAFNOSUPPORT:
		throw_socket_error(
			what, "no module has registered family 17: is mox_ef_socket.ko loaded?");
	case EINVAL:
		throw_socket_error(what, kVsdRemedy);
	case EPERM:
		throw_socket_error(
			what,
			"mox_ef_socket asks for no privilege, so family 17 is served by Linux's own packet "
			"sockets: unload them and load mox_ef_socket.ko");
	default:
		throw_socket_error(what);
	}
}

const char *const kLinuxRemedy = "family 17 is served by Linux's own packet sockets: unload "
				 "them and load mox_ef_socket.ko";

bool is_linux_packet_socket(SocketCalls &calls, int fd)
{
	int version = 0;
	socklen_t length = sizeof(version);
	return calls.getsockopt(fd, MOX_SOL_PACKET, kLinuxPacketVersion, &version, &length) == 0;
}

int socket_option(SocketCalls &calls, int fd, int option, const std::string &what)
{
	int value = 0;
	socklen_t length = sizeof(value);
	if (calls.getsockopt(fd, SOL_SOCKET, option, &value, &length) != 0)
		throw_socket_error(what, "a socket of family 17 is needed");
	return value;
}

LinkAddress link_address(std::uint32_t ifindex, std::uint16_t protocol)
{
	LinkAddress address{};
	address.family = MOX_PACKET_FAMILY;
	address.protocol = htons(protocol);
	address.ifindex = static_cast<std::int32_t>(ifindex);
	return address;
}

} // namespace

void throw_socket_error(const std::string &what, const std::string &remedy)
{
	int error = errno;
	std::string text = what + ": " + std::strerror(error);
	if (!remedy.empty())
		text += " (" + remedy + ")";
	throw SocketError(text, error);
}

int SocketCalls::socket(int family, int type, int protocol)
{
	return ::socket(family, type, protocol);
}

int SocketCalls::bind(int fd, const sockaddr *address, socklen_t length)
{
	return ::bind(fd, address, length);
}

int SocketCalls::getsockname(int fd, sockaddr *address, socklen_t *length)
{
	return ::getsockname(fd, address, length);
}

int SocketCalls::setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
	return ::setsockopt(fd, level, option, value, length);
}

int SocketCalls::getsockopt(int fd, int level, int option, void *value, socklen_t *length)
{
	return ::getsockopt(fd, level, option, value, length);
}

ssize_t SocketCalls::recvmsg(int fd, msghdr *message, int flags)
{
	// Not the C library's function: with a 64-bit time_t on a 32-bit machine it appends converted timestamps to the
	// control buffer, over the module's record.
	return ::syscall(SYS_recvmsg, fd, message, flags);
}

ssize_t SocketCalls::sendmsg(int fd, const msghdr *message, int flags)
{
	return ::sendmsg(fd, message, flags);
}

int SocketCalls::recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags)
{
	// For the same reason.
	return static_cast<int>(::syscall(SYS_recvmmsg, fd, messages, count, flags, nullptr));
}

int SocketCalls::close(int fd)
{
	return ::close(fd);
}

SocketCalls &SocketCalls::system()
{
	static SocketCalls calls;
	return calls;
}

std::uint32_t system_interface_index(const std::string &name)
{
	return if_nametoindex(name.c_str());
}

PacketSocket::PacketSocket(SocketKind kind, std::uint16_t protocol, SocketCalls &calls)
	: calls_(calls), kind_(kind)
{
	int type = (kind == SocketKind::kRaw ? SOCK_RAW : SOCK_DGRAM) | SOCK_CLOEXEC;
	fd_ = calls_.socket(MOX_PACKET_FAMILY, type, htons(protocol));
	if (fd_ < 0)
		fail_to_open();

	// Linux's own packet sockets give other meanings to options 15 to 17 and would accept them.
	if (is_linux_packet_socket(calls_, fd_)) {
		calls_.close(std::exchange(fd_, -1));
		errno = EPROTONOSUPPORT;
		throw_socket_error("cannot open a packet socket", kLinuxRemedy);
	}
}

PacketSocket::PacketSocket(Adopted adopted, SocketCalls &calls) : calls_(calls)
{
	std::string what = "cannot adopt descriptor " + std::to_string(adopted.fd);
	int family = socket_option(calls_, adopted.fd, SO_DOMAIN, what);
	int type = socket_option(calls_, adopted.fd, SO_TYPE, what);
	errno = EPROTONOSUPPORT;
	if (family != MOX_PACKET_FAMILY)
		throw_socket_error(what, "it is a socket of family " + std::to_string(family) +
						 ", not of 17");
	if (is_linux_packet_socket(calls_, adopted.fd)) {
		errno = EPROTONOSUPPORT;
		throw_socket_error(what, kLinuxRemedy);
	}
	LinkAddress address{};
	socklen_t length = sizeof(address);
	if (calls_.getsockname(adopted.fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
		throw_socket_error(what);
	kind_ = type == SOCK_RAW ? SocketKind::kRaw : SocketKind::kDatagram;
	bound_to_ = static_cast<std::uint32_t>(address.ifindex);
	fd_ = adopted.fd;
}

int PacketSocket::release()
{
	return std::exchange(fd_, -1);
}

PacketSocket::~PacketSocket()
{
	if (fd_ >= 0)
		calls_.close(fd_);
}

PacketSocket::PacketSocket(PacketSocket &&other) noexcept
	: calls_(other.calls_), fd_(std::exchange(other.fd_, -1)), kind_(other.kind_),
	  bound_to_(other.bound_to_)
{
}

void PacketSocket::bind(std::uint32_t ifindex, std::uint16_t protocol)
{
	LinkAddress address = link_address(ifindex, protocol);
	if (calls_.bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
		bound_to_ = ifindex;
		return;
	}

	std::string what = "cannot bind to interface " + std::to_string(ifindex);
	if (errno == ENODEV)
		throw_socket_error(what, "the forwarding platform has no interface of this index");
	if (errno == EINVAL)
		throw_socket_error(what, kVsdRemedy);
	throw_socket_error(what);
}

std::optional<MacAddress> PacketSocket::interface_mac() const
{
	LinkAddress address{};
	socklen_t length = sizeof(address);
	if (calls_.getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length) != 0)
		throw_socket_error("cannot read the MAC address of interface " +
				   std::to_string(bound_to_));
	MacAddress mac;
	if (address.address_length != mac.size())
		return std::nullopt;
	std::copy_n(address.address, mac.size(), mac.begin());
	return mac;
}

void PacketSocket::send(const SendRequest &request)
{
	if (int error = try_send(request); error != 0)
		fail_to_send(request, error);
}

int PacketSocket::try_send(const SendRequest &request)
{
	LinkAddress name{};
	// sendmsg only reads them, but msghdr has no const.
	iovec io{ const_cast<std::uint8_t *>(request.bytes.data()), request.bytes.size() };
	msghdr message{};
	message.msg_iov = &io;
	message.msg_iovlen = 1;
	if (request.to) {
		name = link_address(request.to->ifindex, request.to->ether_type);
		if (request.to->mac) {
			name.address_length = static_cast<std::uint8_t>(request.to->mac->size());
			std::copy(request.to->mac->begin(), request.to->mac->end(), name.address);
		}
		message.msg_name = &name;
		message.msg_namelen = sizeof(name);
	}
	mox_packet_ctrl_info control;
	if (request.control) {
		// The record alone, without a control-message header.
		control = *request.control;
		message.msg_control = &control;
		message.msg_controllen = sizeof(control);
	}
	return calls_.sendmsg(fd_, &message, 0) < 0 ? errno : 0;
}

void PacketSocket::fail_to_send(const SendRequest &request, int error) const
{
	std::uint32_t to = request.to ? request.to->ifindex : bound_to_;
	std::uint32_t from = request.control ? request.control->pkt_ifx : 0;
	std::string destination = "interface " + std::to_string(to);
	std::string source = "source interface " + std::to_string(from);
	std::size_t length = request.bytes.size();
	std::string what = "cannot send " + std::to_string(length) +
			   (length == 1 ? " byte" : " bytes");
	if (to != 0)
		what += " to " + destination;

	errno = error;
	switch (error) {
	case ENXIO:
		if (to != 0 && from != 0)
			throw_socket_error(what, "the forwarding platform has no interface " +
							 std::to_string(to) + ", or no " + source);
		throw_socket_error(what, "the forwarding platform has no " +
						 (from != 0 ? source : destination));
	case ENETDOWN:
		throw_socket_error(what, "the link of " + destination +
						 " is down: bring it up and send again");
	case ENETUNREACH:
		throw_socket_error(
			what,
			"the platform dropped the frame: an output hook, an access list or the "
			"destination refused it");
	case EINVAL:
		if (kind_ == SocketKind::kDatagram && !(request.to && request.to->mac))
			throw_socket_error(
				what,
				"a datagram socket needs a destination MAC address with every frame");
		if (kind_ == SocketKind::kDatagram)
			throw_socket_error(
				what,
				"the device's MAC address is not available at the moment: send with a raw "
				"socket; or: " +
					kVsdRemedy);
		throw_socket_error(what, kVsdRemedy);
	case ENOMEM:
		throw_socket_error(
			what,
			"the platform has no buffer for a frame of this length: send a shorter one, or "
			"later");
	case EFAULT:
		throw_socket_error(what, "the frame's bytes cannot be read");
	case EOPNOTSUPP:
		throw_socket_error(what, "this mox_ef_socket.ko cannot send yet: load a newer one");
	default:
		throw_socket_error(what);
	}
}

} // namespace mox
