// SPDX-License-Identifier: GPL-2.0-only
// recvmsg(2): how much of a frame arrives, under which flags, with which name.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;

class Recvmsg : public VmTest {
protected:
	/// One recvmsg into a buffer of the length; the frame has 100 bytes unless put() is used directly.
	ssize_t read(size_t length, int flags)
	{
		buffer_.assign(200, 0xaa);
		std::memset(name_, 0xaa, sizeof name_);
		iovec vector{ buffer_.data(), length };
		message_ = {};
		message_.msg_name = name_;
		message_.msg_namelen = sizeof name_;
		message_.msg_iov = &vector;
		message_.msg_iovlen = 1;
		ssize_t result = raw_recvmsg(socket_.fd(), &message_, flags);
		return result < 0 ? -errno : result;
	}
	void SetUp() override
	{
		VmTest::SetUp();
		socket_ = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	}
	void TearDown() override
	{
		socket_.close();
		VmTest::TearDown();
	}
	void frame(size_t length = 100) { put(lab::Hook::Lev2, frames::plain(0x88b5, length)); }

	Socket socket_;
	Bytes buffer_;
	uint8_t name_[64];
	msghdr message_{};
};

TEST_F(Recvmsg, a_whole_frame)
{
	frame();
	EXPECT_EQ(read(200, 0), 100);
	EXPECT_EQ(message_.msg_flags, 0);
	lab::Frame sent = frames::plain(0x88b5, 100);
	EXPECT_EQ(Bytes(buffer_.begin(), buffer_.begin() + 100), sent.bytes);
	EXPECT_EQ(buffer_[100], 0xaa);
}

TEST_F(Recvmsg, a_short_buffer_gets_its_length_and_the_truncated_flag)
{
	frame();
	EXPECT_EQ(read(60, 0), 60);
	EXPECT_EQ(message_.msg_flags, MSG_TRUNC);
	EXPECT_EQ(buffer_[60], 0xaa);
	EXPECT_EQ(read(60, MSG_DONTWAIT), -EAGAIN) << "the rest is gone";
}

TEST_F(Recvmsg, with_trunc_in_the_flags_the_full_length_is_printed)
{
	frame();
	EXPECT_EQ(read(60, MSG_TRUNC), 100);
	EXPECT_TRUE(message_.msg_flags & MSG_TRUNC);
	EXPECT_EQ(buffer_[60], 0xaa) << "but no more copied";
	frame();
	EXPECT_EQ(read(200, MSG_TRUNC), 100);
	EXPECT_EQ(message_.msg_flags & MSG_TRUNC, 0) << "nothing was cut";
}

TEST_F(Recvmsg, a_buffer_of_no_bytes)
{
	frame();
	EXPECT_EQ(read(0, 0), 0);
	EXPECT_EQ(message_.msg_flags, MSG_TRUNC);
}

TEST_F(Recvmsg, peek_leaves_the_frame)
{
	frame(70);
	frame(80);
	EXPECT_EQ(read(200, MSG_PEEK), 70);
	EXPECT_EQ(read(200, MSG_PEEK | MSG_DONTWAIT), 70);
	EXPECT_EQ(read(10, MSG_PEEK | MSG_TRUNC), 70);
	EXPECT_EQ(read(200, 0), 70);
	EXPECT_EQ(read(200, 0), 80);
	EXPECT_EQ(read(200, MSG_DONTWAIT | MSG_PEEK), -EAGAIN);
}

TEST_F(Recvmsg, dontwait_on_an_empty_queue)
{
	EXPECT_EQ(read(200, MSG_DONTWAIT), -EAGAIN);
}

TEST_F(Recvmsg, every_flag_but_three_is_refused)
{
	frame();
	for (int bit = 0; bit < 32; ++bit) {
		unsigned flag = 1u << bit;
		if (flag & (MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT))
			continue;
		EXPECT_EQ(read(200, int(flag) | MSG_DONTWAIT), -EINVAL)
			<< "flag 0x" << std::hex << flag;
	}
	EXPECT_EQ(read(200, MSG_DONTWAIT), 100) << "and the frame is still there";
}

TEST_F(Recvmsg, a_blocking_read_waits_for_the_frame)
{
	std::thread later([] {
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
		lab::inject(lab::Hook::Lev2, frames::plain(0x88b5, 100));
	});
	EXPECT_EQ(read(200, 0), 100);
	later.join();
}

TEST_F(Recvmsg, a_receive_timeout_is_honoured)
{
	timeval time{ 0, 100000 };
	ASSERT_EQ(::setsockopt(socket_.fd(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time), 0)
		<< strerror(errno);
	EXPECT_EQ(read(200, 0), -EAGAIN);
}

TEST_F(Recvmsg, poll_prints_when_there_is_something)
{
	pollfd waiting{ socket_.fd(), POLLIN | POLLOUT, 0 };
	EXPECT_EQ(::poll(&waiting, 1, 0), 1);
	EXPECT_EQ(waiting.revents & (POLLIN | POLLOUT), POLLOUT) << "writable, nothing to read";
	frame();
	EXPECT_EQ(::poll(&waiting, 1, 3000), 1);
	EXPECT_EQ(waiting.revents & (POLLIN | POLLOUT), POLLIN | POLLOUT);
	EXPECT_EQ(read(200, 0), 100);
	waiting.events = POLLIN;
	EXPECT_EQ(::poll(&waiting, 1, 0), 0);
}

TEST_F(Recvmsg, the_name_is_26_bytes_and_prints_protocol_and_interface)
{
	frame();
	ASSERT_EQ(read(200, 0), 100);
	EXPECT_EQ(message_.msg_namelen, 26u);
	sockaddr_ll address;
	std::memcpy(&address, name_, sizeof address);
	EXPECT_EQ(address.sll_family, 17);
	EXPECT_EQ(address.sll_protocol, 0) << "delivery gives a buffer no protocol";
	EXPECT_EQ(address.sll_ifindex, int(lab::kPortA));
	EXPECT_EQ(address.sll_hatype, 0);
	EXPECT_EQ(address.sll_pkttype, PACKET_OTHERHOST) << "whatever the frame's class";
	EXPECT_EQ(address.sll_halen, 0);
	for (int i = 12; i < 26; ++i)
		EXPECT_EQ(name_[i], 0)
			<< "byte " << i << " of the name must not be old kernel memory";
	EXPECT_EQ(name_[26], 0xaa);
}

TEST_F(Recvmsg, a_short_name_buffer_is_filled_as_far_as_it_goes)
{
	frame();
	uint8_t byte;
	iovec vector{ &byte, 1 };
	std::memset(name_, 0xaa, sizeof name_);
	message_ = {};
	message_.msg_name = name_;
	message_.msg_namelen = 8;
	message_.msg_iov = &vector;
	message_.msg_iovlen = 1;
	ASSERT_EQ(raw_recvmsg(socket_.fd(), &message_, 0), 1);
	EXPECT_EQ(message_.msg_namelen, 26u);
	EXPECT_EQ(name_[0], 17);
	EXPECT_EQ(name_[8], 0xaa);
}

TEST_F(Recvmsg, no_name_buffer_is_fine)
{
	frame();
	Bytes buffer(200);
	EXPECT_EQ(::recv(socket_.fd(), buffer.data(), buffer.size(), 0), 100);
}

TEST_F(Recvmsg, a_scattered_buffer)
{
	frame();
	uint8_t one[10], two[1], three[100];
	iovec vectors[] = { { one, sizeof one }, { two, sizeof two }, { three, sizeof three } };
	message_ = {};
	message_.msg_iov = vectors;
	message_.msg_iovlen = 3;
	ASSERT_EQ(raw_recvmsg(socket_.fd(), &message_, 0), 100);
	lab::Frame sent = frames::plain(0x88b5, 100);
	EXPECT_EQ(two[0], sent.bytes[10]);
	EXPECT_EQ(three[88], sent.bytes[99]);
}

TEST_F(Recvmsg, a_buffer_that_ends_in_no_mans_land_is_a_fault_and_costs_the_frame)
{
	long page = ::sysconf(_SC_PAGESIZE);
	auto *area = static_cast<uint8_t *>(::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
						   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(area, MAP_FAILED);
	ASSERT_EQ(::munmap(area + page, page), 0);
	frame();
	iovec vector{ area + page - 30, 100 };
	message_ = {};
	message_.msg_iov = &vector;
	message_.msg_iovlen = 1;
	uint32_t freed = lab::peek32("g_free_skb_num");
	EXPECT_EQ(raw_recvmsg(socket_.fd(), &message_, 0), -1);
	EXPECT_EQ(errno, EFAULT);
	EXPECT_EQ(lab::peek32("g_free_skb_num"), freed + 1)
		<< "the buffer is freed in all cases once taken";
	EXPECT_EQ(read(200, MSG_DONTWAIT), -EAGAIN);
	::munmap(area, page);
}

TEST_F(Recvmsg, four_readers_share_the_frames)
{
	constexpr int kFrames = 200;
	std::atomic<int> got{ 0 };
	std::atomic<bool> stop{ false };
	std::vector<std::thread> readers;
	for (int cpu = 0; cpu < 4; ++cpu)
		readers.emplace_back([&, cpu] {
			pin(cpu);
			uint8_t buffer[256];
			while (!stop || ::recv(socket_.fd(), buffer, sizeof buffer,
					       MSG_PEEK | MSG_DONTWAIT) > 0)
				if (::recv(socket_.fd(), buffer, sizeof buffer, MSG_DONTWAIT) ==
				    100)
					++got;
				else
					std::this_thread::yield();
		});
	uint32_t freed = lab::peek32("g_free_skb_num");
	for (int i = 0; i < kFrames; ++i)
		lab::inject(lab::Hook::Lev2, frames::plain(0x88b5, 100));
	ASSERT_TRUE(lab::settle());
	for (int i = 0; i < 300 && got < kFrames; ++i)
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	stop = true;
	for (std::thread &reader : readers)
		reader.join();
	mox_packet_stats stats = socket_.stats();
	EXPECT_EQ(got, int(stats.packets - stats.drops)) << "each frame to exactly one reader";
	EXPECT_GT(got, 0);
	// A reader that peeks holds a reference of its own, so a free may be counted by neither; never more than the frames.
	EXPECT_LE(lab::peek32("g_free_skb_num") - freed, uint32_t(got));
}

TEST_F(Recvmsg, a_timestamp_when_the_socket_asks_for_one)
{
	int on = 1;
	ASSERT_EQ(::setsockopt(socket_.fd(), SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on), 0);
	frame();
	uint8_t byte;
	alignas(8) uint8_t control[128];
	iovec vector{ &byte, 1 };
	message_ = {};
	message_.msg_iov = &vector;
	message_.msg_iovlen = 1;
	message_.msg_control = control;
	message_.msg_controllen = sizeof control;
	ASSERT_EQ(raw_recvmsg(socket_.fd(), &message_, 0), 1);
	cmsghdr *head = CMSG_FIRSTHDR(&message_);
	ASSERT_NE(head, nullptr);
	EXPECT_EQ(head->cmsg_level, SOL_SOCKET);
	EXPECT_EQ(head->cmsg_type, SO_TIMESTAMP);
	int32_t seconds; // the old layout: two words
	std::memcpy(&seconds, CMSG_DATA(head), sizeof seconds);
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	EXPECT_GE(seconds, now.tv_sec - 60);
	EXPECT_LE(seconds, now.tv_sec + 1);
}

// The kernel's own messages come first, and the length that is returned counts them alone.
TEST_F(Recvmsg, the_control_record_stands_behind_the_kernels_messages)
{
	struct Record {
		size_t at;
		mox_packet_ctrl_info info;
	};
	auto record = [&] {
		frame();
		uint8_t byte;
		alignas(8) uint8_t control[128];
		std::memset(control, 0xaa, sizeof control);
		iovec vector{ &byte, 1 };
		message_ = {};
		message_.msg_iov = &vector;
		message_.msg_iovlen = 1;
		message_.msg_control = control;
		message_.msg_controllen = sizeof control - sizeof(mox_packet_ctrl_info);
		EXPECT_EQ(raw_recvmsg(socket_.fd(), &message_, 0), 1);
		Record found{ message_.msg_controllen, {} };
		EXPECT_LE(found.at, sizeof control - sizeof found.info);
		std::memcpy(&found.info, control + found.at, sizeof found.info);
		return found;
	};
	int on = 1, off = 0;
	ASSERT_EQ(socket_.ctrl(true), 0);
	const Record plain = record();
	EXPECT_EQ(plain.at, 0u);
	EXPECT_EQ(plain.info.l2_len, 14);
	// SO_TIMESTAMP and SO_TIMESTAMPNS with 32-bit times, then with 64-bit times (from 5.1 on).
	for (int option : { 29, 35, 63, 64 }) {
		if (::setsockopt(socket_.fd(), SOL_SOCKET, option, &on, sizeof on) != 0) {
			EXPECT_GE(option, 63) << std::strerror(errno);
			continue;
		}
		Record stamped = record();
		EXPECT_GE(stamped.at, sizeof(cmsghdr) + 8) << option;
		EXPECT_EQ(std::memcmp(&stamped.info, &plain.info, sizeof plain.info), 0) << option;
		ASSERT_EQ(::setsockopt(socket_.fd(), SOL_SOCKET, option, &off, sizeof off), 0);
	}
}

} // namespace
