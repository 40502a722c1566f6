/* SPDX-License-Identifier: MIT */
#include "relay/relay.h"

#include "mox/error.h"
#include "mox_packet.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace relay {
namespace {

constexpr socklen_t kShortestName = offsetof(sockaddr_ll, sll_addr);
constexpr std::size_t kMaxPassedDescriptors = 4;

/** The first descriptor that came with a message; others are closed. -1: none. */
int take_descriptor(msghdr &message)
{
	int taken = -1;
	for (cmsghdr *each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
		if (each->cmsg_level != SOL_SOCKET || each->cmsg_type != SCM_RIGHTS)
			continue;
		const std::size_t count = (each->cmsg_len - CMSG_LEN(0)) / sizeof(int);
		for (std::size_t i = 0; i < count; ++i) {
			int fd;
			std::memcpy(&fd, CMSG_DATA(each) + i * sizeof(fd), sizeof(fd));
			if (taken < 0)
				taken = fd;
			else
				close(fd);
		}
	}
	return taken;
}

std::optional<sockaddr_ll> address_of(std::span<const std::uint8_t> bytes)
{
	if (bytes.size() < sizeof(sockaddr_ll))
		return std::nullopt;
	sockaddr_ll address;
	std::memcpy(&address, bytes.data(), sizeof(address));
	return address;
}

} // namespace

Relay::Relay(const SocketIdentity &identity, const Settings &settings, mox::SocketCalls &calls,
	     InterfaceSource &source, int channel)
	: identity_(identity), settings_(settings), interfaces_(source), captures_(settings, calls),
	  options_(identity, captures_, interfaces_), channel_(channel),
	  protocol_(identity.protocol),
	  request_(sizeof(mox_wire_request) + sizeof(sockaddr_ll) + MOX_WIRE_MAX_REQUEST)
{
	const int bytes = kChannelBytes;
	setsockopt(channel_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
	captures_.select(protocol_, 0);
}

void Relay::run()
{
	const std::size_t captures = captures_.all().size();
	pollfd fds[1 + kMaxLocations] = {};
	fds[0].fd = channel_;
	while (!ended_) {
		fds[0].events = static_cast<short>(waiting_ ? POLLIN | POLLOUT : POLLIN);
		for (std::size_t i = 0; i < captures; ++i) {
			fds[1 + i].fd = waiting_ ? -1 : captures_.all()[i].socket.fd();
			fds[1 + i].events = POLLIN;
		}
		if (poll(fds, 1 + captures, -1) < 0) {
			if (errno == EINTR)
				continue;
			return;
		}
		if (fds[0].revents & (POLLHUP | POLLERR))
			return;
		if (waiting_ && fds[0].revents & POLLOUT) {
			waiting_ = false;
			pass(waiting_frame_, waiting_length_);
		}
		if (fds[0].revents & POLLIN)
			serve_request();
		for (std::size_t i = 0; i < captures && !waiting_ && !ended_; ++i) {
			if (fds[1 + i].revents)
				drain(captures_.all()[i]);
		}
	}
}

// --- frames -------------------------------------------------------------------------------------------------------

void Relay::drain(Captures::Capture &capture)
{
	for (int i = 0; i < kBatch && !waiting_ && !ended_; ++i) {
		if (!read_frame(capture))
			return;
	}
}

/** Reads a frame and passes it on if the program should have it. False: there was none. */
bool Relay::read_frame(Captures::Capture &capture)
{
	const auto frame = capture.socket.receive(std::span(buffer_).subspan(
		kHeadroom, MOX_WIRE_MAX_FRAME - 4)); // a tag may be added
	if (!frame)
		return false;

	const bool leaving = capture.location == PACKET_LOCAL_LOC;
	// A program that is bound expects the index of its interface, and may drop frames with another one.
	const bool as_bound = settings_.any_interface || leaving;
	const Reception reception{ identity_.cooked, leaving, as_bound ? ifindex_ : 0 };
	const timespec stamp = frame->stamp.value_or(timespec{});
	Described described = describe(std::span(buffer_).subspan(kHeadroom, frame->bytes.size()),
				       frame->control.value_or(mox_packet_ctrl_info{}),
				       stamp.tv_sec, static_cast<std::uint32_t>(stamp.tv_nsec),
				       reception, interfaces_);
	described.head.length += static_cast<std::uint32_t>(frame->length - frame->bytes.size());
	if (!protocol_matches(protocol_, described.facts.protocol))
		return true;
	if (described.head.packet == PACKET_OUTGOING && options_.ignores_outgoing())
		return true;

	std::size_t length = described.data.size();
	if (options_.filter()) {
		length = options_.filter()->run(described.data, described.facts);
		if (!length)
			return true;
	}
	described.head.flags = options_.frame_flags();
	pass(described, length);
	return true;
}

/** Sends a frame to the descriptor, or keeps it until there is room. */
void Relay::pass(const Described &frame, std::size_t length)
{
	iovec parts[] = { { const_cast<mox_wire_frame *>(&frame.head), sizeof(frame.head) },
			  { frame.data.data(), length } };
	msghdr message{};
	message.msg_iov = parts;
	message.msg_iovlen = 2;
	while (sendmsg(channel_, &message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
		if (errno == EINTR)
			continue;
		if (errno == EAGAIN || errno == EWOULDBLOCK) {
			waiting_frame_ = frame;
			waiting_length_ = length;
			waiting_ = true;
			return;
		}
		if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)
			ended_ = true;
		options_.count(false); // no memory
		return;
	}
	options_.count(true);
}

// --- requests -----------------------------------------------------------------------------------------------------

void Relay::serve_request()
{
	alignas(cmsghdr) char control[CMSG_SPACE(kMaxPassedDescriptors * sizeof(int))];
	iovec part{ request_.data(), request_.size() };
	msghdr message{};
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	message.msg_control = control;
	message.msg_controllen = sizeof(control);
	const ssize_t length = recvmsg(channel_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
	if (length <= 0) {
		ended_ = length == 0;
		return;
	}
	const int to = take_descriptor(message);
	if (to < 0)
		return; // not a request of the preload

	mox_wire_request request{};
	Answer result{ EINVAL };
	if (static_cast<std::size_t>(length) >= sizeof(request)) {
		std::memcpy(&request, request_.data(), sizeof(request));
		const auto data = std::span<const std::uint8_t>(request_).subspan(
			sizeof(request), static_cast<std::size_t>(length) - sizeof(request));
		if (request.magic == MOX_WIRE_MAGIC && request.length == data.size())
			result = answer(request, data);
	}

	const bool text = !result.text.empty();
	mox_wire_reply reply{ MOX_WIRE_MAGIC, result.error,
			      text ? std::uint32_t{ MOX_WIRE_TEXT } : 0u, 0 };
	const void *data = text ? static_cast<const void *>(result.text.data())
				: result.value.data();
	const std::size_t size = text ? result.text.size() : result.value.size();
	reply.length = static_cast<std::uint32_t>(std::min<std::size_t>(size, MOX_WIRE_MAX_REPLY));
	iovec parts[] = { { &reply, sizeof(reply) }, { const_cast<void *>(data), reply.length } };
	msghdr answer_message{};
	answer_message.msg_iov = parts;
	answer_message.msg_iovlen = 2;
	// A program that is gone, or no longer waits, needs no reply.
	(void)!sendmsg(to, &answer_message, MSG_DONTWAIT | MSG_NOSIGNAL);
	close(to);
}

Answer Relay::answer(const mox_wire_request &request, std::span<const std::uint8_t> data)
{
	switch (request.kind) {
	case MOX_WIRE_BIND:
		return bind(data);
	case MOX_WIRE_NAME_OF:
		return name();
	case MOX_WIRE_SET_OPTION:
		return options_.set(request.level, request.option, data);
	case MOX_WIRE_GET_OPTION:
		return options_.get(request.level, request.option);
	case MOX_WIRE_SEND:
		if (request.address_length > data.size())
			return { EINVAL };
		return send(data.first(request.address_length),
			    data.subspan(request.address_length));
	default:
		return { EINVAL };
	}
}

Answer Relay::bind(std::span<const std::uint8_t> bytes)
{
	const auto address = address_of(bytes);
	if (!address || address->sll_family != AF_PACKET)
		return { EINVAL };
	const auto ifindex = static_cast<std::uint32_t>(address->sll_ifindex);
	interfaces_.forget();
	if (ifindex && !interfaces_.find(ifindex, 0))
		return { ENODEV };
	const std::uint16_t protocol = address->sll_protocol ? ntohs(address->sll_protocol)
							     : protocol_;
	if (!protocol_is_open(protocol))
		return { EINVAL,
			 {},
			 "bind: protocol " + std::to_string(protocol) + kOpenProtocols };
	try {
		captures_.select(protocol, ifindex);
	} catch (const mox::SocketError &error) {
		return { error.error(), {}, std::string("bind: ") + error.what() };
	}
	protocol_ = protocol;
	ifindex_ = ifindex;
	return {};
}

Answer Relay::name()
{
	sockaddr_ll address{};
	address.sll_family = AF_PACKET;
	address.sll_ifindex = static_cast<int>(ifindex_);
	address.sll_protocol = htons(protocol_);
	std::size_t length = kShortestName;
	interfaces_.forget();
	if (const Interface *at = interfaces_.find(ifindex_, 0)) {
		address.sll_hatype = at->hardware;
		if (at->has_mac) {
			address.sll_halen = ETH_ALEN;
			std::memcpy(address.sll_addr, at->mac.data(), ETH_ALEN);
			length += ETH_ALEN;
		}
	}
	const auto *bytes = reinterpret_cast<const std::uint8_t *>(&address);
	return { 0, { bytes, bytes + length } };
}

Answer Relay::send(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> frame)
{
	std::uint32_t ifindex = ifindex_;
	std::uint16_t protocol = protocol_;
	std::optional<sockaddr_ll> to;
	if (!bytes.empty()) {
		to = address_of(bytes);
		if (!to || bytes.size() < kShortestName + to->sll_halen)
			return { EINVAL };
		ifindex = static_cast<std::uint32_t>(to->sll_ifindex);
		protocol = ntohs(to->sll_protocol);
	}
	if (!ifindex)
		return { ENXIO };
	// Frames that come in anywhere go out where the platform decides.
	const std::uint32_t out = settings_.any_interface && ifindex == ifindex_ ? 0 : ifindex;
	if (!identity_.cooked) {
		if (frame.size() < kLinkHeader)
			return { EINVAL };
		return { captures_.send(frame, out) };
	}

	// The header that the kernel would put in front: the interface's own address is the source.
	if (!to || to->sll_halen < ETH_ALEN)
		return { EINVAL };
	interfaces_.forget();
	const Interface *at = interfaces_.find(ifindex, 0);
	if (!at || !at->has_mac)
		return { ENXIO };
	std::vector<std::uint8_t> whole(kLinkHeader + frame.size());
	std::memcpy(&whole[0], to->sll_addr, ETH_ALEN);
	std::memcpy(&whole[ETH_ALEN], at->mac.data(), ETH_ALEN);
	whole[12] = static_cast<std::uint8_t>(protocol >> 8);
	whole[13] = static_cast<std::uint8_t>(protocol);
	std::copy(frame.begin(), frame.end(), whole.begin() + kLinkHeader);
	return { captures_.send(whole, out) };
}

} // namespace relay
