/* SPDX-License-Identifier: GPL-2.0-only */
/* Options, copies of descriptors, other processes, waiting, limits, and the relay that goes. */
#include "compat/preload_fixture.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

namespace {

using namespace preload;

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

/** What a child of fork does: its number of the socket becomes a pipe's. */
bool closes_and_reuses(int fd)
{
	int pipes[2];
	char byte = 0;
	return close(fd) == 0 && pipe(pipes) == 0 && pipes[0] == fd &&
	       write(pipes[1], "x", 1) == 1 && read(pipes[0], &byte, 1) == 1 && byte == 'x';
}

TEST(CompatPreload, vfork__the_child_closes_nothing_of_its_parent)
{
	FakeModule module;
	const int fd = open_socket(module);
	int (*const closes[])(int) = {
		[](int socket) { return close(socket); },
		[](int socket) {
			return close_range(static_cast<unsigned>(socket),
					   static_cast<unsigned>(socket), 0);
		},
		[](int socket) { return dup2(2, socket) < 0 ? -1 : 0; },
		// The copies that a child makes are none of its parent.
		[](int socket) { return dup2(socket, 300) < 0 || dup(socket) < 0 ? -1 : 0; },
	};
	for (auto each : closes) {
		const pid_t child = vfork();
		if (child == 0)
			_exit(each(fd) == 0 ? 0 : 1);
		int status = -1;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		EXPECT_EQ(status, 0);

		const Bytes frame = frame_of(kArp);
		module.frame(frame);
		Bytes buffer(100);
		ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 60);
		buffer.resize(60);
		EXPECT_EQ(buffer, frame);
	}
	int pipes[2];
	ASSERT_EQ(pipe(pipes), 0);
	ASSERT_EQ(dup2(pipes[0], 300), 300);
	char byte = 0;
	EXPECT_EQ(write(pipes[1], "x", 1), 1);
	EXPECT_EQ(read(300, &byte, 1), 1) << "a pipe is no packet socket";
	EXPECT_EQ(byte, 'x');
	for (const int each : { 300, pipes[0], pipes[1], fd })
		close(each);
	EXPECT_TRUE(module.is_closed());
}

TEST(CompatPreload, fork__the_child_has_a_table_of_its_own)
{
	FakeModule module;
	const int fd = open_socket(module);
	long (*const forks[])() = {
		[]() -> long { return fork(); },
		// Without the C library's handlers.
		[]() -> long { return syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0); },
	};
	for (auto each : forks) {
		const long child = each();
		if (child == 0)
			_exit(closes_and_reuses(fd) ? 0 : 1);
		int status = -1;
		ASSERT_EQ(waitpid(static_cast<pid_t>(child), &status, 0), child);
		EXPECT_EQ(status, 0);
		module.frame(frame_of(kArp));
		Bytes buffer(100);
		ASSERT_EQ(recv(fd, buffer.data(), buffer.size(), 0), 60);
	}
	close(fd);
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
