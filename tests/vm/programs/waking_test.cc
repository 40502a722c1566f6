// SPDX-License-Identifier: GPL-2.0-only
// How a daemon ends a thread that waits for frames, and what it hears of a port that goes: nothing from its socket.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/fixture.h"
#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;

/// Time in which a thread that is not woken would show that it was.
constexpr int kStillWaits = 300;

/// A thread in a call that waits, and how the call ended.
class Waiting {
public:
	explicit Waiting(std::function<ssize_t()> call)
		: thread_([this, call = std::move(call)] {
			  id_ = pid_t(::syscall(SYS_gettid));
			  ssize_t result = call();
			  error_ = result < 0 ? errno : 0;
			  result_ = result;
			  ended_ = true;
		  })
	{
		while (!id_ || !sleeps())
			::usleep(1000);
	}
	~Waiting() { thread_.join(); }

	bool ended(int milliseconds)
	{
		for (int i = 0; i < milliseconds && !ended_; ++i)
			::usleep(1000);
		return ended_;
	}
	ssize_t result() const { return result_; }
	int error() const { return error_; }
	void signal(int number) { ::syscall(SYS_tgkill, ::getpid(), pid_t(id_), number); }

private:
	bool sleeps() const
	{
		std::ifstream stat("/proc/self/task/" + std::to_string(id_) + "/stat");
		std::string number, name, state;
		return (stat >> number >> name >> state) && state == "S";
	}

	std::atomic<pid_t> id_{ 0 };
	std::atomic<bool> ended_{ false };
	std::atomic<ssize_t> result_{ 0 };
	std::atomic<int> error_{ 0 };
	std::thread thread_;
};

class Wake : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		socket_ = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	}
	void TearDown() override
	{
		socket_.close();
		VmTest::TearDown();
	}
	/// A thread in recv(2).
	std::unique_ptr<Waiting> reader(int fd)
	{
		return std::make_unique<Waiting>(
			[this, fd] { return ::recv(fd, frame_, sizeof frame_, 0); });
	}
	static void on_signal(int number, int flags)
	{
		struct sigaction action {};
		action.sa_handler = [](int) {};
		action.sa_flags = flags;
		::sigaction(number, &action, nullptr);
	}

	Socket socket_;
	uint8_t frame_[2048];
};

TEST_F(Wake, shutdown_is_refused_and_wakes_no_reader)
{
	auto waiting = reader(socket_.fd());
	EXPECT_EQ(::shutdown(socket_.fd(), SHUT_RDWR), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
	EXPECT_FALSE(waiting->ended(kStillWaits));
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_TRUE(waiting->ended(5000));
	EXPECT_EQ(waiting->result(), 60);
}

TEST_F(Wake, close_wakes_no_reader_and_the_capture_goes_on_until_the_reader_returns)
{
	auto waiting = reader(socket_.fd());
	socket_.close();
	EXPECT_FALSE(waiting->ended(kStillWaits));
	EXPECT_EQ(put(lab::Hook::Lev2, frames::plain()), lab::kTaken) << "still trapped";
	EXPECT_TRUE(waiting->ended(5000));
	EXPECT_EQ(waiting->result(), 60);
	for (int i = 0; i < 500 && lab::registered(lab::Hook::Lev2); ++i)
		::usleep(10'000);
	EXPECT_FALSE(lab::registered(lab::Hook::Lev2)) << "the last user of the socket is gone";
}

TEST_F(Wake, a_signal_ends_recv_with_EINTR_unless_its_handler_restarts_calls)
{
	on_signal(SIGUSR1, 0);
	on_signal(SIGUSR2, SA_RESTART);
	auto waiting = reader(socket_.fd());
	waiting->signal(SIGUSR2);
	EXPECT_FALSE(waiting->ended(kStillWaits));
	waiting->signal(SIGUSR1);
	EXPECT_TRUE(waiting->ended(5000));
	EXPECT_EQ(waiting->error(), EINTR);
}

TEST_F(Wake, with_a_time_limit_even_a_restarting_handler_ends_recv)
{
	timeval limit{ 60, 0 };
	ASSERT_EQ(socket_.option_raw(SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
	on_signal(SIGUSR2, SA_RESTART);
	auto waiting = reader(socket_.fd());
	waiting->signal(SIGUSR2);
	EXPECT_TRUE(waiting->ended(5000));
	EXPECT_EQ(waiting->error(), EINTR);
}

TEST_F(Wake, a_receive_time_limit_ends_recv_with_EAGAIN)
{
	timeval limit{ 0, 200'000 };
	ASSERT_EQ(socket_.option_raw(SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
	EXPECT_EQ(::recv(socket_.fd(), frame_, sizeof frame_, 0), -1);
	EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Wake, an_eventfd_beside_the_socket_ends_poll_and_epoll)
{
	const int event = ::eventfd(0, EFD_CLOEXEC);
	{
		Waiting polling([&] {
			pollfd both[] = { { socket_.fd(), POLLIN, 0 }, { event, POLLIN, 0 } };
			int ready = ::poll(both, 2, -1);
			return ready == 1 && both[1].revents == POLLIN && !both[0].revents ? 1 : 0;
		});
		EXPECT_EQ(::eventfd_write(event, 1), 0);
		EXPECT_TRUE(polling.ended(5000));
		EXPECT_EQ(polling.result(), 1);
	}
	eventfd_t count;
	ASSERT_EQ(::eventfd_read(event, &count), 0);

	const int set = ::epoll_create1(EPOLL_CLOEXEC);
	for (int fd : { socket_.fd(), event }) {
		epoll_event wanted{};
		wanted.events = EPOLLIN | EPOLLET;
		wanted.data.fd = fd;
		ASSERT_EQ(::epoll_ctl(set, EPOLL_CTL_ADD, fd, &wanted), 0);
	}
	// Edge-triggered, first the socket's edge, then the event's.
	for (int expected : { socket_.fd(), event }) {
		Waiting waiting([&] {
			epoll_event ready{};
			return ::epoll_wait(set, &ready, 1, -1) == 1 ? ready.data.fd : -1;
		});
		if (expected == event)
			EXPECT_EQ(::eventfd_write(event, 1), 0);
		else
			put(lab::Hook::Lev2, frames::plain());
		EXPECT_TRUE(waiting.ended(5000));
		EXPECT_EQ(waiting.result(), expected);
	}
	::close(set);
	::close(event);
}

class PortGone : public SendTest {
protected:
	/// A netlink socket that hears of links.
	static int link_events()
	{
		int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
		sockaddr_nl address{};
		address.nl_family = AF_NETLINK;
		address.nl_groups = RTMGRP_LINK;
		EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
		return fd;
	}
	/// Whether a message of that type about that interface arrives.
	static bool hears(int fd, uint16_t type, uint32_t ifindex)
	{
		pollfd readable{ fd, POLLIN, 0 };
		while (::poll(&readable, 1, 5000) == 1) {
			alignas(nlmsghdr) char buffer[16384];
			int length = int(::recv(fd, buffer, sizeof buffer, 0));
			for (auto *head = reinterpret_cast<nlmsghdr *>(buffer);
			     NLMSG_OK(head, unsigned(length)); head = NLMSG_NEXT(head, length))
				if (head->nlmsg_type == type &&
				    static_cast<ifinfomsg *>(NLMSG_DATA(head))->ifi_index ==
					    int(ifindex))
					return true;
		}
		return false;
	}
	static socklen_t name_length(Socket &socket)
	{
		sockaddr_ll name{};
		socklen_t length = sizeof name;
		EXPECT_EQ(::getsockname(socket.fd(), reinterpret_cast<sockaddr *>(&name), &length),
			  0);
		return length;
	}
};

TEST_F(PortGone, the_socket_says_nothing__rtnetlink_and_getsockname_do)
{
	auto port = std::make_unique<TapPort>("tap-gone");
	const uint32_t index = port->ifindex();
	Socket socket;
	ASSERT_EQ(socket.add(all()), 0);
	ASSERT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { index })), 0);
	ASSERT_EQ(socket.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(socket.bind(index), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	const Bytes frame = frames::plain().bytes;
	port->write(frame);
	EXPECT_TRUE(socket.receive());
	EXPECT_EQ(name_length(socket), 18u) << "with the port's MAC address";

	const int events = link_events();
	port.reset();
	EXPECT_TRUE(hears(events, RTM_DELLINK, index));
	::close(events);
	pollfd reader{ socket.fd(), POLLIN | POLLPRI, 0 };
	EXPECT_EQ(::poll(&reader, 1, kStillWaits), 0) << "neither an error nor an end";
	int error = -1;
	socklen_t length = sizeof error;
	EXPECT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &length), 0);
	EXPECT_EQ(error, 0);
	EXPECT_EQ(name_length(socket), 12u) << "without one";
	EXPECT_EQ(::send(socket.fd(), frame.data(), frame.size(), 0), -1);
	EXPECT_EQ(errno, ENXIO);

	// The same name is another interface.
	port = std::make_unique<TapPort>("tap-gone");
	EXPECT_NE(port->ifindex(), index);
	port->write(frame);
	EXPECT_FALSE(socket.receive(kStillWaits)) << "the rule still names the old index";
	ASSERT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { port->ifindex() })), 0);
	port->write(frame);
	EXPECT_TRUE(socket.receive());
}

} // namespace
