/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The preload's functions, which this program has in itself, with a relay of its own process and this test as the
 * module.
 */
#include "compat/fake_module.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kArp = 0x0806;
constexpr int kAll = 3;

Bytes frame_of(std::uint16_t type, std::size_t size = 60, std::uint8_t last_mac_byte = 0xaa)
{
	Bytes frame{ 2, 0, 0, 0, 0, last_mac_byte, 2, 0, 0, 0, 0, 0x99 };
	frame.push_back(static_cast<std::uint8_t>(type >> 8));
	frame.push_back(static_cast<std::uint8_t>(type));
	while (frame.size() < size)
		frame.push_back(static_cast<std::uint8_t>(frame.size()));
	return frame;
}

sockaddr_ll address(std::uint32_t ifindex, std::uint16_t protocol = 0, bool with_mac = false)
{
	sockaddr_ll to{};
	to.sll_family = AF_PACKET;
	to.sll_protocol = htons(protocol);
	to.sll_ifindex = static_cast<int>(ifindex);
	if (with_mac) {
		to.sll_halen = 6;
		std::memset(to.sll_addr, 0xff, 6);
	}
	return to;
}

const sockaddr *plain(const sockaddr_ll &address)
{
	return reinterpret_cast<const sockaddr *>(&address);
}

/** Whether a frame comes within ms. */
bool readable(int fd, int ms = 20000)
{
	pollfd wait{ fd, POLLIN, 0 };
	return poll(&wait, 1, ms) == 1 && wait.revents & POLLIN;
}

/** Rule records of options 11 and 12 as "+type:value" and "-type:value"; locations as "@n"; others left out. */
std::string rules(const std::vector<FakeModule::Option> &options)
{
	std::string text;
	for (const auto &each : options) {
		if (each.level != MOX_SOL_PACKET)
			continue;
		const auto u16 = [&](std::size_t at) {
			return static_cast<unsigned>(each.value.at(at) | each.value.at(at + 1)
										 << 8);
		};
		if (each.option == PACKET_LOCATION)
			text += " @" + std::to_string(each.value.at(0));
		if (each.option != MOX_PACKET_ADD_RULE && each.option != MOX_PACKET_DEL_RULE)
			continue;
		text += each.option == MOX_PACKET_ADD_RULE ? " +" : " -";
		text += std::to_string(u16(0));
		for (std::size_t i = 6; i < each.value.size(); ++i)
			text += (i == 6 ? ":" : ".") + std::to_string(each.value[i]);
	}
	return text;
}

int open_socket(FakeModule &module, int type = SOCK_RAW, int protocol = kAll)
{
	const int fd = socket(AF_PACKET, type, htons(static_cast<std::uint16_t>(protocol)));
	EXPECT_GE(fd, 0) << std::strerror(errno);
	module.accept();
	return fd;
}

TEST(CompatPreload, socket__captures_by_its_protocol)
{
	const struct {
		int protocol;
		const char *expected;
	} rows[] = {
		{ 0, " @0" }, { kAll, " @0 +16 @2" }, { kArp, " @0 +3:8.6 @2" }, { 4, " @0 +16 @2" }
	};
	for (const auto &row : rows) {
		FakeModule module;
		const int fd = open_socket(module, SOCK_RAW, row.protocol);
		const auto options = module.options();
		EXPECT_EQ(rules(options), row.expected);
		EXPECT_TRUE(std::any_of(options.begin(), options.end(), [](const auto &each) {
			return each.option == PACKET_TREATMENT && each.value.at(0) == PACKET_COPY;
		}));
		EXPECT_EQ(close(fd), 0);
		EXPECT_TRUE(module.is_closed()); // the relay ends with the descriptor
	}
}

TEST(CompatPreload, socket__refusals)
{
	FakeModule module;
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(5)), -1);
	EXPECT_EQ(errno, EPROTONOSUPPORT);
	setenv("MOX_LOCATION", "moon", 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, EINVAL);
	unsetenv("MOX_LOCATION");
	setenv(kFakeSocketError, std::to_string(EPERM).c_str(), 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, EPERM);
	unsetenv(kFakeSocketError);
	setenv(kFakeOptionError, "11:12", 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, ENOMEM);
	unsetenv(kFakeOptionError);
	setenv("MOX_RELAY", "/nonexistent/mox-relay", 1);
	testing::internal::CaptureStderr();
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_NE(testing::internal::GetCapturedStderr().find(
			  "cannot run /nonexistent/mox-relay: No such"),
		  std::string::npos);
}

TEST(CompatPreload, socket__leaves_no_child_and_no_descriptor)
{
	FakeModule module;
	const int before = dup(0);
	close(before);
	for (int i = 0; i < 3; ++i) {
		const int fd = open_socket(module, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK);
		EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
		EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
		EXPECT_EQ(errno, ECHILD);
		char byte;
		EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
		EXPECT_EQ(errno, EAGAIN);
		close(fd);
	}
	const int fd = open_socket(module);
	EXPECT_FALSE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
	EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
	close(fd);
}

TEST(CompatPreload, bind__replaces_the_rules)
{
	FakeModule module;
	const int fd = open_socket(module, SOCK_RAW, 0);
	module.options();
	const auto try_bind = [&](const sockaddr_ll &to) {
		return bind(fd, plain(to), sizeof(to)) == 0 ? 0 : errno;
	};
	EXPECT_EQ(try_bind(address(kPort, kAll)), 0);
	EXPECT_EQ(rules(module.options()), " @0 +10:3.0.0.0 @2");
	EXPECT_EQ(try_bind(address(kPort, kArp)), 0);
	EXPECT_EQ(rules(module.options()), " @0 -10:3.0.0.0 +3:8.6 +10:3.0.0.0 @2");
	EXPECT_EQ(try_bind(address(0, 0)), 0); // the protocol stays
	EXPECT_EQ(rules(module.options()), " @0 -3:8.6 -10:3.0.0.0 +3:8.6 @2");

	EXPECT_EQ(try_bind(address(kNoPort, kAll)), ENODEV);
	EXPECT_EQ(try_bind(address(kPort, 5)), EINVAL);
	sockaddr_ll other = address(kPort);
	other.sll_family = AF_INET;
	EXPECT_EQ(try_bind(other), EINVAL);
	EXPECT_EQ(bind(fd, plain(other), 12), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(rules(module.options()), "");
	close(fd);
}

TEST(CompatPreload, environment__location_treatment_interfaces_rules)
{
	FakeModule module;
	setenv("MOX_LOCATION", "ipv4,local", 1);
	setenv("MOX_TREATMENT", "trap", 1);
	setenv("MOX_RULES", "ipproto=udp", 1);
	const int fd = open_socket(module, SOCK_RAW, 0x800);
	module.accept();
	EXPECT_EQ(rules(module.options(0)), " @0 +3:8.0 +5:17 @3");
	EXPECT_EQ(rules(module.options(1)), " @0 +3:8.0 +5:17 @1");
	const sockaddr_ll to = address(kPort);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	EXPECT_EQ(rules(module.options(0)), " @0 -3:8.0 -5:17 +3:8.0 +5:17 +10:3.0.0.0 @3");
	EXPECT_EQ(rules(module.options(1)), " @0 -3:8.0 -5:17 +3:8.0 +5:17 @1");

	// What leaves is reported as of the bound interface, which programs compare.
	module.frame(frame_of(0x800), 0, {}, 1);
	sockaddr_ll from{};
	socklen_t length = sizeof(from);
	Bytes buffer(100);
	ASSERT_EQ(recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from),
			   &length),
		  60);
	EXPECT_EQ(from.sll_pkttype, PACKET_OUTGOING);
	EXPECT_EQ(from.sll_ifindex, static_cast<int>(kPort));
	const int on = 1;
	ASSERT_EQ(setsockopt(fd, SOL_PACKET, 23 /* PACKET_IGNORE_OUTGOING */, &on, sizeof(on)), 0);
	module.frame(frame_of(0x800), 0, {}, 1);
	EXPECT_FALSE(readable(fd, 100));
	close(fd);
}

TEST(CompatPreload, interfaces_any__no_rule_and_the_platforms_output)
{
	FakeModule module;
	setenv("MOX_INTERFACES", "any", 1);
	const int fd = open_socket(module, SOCK_RAW, kArp);
	const sockaddr_ll to = address(kPort);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	EXPECT_EQ(rules(module.options()), " @0 +3:8.6 @2 @0 -3:8.6 +3:8.6 @2");
	const Bytes frame = frame_of(kArp);
	EXPECT_EQ(write(fd, frame.data(), frame.size()), 60);
	const auto sent = module.sent();
	ASSERT_EQ(sent.size(), 1u);
	EXPECT_EQ(sent[0].address.at(4), 0);
	close(fd);
}

/** Each of the calls that receive, with the frame whole. */
TEST(CompatPreload, receive__by_every_call)
{
	FakeModule module;
	const int fd = open_socket(module);
	const Bytes frame = frame_of(kArp);
	Bytes buffer(100);
	using Call = ssize_t (*)(int, Bytes &);
	const Call calls[] = {
		[](int s, Bytes &to) { return recv(s, to.data(), to.size(), 0); },
		[](int s, Bytes &to) { return read(s, to.data(), to.size()); },
		[](int s, Bytes &to) {
			return recvfrom(s, to.data(), to.size(), 0, nullptr, nullptr);
		},
		[](int s, Bytes &to) {
			iovec parts[] = { { to.data(), 7 }, { &to[7], to.size() - 7 } };
			return readv(s, parts, 2);
		},
		[](int s, Bytes &to) {
			iovec part{ to.data(), to.size() };
			msghdr message{};
			message.msg_iov = &part;
			message.msg_iovlen = 1;
			return recvmsg(s, &message, 0);
		},
		[](int s, Bytes &to) {
			iovec part{ to.data(), to.size() };
			mmsghdr message{};
			message.msg_hdr.msg_iov = &part;
			message.msg_hdr.msg_iovlen = 1;
			EXPECT_EQ(recvmmsg(s, &message, 1, 0, nullptr), 1);
			return static_cast<ssize_t>(message.msg_len);
		},
	};
	for (const Call call : calls) {
		module.frame(frame);
		ASSERT_TRUE(readable(fd));
		std::fill(buffer.begin(), buffer.end(), 0xee);
		EXPECT_EQ(call(fd, buffer), 60);
		EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 60), frame);
		EXPECT_EQ(buffer[60], 0xee);
	}
	close(fd);
}

TEST(CompatPreload, receive__lengths_and_flags)
{
	FakeModule module;
	const int fd = open_socket(module);
	const Bytes frame = frame_of(kArp);
	module.frame(frame);
	ASSERT_TRUE(readable(fd));
	Bytes buffer(100);
	int queued = 0;
	EXPECT_EQ(ioctl(fd, SIOCINQ, &queued), 0);
	EXPECT_EQ(queued, 60);
	EXPECT_EQ(recv(fd, buffer.data(), 20, MSG_PEEK), 20);
	EXPECT_EQ(recv(fd, buffer.data(), 20, MSG_PEEK | MSG_TRUNC), 60);
	EXPECT_EQ(recv(fd, buffer.data(), 20, MSG_OOB), -1);
	EXPECT_EQ(errno, EINVAL);
	iovec part{ buffer.data(), 20 };
	sockaddr_ll from{};
	msghdr message{};
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	message.msg_name = &from;
	message.msg_namelen = sizeof(from);
	EXPECT_EQ(recvmsg(fd, &message, 0), 20);
	EXPECT_EQ(message.msg_flags, MSG_TRUNC);
	EXPECT_EQ(message.msg_namelen, 20u);
	EXPECT_EQ(message.msg_controllen, 0u);
	EXPECT_EQ(from.sll_family, AF_PACKET);
	EXPECT_EQ(ntohs(from.sll_protocol), kArp);
	EXPECT_EQ(from.sll_ifindex, static_cast<int>(kPort));
	EXPECT_EQ(from.sll_hatype, 1);
	EXPECT_EQ(from.sll_pkttype, PACKET_HOST);
	EXPECT_EQ(from.sll_halen, 6);
	EXPECT_EQ(std::memcmp(from.sll_addr, &frame[6], 6), 0);
	EXPECT_EQ(recv(fd, buffer.data(), 20, MSG_DONTWAIT), -1);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_EQ(ioctl(fd, SIOCINQ, &queued), 0);
	EXPECT_EQ(queued, 0);

	// The longest frame, and one that is too long.
	module.frame(frame_of(0x800, 65549));
	Bytes longest(70000);
	EXPECT_EQ(recv(fd, longest.data(), longest.size(), 0), 65549);
	std::vector<iovec> many(65, part);
	message.msg_iov = many.data();
	message.msg_iovlen = many.size();
	EXPECT_EQ(recvmsg(fd, &message, 0), -1);
	EXPECT_EQ(errno, EMSGSIZE);
	close(fd);
}

TEST(CompatPreload, receive__control_messages_as_switched_on)
{
	FakeModule module;
	const int fd = open_socket(module);
	const int on = 1;
	timeval stamp{};
	EXPECT_EQ(ioctl(fd, SIOCGSTAMP, &stamp), -1);
	EXPECT_EQ(errno, ENOENT);
	ASSERT_EQ(setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on)), 0);
	ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof(on)), 0);
	mox_packet_ctrl_info record{};
	record.vlan = 100 << 4 | 5;
	module.frame(frame_of(kArp), kPort, record);

	Bytes buffer(100);
	alignas(cmsghdr) char control[256];
	iovec part{ buffer.data(), buffer.size() };
	msghdr message{};
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	message.msg_control = control;
	message.msg_controllen = sizeof(control);
	ASSERT_EQ(recvmsg(fd, &message, 0), 60);
	bool has_aux = false, has_stamp = false;
	for (cmsghdr *each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
		if (each->cmsg_level == SOL_PACKET && each->cmsg_type == PACKET_AUXDATA) {
			tpacket_auxdata aux;
			ASSERT_EQ(each->cmsg_len, CMSG_LEN(sizeof(aux)));
			std::memcpy(&aux, CMSG_DATA(each), sizeof(aux));
			EXPECT_EQ(aux.tp_vlan_tci, 5 << 13 | 100);
			EXPECT_EQ(aux.tp_vlan_tpid, 0x8100);
			EXPECT_TRUE(aux.tp_status & TP_STATUS_VLAN_VALID);
			EXPECT_EQ(aux.tp_len, 60u);
			EXPECT_EQ(aux.tp_snaplen, 60u);
			EXPECT_EQ(aux.tp_net, 14);
			has_aux = true;
		}
		if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SO_TIMESTAMP) {
			ASSERT_EQ(each->cmsg_len, CMSG_LEN(sizeof(stamp)));
			std::memcpy(&stamp, CMSG_DATA(each), sizeof(stamp));
			EXPECT_EQ(stamp.tv_sec, 1700000000);
			EXPECT_EQ(stamp.tv_usec, 123456);
			has_stamp = true;
		}
	}
	EXPECT_TRUE(has_aux);
	EXPECT_TRUE(has_stamp);
	EXPECT_EQ(ioctl(fd, SIOCGSTAMP, &stamp), 0);
	EXPECT_EQ(stamp.tv_usec, 123456);
	timespec exact{};
	EXPECT_EQ(ioctl(fd, SIOCGSTAMPNS, &exact), 0);
	EXPECT_EQ(exact.tv_nsec, 123456789);

	// No room for the second message.
	module.frame(frame_of(kArp), kPort, record);
	message.msg_controllen = CMSG_SPACE(sizeof(stamp));
	ASSERT_EQ(recvmsg(fd, &message, 0), 60);
	EXPECT_EQ(message.msg_flags, MSG_CTRUNC);
	EXPECT_EQ(message.msg_controllen, CMSG_SPACE(sizeof(stamp)));
	close(fd);
}

TEST(CompatPreload, datagram__without_header_both_ways)
{
	FakeModule module;
	const int fd = open_socket(module, SOCK_DGRAM, kArp);
	const Bytes frame = frame_of(kArp);
	module.frame(frame);
	Bytes buffer(100);
	ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 46);
	EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 46),
		  Bytes(frame.begin() + 14, frame.end()));

	const Bytes data(28, 0x55);
	const auto send_to = [&](const sockaddr_ll &to, std::size_t length = sizeof(sockaddr_ll)) {
		return sendto(fd, data.data(), data.size(), 0, plain(to),
			      static_cast<socklen_t>(length)) == 28
			       ? 0
			       : errno;
	};
	EXPECT_EQ(send_to(address(kPort, 0x88b5, true)), 0);
	const auto sent = module.sent();
	ASSERT_EQ(sent.size(), 1u);
	Bytes expected(6, 0xff);
	expected.insert(expected.end(), std::begin(kPortMac), std::end(kPortMac));
	expected.push_back(0x88);
	expected.push_back(0xb5);
	expected.insert(expected.end(), data.begin(), data.end());
	EXPECT_EQ(sent[0].frame, expected);
	EXPECT_EQ(sent[0].address.at(4), kPort);

	EXPECT_EQ(send_to(address(kPort, 0x88b5, false)), EINVAL);
	EXPECT_EQ(send_to(address(kNoPort, 0x88b5, true)), ENXIO);
	EXPECT_EQ(send_to(address(kPort, 0x88b5, true), 18), EINVAL);
	EXPECT_EQ(send(fd, data.data(), data.size(), 0), -1);
	EXPECT_EQ(errno, ENXIO); // not bound
	close(fd);
}

TEST(CompatPreload, send__by_every_call_with_the_modules_errno)
{
	FakeModule module;
	const int fd = open_socket(module);
	const sockaddr_ll to = address(kPort, kAll);
	const Bytes frame = frame_of(kArp);
	EXPECT_EQ(write(fd, frame.data(), frame.size()), -1);
	EXPECT_EQ(errno, ENXIO);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	EXPECT_EQ(write(fd, frame.data(), frame.size()), 60);
	EXPECT_EQ(send(fd, frame.data(), frame.size(), 0), 60);
	EXPECT_EQ(sendto(fd, frame.data(), frame.size(), 0, plain(to), sizeof(to)), 60);
	iovec parts[] = { { const_cast<std::uint8_t *>(frame.data()), 14 },
			  { const_cast<std::uint8_t *>(&frame[14]), 46 } };
	EXPECT_EQ(writev(fd, parts, 2), 60);
	mmsghdr messages[2] = {};
	for (auto &each : messages) {
		each.msg_hdr.msg_iov = parts;
		each.msg_hdr.msg_iovlen = 2;
	}
	EXPECT_EQ(sendmsg(fd, &messages[0].msg_hdr, 0), 60);
	EXPECT_EQ(sendmmsg(fd, messages, 2, 0), 2);
	EXPECT_EQ(messages[1].msg_len, 60u);
	const auto sent = module.sent();
	ASSERT_EQ(sent.size(), 7u);
	for (const auto &each : sent) {
		EXPECT_EQ(each.frame, frame);
		EXPECT_EQ(each.address.at(4), kPort);
	}
	EXPECT_EQ(write(fd, frame.data(), 13), -1);
	EXPECT_EQ(errno, EINVAL);
	const Bytes too_long(70000);
	EXPECT_EQ(write(fd, too_long.data(), too_long.size()), -1);
	EXPECT_EQ(errno, EMSGSIZE);
	close(fd);

	setenv(kFakeSendError, std::to_string(ENETDOWN).c_str(), 1);
	FakeModule *same = &module;
	const int other = socket(AF_PACKET, SOCK_RAW, 0);
	same->accept();
	EXPECT_EQ(sendto(other, frame.data(), frame.size(), 0, plain(to), sizeof(to)), -1);
	EXPECT_EQ(errno, ENETDOWN);
	close(other);
}

TEST(CompatPreload, filter__refused_frames_never_wake_the_program)
{
	FakeModule module;
	const int fd = open_socket(module);
	// ARP, the first 20 bytes.
	sock_filter only_arp[] = { { BPF_LD | BPF_H | BPF_ABS, 0, 0, 12 },
				   { BPF_JMP | BPF_JEQ | BPF_K, 0, 1, kArp },
				   { BPF_RET | BPF_K, 0, 0, 20 },
				   { BPF_RET | BPF_K, 0, 0, 0 } };
	sock_fprog program{ 4, only_arp };
	ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), 0);
	module.frame(frame_of(0x800));
	EXPECT_FALSE(readable(fd, 150));
	module.frame(frame_of(kArp));
	ASSERT_TRUE(readable(fd));
	Bytes buffer(100);
	EXPECT_EQ(recv(fd, buffer.data(), buffer.size(), MSG_TRUNC), 20);

	const int on = 1, off = 0;
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LOCK_FILTER, &on, sizeof(on)), 0);
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &off, sizeof(off)), -1);
	EXPECT_EQ(errno, EPERM);
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), -1);
	EXPECT_EQ(errno, EPERM);
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LOCK_FILTER, &off, sizeof(off)), -1);
	EXPECT_EQ(errno, EPERM);
	close(fd);

	const int other = open_socket(module);
	EXPECT_EQ(setsockopt(other, SOL_SOCKET, SO_DETACH_FILTER, &off, sizeof(off)), -1);
	EXPECT_EQ(errno, ENOENT);
	ASSERT_EQ(setsockopt(other, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), 0);
	ASSERT_EQ(setsockopt(other, SOL_SOCKET, SO_DETACH_FILTER, &off, sizeof(off)), 0);
	module.frame(frame_of(0x800), kPort, {}, 1);
	EXPECT_TRUE(readable(other));
	only_arp[3].code = 0xffff;
	EXPECT_EQ(setsockopt(other, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), -1);
	EXPECT_EQ(errno, EINVAL);
	program.len = 0;
	EXPECT_EQ(setsockopt(other, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), -1);
	EXPECT_EQ(errno, EINVAL);
	close(other);
}

TEST(CompatPreload, statistics__what_the_filter_accepted_and_drops)
{
	FakeModule module;
	const int fd = open_socket(module);
	module.frame(frame_of(kArp));
	module.frame(frame_of(0x800));
	Bytes buffer(100);
	ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 60);
	ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 60);
	module.drops(5);
	const auto expect = [&](unsigned packets, unsigned drops) {
		tpacket_stats stats{};
		socklen_t length = sizeof(stats);
		EXPECT_EQ(getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &length), 0);
		EXPECT_EQ(length, sizeof(stats));
		EXPECT_EQ(stats.tp_packets, packets);
		EXPECT_EQ(stats.tp_drops, drops);
	};
	expect(7, 5);
	expect(0, 0);
	close(fd);
}

TEST(CompatPreload, options__answers)
{
	FakeModule module;
	const int fd = open_socket(module, SOCK_DGRAM, kArp);
	packet_mreq request{};
	request.mr_ifindex = kPort;
	packet_mreq elsewhere{};
	elsewhere.mr_ifindex = kNoPort;
	int on = 1;
	const unsigned sixteen[4] = { 4096, 1, 256, 16 }; // of TPACKET_V1
	const struct {
		int level, option;
		const void *value;
		socklen_t length;
		int error;
	} sets[] = {
		{ SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof(request), 0 },
		{ SOL_PACKET, PACKET_DROP_MEMBERSHIP, &request, sizeof(request), 0 },
		{ SOL_PACKET, PACKET_ADD_MEMBERSHIP, &elsewhere, sizeof(elsewhere), ENODEV },
		{ SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, 8, EINVAL },
		{ SOL_PACKET, PACKET_AUXDATA, &on, 2, EINVAL },
		{ SOL_PACKET, PACKET_ORIGDEV, &on, sizeof(on), 0 },
		{ SOL_PACKET, PACKET_COPY_THRESH, &on, sizeof(on), 0 },
		{ SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof(on), 0 },
		{ SOL_PACKET, PACKET_RX_RING, sixteen, sizeof(sixteen), ENOPROTOOPT },
		{ SOL_PACKET, PACKET_TX_RING, sixteen, sizeof(sixteen), ENOPROTOOPT },
		{ SOL_PACKET, PACKET_FANOUT, &on, sizeof(on), ENOPROTOOPT },
		{ SOL_PACKET, PACKET_TIMESTAMP, &on, sizeof(on), ENOPROTOOPT },
		{ SOL_PACKET, PACKET_VNET_HDR, &on, sizeof(on), ENOPROTOOPT },
		{ SOL_PACKET, PACKET_LOSS, &on, sizeof(on), ENOPROTOOPT },
		{ 0x1234, 1, &on, sizeof(on), ENOPROTOOPT },
		{ SOL_SOCKET, SO_ATTACH_BPF, &on, sizeof(on), EOPNOTSUPP },
		{ SOL_SOCKET, SO_TIMESTAMPNS, &on, 1, EINVAL },
		{ SOL_SOCKET, SO_SNDBUF, &on, sizeof(on), 0 },
	};
	for (const auto &row : sets)
		EXPECT_EQ(setsockopt(fd, row.level, row.option, row.value, row.length) == 0 ? 0
											    : errno,
			  row.error)
			<< row.level << " " << row.option;

	const int buffer = 50000;
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer)), 0);
	const struct {
		int level, option, error, value;
	} gets[] = {
		{ SOL_SOCKET, SO_RCVBUF, 0, 100000 },
		{ SOL_SOCKET, SO_TYPE, 0, SOCK_DGRAM },
		{ SOL_SOCKET, SO_DOMAIN, 0, AF_PACKET },
		{ SOL_SOCKET, SO_ERROR, 0, 0 },
		{ SOL_PACKET, PACKET_ORIGDEV, 0, 1 },
		{ SOL_PACKET, PACKET_AUXDATA, 0, 0 },
		{ SOL_PACKET, PACKET_ROLLOVER_STATS, ENOPROTOOPT, 0 },
	};
	for (const auto &row : gets) {
		int value = 0;
		socklen_t length = sizeof(value);
		EXPECT_EQ(getsockopt(fd, row.level, row.option, &value, &length) == 0 ? 0 : errno,
			  row.error)
			<< row.level << " " << row.option;
		EXPECT_EQ(value, row.value) << row.level << " " << row.option;
	}
	EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
	EXPECT_EQ(errno, ENODEV);
	close(fd);
}

TEST(CompatPreload, getsockname__with_the_interfaces_address)
{
	FakeModule module;
	const int fd = open_socket(module, SOCK_RAW, kArp);
	sockaddr_ll name{};
	socklen_t length = sizeof(name);
	EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length), 0);
	EXPECT_EQ(length, 12u);
	const sockaddr_ll to = address(kPort);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	length = sizeof(name);
	EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length), 0);
	EXPECT_EQ(length, 18u);
	EXPECT_EQ(name.sll_ifindex, static_cast<int>(kPort));
	EXPECT_EQ(ntohs(name.sll_protocol), kArp);
	EXPECT_EQ(std::memcmp(name.sll_addr, kPortMac, 6), 0);
	ifreq request{};
	std::strcpy(request.ifr_name, "lo");
	EXPECT_EQ(ioctl(fd, SIOCGIFINDEX, &request), 0); // the kernel's, as of any descriptor
	EXPECT_NE(ioctl(fd, SIOCGIFADDR, &request) == 0 ? 0 : errno, ENOTTY);
	close(fd);
}

TEST(CompatPreload, copies__of_the_descriptor_are_the_socket)
{
	FakeModule module;
	const int fd = open_socket(module);
	const int copy = dup(fd), second = fcntl(fd, F_DUPFD_CLOEXEC, 100), third = dup2(fd, 200);
	EXPECT_GE(second, 100);
	EXPECT_EQ(third, 200);
	close(fd);
	Bytes buffer(100);
	for (const int each : { copy, second, third }) {
		module.frame(frame_of(kArp));
		EXPECT_EQ(recv(each, buffer.data(), buffer.size(), 0), 60);
	}
	// A number that has become something else is not the socket any more.
	int pipes[2];
	ASSERT_EQ(pipe(pipes), 0);
	EXPECT_EQ(dup2(pipes[1], 200), 200);
	EXPECT_EQ(write(200, "x", 1), 1);
	EXPECT_EQ(read(pipes[0], buffer.data(), 1), 1);
	EXPECT_EQ(dup2(12345, copy), -1);
	module.frame(frame_of(kArp));
	EXPECT_EQ(recv(copy, buffer.data(), buffer.size(), 0), 60);
	for (const int each : { copy, second, 200, pipes[0], pipes[1] })
		close(each);
	EXPECT_TRUE(module.is_closed());
}

TEST(CompatPreload, fork_and_passing__other_processes_have_the_socket)
{
	FakeModule module;
	const int fd = open_socket(module);
	int pair[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
	const pid_t child = fork();
	if (child == 0) {
		// The descriptor under a number that this process's table does not have.
		close(fd);
		char byte;
		iovec part{ &byte, 1 };
		alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
		msghdr message{};
		message.msg_iov = &part;
		message.msg_iovlen = 1;
		message.msg_control = control;
		message.msg_controllen = sizeof(control);
		int passed = -1;
		if (recvmsg(pair[1], &message, 0) == 1)
			std::memcpy(&passed, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(passed));
		Bytes buffer(100);
		const sockaddr_ll to = address(kPort, kArp);
		const bool ok = bind(passed, plain(to), sizeof(to)) == 0 &&
				recv(passed, buffer.data(), buffer.size(), 0) == 60 &&
				write(passed, buffer.data(), 60) == 60;
		_exit(ok ? 0 : 1);
	}
	char byte = 0;
	iovec part{ &byte, 1 };
	alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
	msghdr message{};
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	message.msg_control = control;
	message.msg_controllen = sizeof(control);
	cmsghdr *head = CMSG_FIRSTHDR(&message);
	head->cmsg_level = SOL_SOCKET;
	head->cmsg_type = SCM_RIGHTS;
	head->cmsg_len = CMSG_LEN(sizeof(int));
	std::memcpy(CMSG_DATA(head), &fd, sizeof(fd));
	ASSERT_EQ(sendmsg(pair[0], &message, 0), 1);
	close(fd);
	module.frame(frame_of(kArp));
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(module.sent().size(), 1u);
	EXPECT_TRUE(module.is_closed());
	close(pair[0]);
	close(pair[1]);
}

TEST(CompatPreload, waiting__by_epoll_select_and_timeout)
{
	FakeModule module;
	const int fd = open_socket(module);
	const timeval wait{ 0, 50000 };
	ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait)), 0);
	char byte;
	EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
	EXPECT_EQ(errno, EAGAIN);
	const int epoll = epoll_create1(0);
	epoll_event event{ EPOLLIN, {} };
	ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event), 0);
	EXPECT_EQ(epoll_wait(epoll, &event, 1, 50), 0);
	module.frame(frame_of(kArp));
	EXPECT_EQ(epoll_wait(epoll, &event, 1, 20000), 1);
	fd_set set;
	FD_ZERO(&set);
	FD_SET(fd, &set);
	timeval limit{ 20, 0 };
	EXPECT_EQ(select(fd + 1, &set, nullptr, nullptr, &limit), 1);
	close(epoll);
	close(fd);
}

/** Frames wait in the capture socket while the program does not read; none is lost, and requests are answered. */
TEST(CompatPreload, slow_program__keeps_the_order)
{
	FakeModule module;
	const int fd = open_socket(module);
	const int count = 3000;
	std::thread sender([&] {
		for (int i = 0; i < count; ++i) {
			Bytes frame = frame_of(kArp);
			frame[20] = static_cast<std::uint8_t>(i);
			frame[21] = static_cast<std::uint8_t>(i >> 8);
			module.frame(frame);
		}
	});
	usleep(300000);
	tpacket_stats stats{};
	socklen_t length = sizeof(stats);
	EXPECT_EQ(getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &length), 0);
	EXPECT_GT(stats.tp_packets, 0u);
	EXPECT_LT(stats.tp_packets, static_cast<unsigned>(count));
	Bytes buffer(100);
	for (int i = 0; i < count; ++i) {
		ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 60);
		ASSERT_EQ(buffer[20] | buffer[21] << 8, i);
	}
	sender.join();
	close(fd);
}

TEST(CompatPreload, limit__of_sockets_in_a_process)
{
	FakeModule module;
	const int fd = open_socket(module);
	std::vector<int> copies;
	testing::internal::CaptureStderr();
	int last;
	while ((last = dup(fd)) >= 0)
		copies.push_back(last);
	EXPECT_EQ(errno, EMFILE);
	EXPECT_EQ(copies.size(), 255u);
	EXPECT_NE(testing::internal::GetCapturedStderr().find("at most 256 packet sockets"),
		  std::string::npos);
	for (const int each : copies)
		close(each);
	const int again = dup(fd);
	EXPECT_GE(again, 0);
	close(again);
	close(fd);
}

TEST(CompatPreload, relay_gone__says_so_and_ends_calls)
{
	FakeModule module;
	const int fd = open_socket(module);
	// A relay that cannot read its capture socket ends; here the test finds and kills it.
	const std::string command =
		"for p in /proc/[0-9]*; do [ \"$(readlink $p/exe)\" = '" FAKE_RELAY
		"' ] && tr '\\0' '\\n' <$p/environ | grep -qx \"MOX_TEST_MODULE=$MOX_TEST_MODULE\" && "
		"kill -9 ${p#/proc/}; done; true";
	ASSERT_EQ(std::system(command.c_str()), 0);
	ASSERT_TRUE(module.is_closed());
	testing::internal::CaptureStderr();
	char byte;
	EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
	EXPECT_EQ(errno, ENETDOWN);
	EXPECT_NE(testing::internal::GetCapturedStderr().find("has ended"), std::string::npos);
	const sockaddr_ll to = address(kPort, kAll);
	EXPECT_EQ(bind(fd, plain(to), sizeof(to)), -1);
	EXPECT_EQ(errno, ENETDOWN);
	close(fd);
}

TEST(CompatPreload, off__is_the_systems_socket)
{
	FakeModule module;
	setenv("MOX_COMPAT", "off", 1);
	const int fd = socket(AF_PACKET, SOCK_RAW, 0);
	// What the system answers: a socket for root, EPERM for others, EAFNOSUPPORT without packet sockets.
	if (fd >= 0) {
		int version = 2;
		EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)), 0);
		close(fd);
	} else {
		EXPECT_TRUE(errno == EPERM || errno == EAFNOSUPPORT) << std::strerror(errno);
	}
}

} // namespace
