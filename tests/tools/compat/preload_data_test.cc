/* SPDX-License-Identifier: GPL-2.0-only */
/* Frames in and out by every call, and the filters of programs. */
#include "compat/preload_fixture.h"

#include <linux/filter.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace preload;

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

} // namespace
