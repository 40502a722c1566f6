// SPDX-License-Identifier: GPL-2.0-only
// Sockets of other network namespaces: counted where they were made, closed from anywhere, and never outlived by theirs.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

class Namespaces : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		home_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
		ASSERT_GE(home_, 0);
	}
	void TearDown() override
	{
		EXPECT_EQ(::setns(home_, CLONE_NEWNET), 0);
		::close(home_);
		VmTest::TearDown();
	}
	static void elsewhere() { ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << strerror(errno); }
	void back() { ASSERT_EQ(::setns(home_, CLONE_NEWNET), 0) << strerror(errno); }
	int home_ = -1;
};

TEST_F(Namespaces, a_socket_is_counted_in_its_own)
{
	long here = sockets_in_use();
	elsewhere();
	EXPECT_EQ(sockets_in_use(), 0);
	Socket socket;
	EXPECT_EQ(socket.error(), 0);
	EXPECT_EQ(sockets_in_use(), 1);
	int there = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
	back();
	EXPECT_EQ(sockets_in_use(), here);
	socket.close();
	EXPECT_EQ(sockets_in_use(), here) << "closed from here, uncounted there";
	ASSERT_EQ(::setns(there, CLONE_NEWNET), 0);
	EXPECT_EQ(sockets_in_use(), 0);
	::close(there);
}

TEST_F(Namespaces, a_socket_outlives_the_last_process_of_its_namespace)
{
	for (int i = 0; i < 10; ++i) {
		elsewhere();
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
		back(); // nothing but the socket holds the other namespace now
		// The kernel cleans dead namespaces up in the background: give it the time to make the mistake.
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		put(Hook::Lev2, plain());
		EXPECT_TRUE(socket.receive()) << "the platform's frames belong to no namespace";
		EXPECT_EQ(socket.bind(lab::kPortA, htons(0x88b5)), 0);
		int value = 4096;
		EXPECT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &value, sizeof value),
			  0);
		socket.close();
	}
}

TEST_F(Namespaces, several_sockets_closed_in_any_order)
{
	std::vector<Socket> sockets;
	for (int i = 0; i < 6; ++i) {
		if (i % 2)
			elsewhere();
		sockets.emplace_back(SOCK_RAW, htons(0x0806));
		ASSERT_EQ(sockets.back().location(PACKET_LEV2_LOC), 0);
		back();
	}
	for (size_t i : { 3, 0, 5, 1, 4, 2 })
		sockets[i].close();
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Namespaces, sockets_of_two_namespaces_closed_at_once_on_four_cpus)
{
	std::vector<std::thread> threads;
	for (int cpu = 0; cpu < 4; ++cpu)
		threads.emplace_back([cpu] {
			pin(cpu);
			for (int i = 0; i < 15; ++i) {
				if (cpu % 2) {
					ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
				}
				Socket socket(SOCK_RAW);
				EXPECT_EQ(socket.error(), 0);
			}
		});
	for (std::thread &thread : threads)
		thread.join();
}

} // namespace
