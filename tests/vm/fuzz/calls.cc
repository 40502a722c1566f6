// SPDX-License-Identifier: GPL-2.0-only
#include "calls.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "contract/control.h"
#include "contract/rules.h"
#include "mox_capture.h"
#include "mox_packet.h"
#include "support/capture.h"
#include "support/churn.h"
#include "support/lab.h"

namespace fuzz {

// The system calls themselves. The C library reads the values of some options itself, for kernels without their 64-bit
// forms, and would fault where the kernel answers EFAULT.
static long set_option(int fd, int level, int name, const void *value, socklen_t length)
{
	return ::syscall(SYS_setsockopt, fd, level, name, value, length);
}
static long get_option(int fd, int level, int name, void *value, socklen_t *length)
{
	return ::syscall(SYS_getsockopt, fd, level, name, value, length);
}
static long io_control(int fd, unsigned long request, void *value)
{
	return ::syscall(SYS_ioctl, fd, request, value);
}

Window::Window()
{
	void *area = ::mmap(nullptr, 2 * kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
			    -1, 0);
	begin_ = static_cast<uint8_t *>(area);
	end_ = begin_ + kSize;
	::mprotect(end_, kSize, PROT_NONE);
}

Window::~Window()
{
	::munmap(begin_, 2 * kSize);
}

uint8_t *Window::put(const Bytes &bytes, size_t reach)
{
	reach = std::min({ reach, bytes.size(), kSize });
	std::copy_n(bytes.begin(), reach, end_ - reach);
	return end_ - reach;
}

// What is in front decides more and comes more often: a new case is a string of random bytes.
const Player::Call Player::kTable[] = {
	&Player::open,   &Player::open,    &Player::rule,    &Player::rule,
	&Player::rule,   &Player::rule,    &Player::rule,    &Player::where_and_how,
	&Player::frame,  &Player::frame,   &Player::frame,   &Player::where_and_how,
	&Player::send,   &Player::send,    &Player::receive, &Player::where_and_how,
	&Player::bind,   &Player::receive, &Player::option,  &Player::where_and_how,
	&Player::option, &Player::control, &Player::capture, &Player::read_option,
	&Player::other,  &Player::diag,    &Player::close,   &Player::capture,
	&Player::fail,
};
const size_t Player::kTableSize = std::size(kTable);

Player::Player(const Families &families, bool operates) : families_(families), operates_(operates)
{
	sockets_.fill(-1);
	if (operates_ && vm::can_inject_failures())
		injector_.emplace();
}

void Player::play(Input input)
{
	genl_ = std::make_unique<vm::GenlSocket>();
	for (size_t n = 0; n < kCalls && !input.empty(); ++n, ++calls_)
		(this->*kTable[input.below(kTableSize)])(input);
	rest();
}

void Player::rest()
{
	if (injector_)
		injector_->disarm();
	for (int &one : sockets_)
		if (int was = std::exchange(one, -1); was >= 0)
			::close(was);
	if (operates_ && genl_)
		lift_switches();
	genl_.reset();
}

// Requests of a case switch restrictions, debug lines (types 0, 9, 18 and their neighbours) and hooks for all workers.
void Player::lift_switches()
{
	genl_->send(vm::GenlMessage{
		.type = families_.capture,
		.cmd = MOX_CAPTURE_CMD_RESTRICT,
		.payload = vm::capture_number(MOX_CAPTURE_REQUEST_RESTRICT, 0, 1),
	}
			    .bytes());
	for (uint32_t debug : { 0u, 9u, 18u, contract::kEveryHookSwitch }) {
		Bytes record = vm::le16(MOX_MSG_DEBUG);
		record.resize(4);
		vm::put32(record, debug);
		vm::put32(record, 0);
		genl_->send(vm::GenlMessage{
			.type = families_.control,
			.payload = vm::attribute(MOX_PACKET_GENL_ATTR, record),
		}
				    .bytes());
	}
}

Bytes Player::invent(std::minstd_rand &random)
{
	Bytes bytes(8 + random() % 120);
	for (uint8_t &byte : bytes)
		byte = uint8_t(random() >> 8);
	bytes[0] = 0; // open() first: without a socket little happens
	return bytes;
}

void *Player::pointer(Input &input, const Bytes &bytes)
{
	const uint8_t how = input.byte();
	if (how < 224)
		return window_.put(bytes, bytes.size());
	if (how < 240)
		return window_.put(bytes, how % 16);
	if (how < 248)
		return nullptr;
	return reinterpret_cast<void *>(how < 252 ? uintptr_t{ 0xc0008000 } : uintptr_t{ how });
}

void Player::open(Input &input)
{
	const uint8_t how = input.byte();
	int &slot = sockets_[input.below(kSockets)];
	if (slot >= 0)
		::close(slot);
	const int type = how < 160 ? SOCK_RAW : how < 240 ? SOCK_DGRAM : how % 8;
	const uint16_t protocol = how % 4 == 0 ? input.number<uint16_t>() : 0;
	slot = ::socket(MOX_PACKET_FAMILY, type | SOCK_NONBLOCK, htons(protocol));
}

void Player::close(Input &input)
{
	int &slot = sockets_[input.below(kSockets)];
	if (slot >= 0)
		::close(slot);
	slot = -1;
}

void Player::rule(Input &input)
{
	const uint8_t how = input.byte();
	const int to = fd(input);
	vm::Rule rule{};
	rule.type = how < 250 ? uint16_t(input.below(contract::kTypes)) : input.number<uint16_t>();
	rule.size = how < 240 ? uint16_t(contract::width(rule.type % contract::kTypes))
			      : input.number<uint16_t>();
	rule.count = how < 230 ? uint16_t(1 + input.below(8)) : input.number<uint16_t>();
	if (rule.type == contract::kAll && how < 220)
		rule.count = 0;
	// Few different values: rules share some of them, and frames match.
	const uint8_t few[] = { 0, 1, 2, 3, 8, 6, 17, 67, 0x88, 0xb5, 0xff, 211 };
	rule.elements.resize(std::min<size_t>(rule.size * rule.count, 2048));
	for (uint8_t &byte : rule.elements)
		byte = how % 4 ? few[input.below(std::size(few))] : input.byte();
	const Bytes record = rule.record();
	const uint32_t length = how >= 224 ? input.number<uint16_t>() : uint32_t(record.size());
	set_option(to, MOX_SOL_PACKET, how % 4 ? MOX_PACKET_ADD_RULE : MOX_PACKET_DEL_RULE,
		   pointer(input, record), length);
}

void Player::where_and_how(Input &input)
{
	const uint32_t value = input.byte() % 14;
	const int to = fd(input);
	const uint8_t which = input.byte();
	const int option = which < 96    ? PACKET_LOCATION
			   : which < 192 ? PACKET_TREATMENT
					 : PACKET_CTRL_INFO;
	set_option(to, MOX_SOL_PACKET, option, pointer(input, vm::le32(value)), 4);
}

void Player::option(Input &input)
{
	const uint8_t how = input.byte();
	const int to = fd(input);
	sock_filter accept[] = {
		{ 0x28, 0, 0, 12 }, { 0x15, 0, 1, 0x0806 }, { 0x06, 0, 0, how }, { 0x06, 0, 0, 0 }
	};
	const sock_fprog program{ 4, accept };
	if (how < 48) {
		set_option(to, SOL_SOCKET, how % 4 ? SO_ATTACH_FILTER : SO_DETACH_FILTER, &program,
			   sizeof program);
		return;
	}
	const Bytes value = input.bytes(how < 200 ? 4 : input.byte());
	const int level = how < 128 ? SOL_SOCKET : how < 250 ? MOX_SOL_PACKET : input.byte();
	const int name = input.byte() % 80;
	set_option(to, level, name, pointer(input, value), socklen_t(value.size()));
}

void Player::read_option(Input &input)
{
	const uint8_t how = input.byte();
	socklen_t length = how < 128 ? 8 : how < 240 ? input.byte() : input.number<uint32_t>();
	const int level = how % 4 ? MOX_SOL_PACKET : SOL_SOCKET;
	const int name = how % 2 ? MOX_PACKET_STATISTICS : input.byte() % 80;
	get_option(fd(input), level, name, window_.room(how % 32), &length);
}

void Player::bind(Input &input)
{
	sockaddr_ll address{};
	const uint8_t how = input.byte();
	const uint32_t ports[] = { 0, lab::kPortA, lab::kPortB, lab::kPortDown,
				   lab::kNoSuchInterface };
	address.sll_family = how < 240 ? MOX_PACKET_FAMILY : how;
	address.sll_ifindex = int(ports[how % std::size(ports)]);
	address.sll_protocol = how % 4 == 0 ? input.number<uint16_t>() : 0;
	Bytes bytes(sizeof address);
	std::memcpy(bytes.data(), &address, sizeof address);
	const socklen_t length = how < 224 ? sizeof address : input.byte();
	::bind(fd(input), static_cast<sockaddr *>(pointer(input, bytes)), length);
}

void Player::send(Input &input)
{
	const uint8_t how = input.byte();
	const int from = fd(input);
	const uint32_t ports[] = { lab::kPortA, lab::kPortB, lab::kPortDown, 0,
				   lab::kNoSuchInterface };
	sockaddr_ll to{};
	to.sll_family = MOX_PACKET_FAMILY;
	to.sll_ifindex = int(ports[how % std::size(ports)]);
	to.sll_protocol = htons(input.number<uint16_t>());
	to.sll_halen = how % 8 ? 6 : input.byte();
	msghdr message{};
	message.msg_name = &to;
	message.msg_namelen = how < 224 ? sizeof to : input.byte() % 64;
	Bytes data = input.bytes(how < 128 ? 60 : input.byte());
	if (how % 4 == 0)
		data.resize(data.size() + input.number<uint16_t>() % 4096);
	iovec vector{ pointer(input, data), data.size() };
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	alignas(cmsghdr) uint8_t control[256] = {};
	if (how % 2) {
		const Bytes record = input.bytes(sizeof(mox_packet_ctrl_info));
		auto *head = reinterpret_cast<cmsghdr *>(control);
		head->cmsg_level = how % 16 == 1 ? int(input.byte()) : MOX_SOL_PACKET;
		head->cmsg_type = how % 16 == 3 ? int(input.byte()) : int(PACKET_CTRL_INFO);
		head->cmsg_len = CMSG_LEN(how % 16 == 5 ? input.byte()
							: sizeof(mox_packet_ctrl_info));
		std::copy(record.begin(), record.end(), CMSG_DATA(head));
		message.msg_control = control;
		message.msg_controllen = CMSG_SPACE(sizeof(mox_packet_ctrl_info));
	}
	::sendmsg(from, &message,
		  MSG_DONTWAIT | (how % 32 == 9 ? int(input.number<uint16_t>()) : 0));
}

void Player::receive(Input &input)
{
	const uint8_t how = input.byte();
	alignas(cmsghdr) uint8_t control[256];
	uint8_t name[64];
	msghdr message{};
	message.msg_name = how % 8 ? name : reinterpret_cast<void *>(8);
	message.msg_namelen = how % 4 ? sizeof name : input.byte() % 64;
	message.msg_control = control;
	message.msg_controllen = how % 4 == 1 ? input.byte() : sizeof control;
	const size_t size = how < 128 ? 2048 : input.byte();
	// Room that ends early, for one that is claimed.
	iovec vector{ window_.room(how < 240 ? size : size / 2), size };
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	const int flags = how % 16 == 2   ? input.number<uint16_t>()
			  : how % 16 == 3 ? MSG_PEEK
			  : how % 16 == 5 ? MSG_TRUNC
					  : 0;
	const int from = fd(input);
	for (int n = 0; n < 4 && vm::raw_recvmsg(from, &message, flags | MSG_DONTWAIT) >= 0; ++n) {}
}

void Player::other(Input &input)
{
	const uint8_t how = input.byte();
	const int one = fd(input);
	sockaddr_ll address{};
	socklen_t length = input.byte();
	int word = 0;
	switch (how % 10) {
	case 0:
		::getsockname(one, reinterpret_cast<sockaddr *>(window_.room(length)), &length);
		break;
	case 1:
		::getpeername(one, reinterpret_cast<sockaddr *>(window_.room(length)), &length);
		break;
	case 2:
		::connect(one, reinterpret_cast<sockaddr *>(&address), sizeof address);
		break;
	case 3:
		::listen(one, 1);
		break;
	case 4:
		if (int peer = ::accept(one, nullptr, nullptr); peer >= 0)
			::close(peer);
		break;
	case 5:
		::shutdown(one, how % 3);
		break;
	case 6:
		io_control(one, how & 16 ? FIONREAD : TIOCOUTQ, how & 32 ? &word : nullptr);
		break;
	case 7: {
		// Some of these write a struct ifreq, and others follow its pointers, which are null.
		alignas(8) uint8_t request[256] = {};
		io_control(one, 0x8900ul | input.byte(), request);
		break;
	}
	case 8: {
		pollfd waiting{ one, short(input.byte()), 0 };
		::poll(&waiting, 1, 0);
		break;
	}
	default:
		if (void *area = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, one, 0);
		    area != MAP_FAILED)
			::munmap(area, 4096);
	}
}

void Player::frame(Input &input)
{
	const uint8_t how = input.byte();
	const vm::HookTraffic &one =
		vm::hook_traffic()[input.below(unsigned(vm::hook_traffic().size()))];
	lab::Frame frame = one.frame;
	if (how % 4 == 0) {
		const Bytes front = input.bytes(input.byte());
		if (frame.bytes.size() < front.size())
			frame.bytes.resize(front.size());
		std::copy(front.begin(), front.end(), frame.bytes.begin());
		frame.kind = input.byte();
		frame.flags = input.number<uint32_t>() & ~lab::kTraceMark;
		frame.wlan_flags = input.number<uint32_t>();
		frame.code = input.byte();
		frame.sub_code = input.byte();
	}
	if (how % 16 == 3)
		frame.bytes.resize(std::max<size_t>(1, input.byte()));
	frame.softirq = how & 1;
	lab::flood(one.hook, frame, 1 + how % 4, how & 128 ? -1 : how / 32);
}

void Player::control(Input &input)
{
	const uint8_t how = input.byte();
	vm::GenlMessage message;
	message.type = families_.control;
	message.flags = how % 16 ? NLM_F_REQUEST : input.number<uint16_t>();
	message.cmd = how % 8 ? MOX_PACKET_GENL_CMD : input.byte();
	const uint16_t type = how % 16 == 5 ? input.number<uint16_t>() : input.below(18);
	const Bytes body = input.bytes(how % 2 ? 4 : input.byte());
	Bytes record = vm::le16(type);
	record.insert(record.end(), 2, 0);
	record.insert(record.end(), body.begin(), body.end());
	message.payload = vm::attribute(how % 16 == 7 ? input.number<uint16_t>()
						      : MOX_PACKET_GENL_ATTR,
					record, how % 16 == 9 ? input.number<uint16_t>() : -1);
	if (how % 32 == 11)
		message.length = input.number<uint16_t>();
	genl_->send(message.bytes());
	genl_->drain();
}

void Player::capture(Input &input)
{
	const uint8_t how = input.byte();
	vm::GenlMessage message;
	message.type = families_.capture;
	const uint8_t command = 1 + input.below(how < 250 ? 11 : 256);
	message.cmd = command;
	message.flags = NLM_F_REQUEST;
	if (vm::is_dump(mox_capture_cmd(command)) == (how % 16 != 0))
		message.flags |= NLM_F_DUMP;
	for (unsigned n = how % 4; n > 0; --n) {
		const uint16_t type = 1 + input.below(how < 240 ? 16 : 256);
		const Bytes value = input.bytes(how < 200 ? 1u << input.below(4) : input.byte());
		const Bytes one = vm::attribute(type, value, how % 32 == 17 ? input.byte() : -1);
		message.payload.insert(message.payload.end(), one.begin(), one.end());
		message.payload.resize(NLMSG_ALIGN(message.payload.size()));
	}
	genl_->send(message.bytes());
	// A dump that no client reads any more ends with its socket.
	if (how & 64)
		genl_->drain();
	else
		genl_->receive();
}

void Player::diag(Input &input)
{
	const int netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
	if (netlink < 0)
		return;
	Bytes request;
	const uint8_t how = input.byte();
	const Bytes body = input.bytes(how % 4 ? 24 : input.byte());
	vm::put32(request, uint32_t(NLMSG_HDRLEN + body.size()));
	vm::put16(request, SOCK_DIAG_BY_FAMILY);
	vm::put16(request, NLM_F_REQUEST | (how % 8 ? NLM_F_DUMP : 0));
	vm::put32(request, 1);
	vm::put32(request, 0);
	request.insert(request.end(), body.begin(), body.end());
	if (request.size() > NLMSG_HDRLEN && how % 16)
		request[NLMSG_HDRLEN] = MOX_PACKET_FAMILY;
	if (::send(netlink, request.data(), request.size(), MSG_DONTWAIT) >= 0)
		while (::recv(netlink, window_.room(Window::kSize), Window::kSize, MSG_DONTWAIT) >
		       0) {}
	::close(netlink);
}

void Player::fail(Input &input)
{
	const unsigned nth = 1 + input.below(64);
	if (injector_)
		injector_->arm(nth);
}

} // namespace fuzz
