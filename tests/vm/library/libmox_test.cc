// SPDX-License-Identifier: GPL-2.0-only
// The C API of libmox on real sockets: what the tests with a fake of the calls cannot know of the kernel.
#include <cerrno>
#include <cstring>

#include <mox/mox.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

class Libmox : public VmTest {
protected:
	void TearDown() override
	{
		mox_free(s_);
		VmTest::TearDown();
	}

	void start(const char *rule)
	{
		s_ = mox_new(MOX_RAW);
		ASSERT_NE(s_, nullptr) << mox_error();
		ASSERT_EQ(mox_add_rule(s_, rule), 0) << mox_error();
		ASSERT_EQ(mox_set_timestamps(s_, 1), 0) << mox_error();
		ASSERT_EQ(mox_set_location(s_, PACKET_LEV2_LOC), 0) << mox_error();
		ASSERT_EQ(mox_start(s_), 0) << mox_error();
	}
	static Frame numbered(uint8_t number)
	{
		Frame frame = plain(0x88b5, 60u + number);
		frame.bytes[20] = number;
		frame.src_ifx = number % 2 ? lab::kPortA : lab::kPortB;
		frame.vlan_tci = uint16_t(0xa000 | (0x100 + number)); // priority 5
		return frame;
	}

	mox_socket *s_ = nullptr;
	uint8_t buffers_[8][256]{};
	mox_frame frames_[8]{};

	Libmox()
	{
		for (size_t i = 0; i < 8; i++) {
			frames_[i].buffer = buffers_[i];
			frames_[i].size = sizeof buffers_[i];
		}
	}
	void expect_numbered(const mox_frame &frame, uint8_t number)
	{
		SCOPED_TRACE(int(number));
		Frame sent = numbered(number);
		EXPECT_EQ(frame.length, sent.bytes.size());
		ASSERT_EQ(frame.captured, sent.bytes.size());
		EXPECT_EQ(memcmp(frame.buffer, sent.bytes.data(), frame.captured), 0);
		EXPECT_EQ(frame.flags,
			  uint32_t(MOX_FRAME_CONTROL | MOX_FRAME_STAMP | MOX_FRAME_ETHERNET));
		EXPECT_EQ(frame.ifindex, sent.src_ifx);
		EXPECT_EQ(frame.control.ifindex, sent.src_ifx);
		EXPECT_EQ(frame.control.ether_type, 0x88b5);
		EXPECT_EQ(frame.control.vlan, 0x100 + number);
		EXPECT_EQ(frame.control.priority, 5);
	}
};

TEST_F(Libmox, one_frame_with_its_record_and_its_time)
{
	start("eth=88b5");
	EXPECT_EQ(mox_receive(s_, &frames_[0], MOX_NO_WAIT), 0);
	EXPECT_EQ(errno, EAGAIN);
	timespec before{}, after{};
	clock_gettime(CLOCK_REALTIME, &before);
	put(Hook::Lev2, plain(0x0806));
	put(Hook::Lev2, numbered(1));
	clock_gettime(CLOCK_REALTIME, &after);
	ASSERT_EQ(mox_receive(s_, &frames_[0], 5000), 1) << mox_error();
	expect_numbered(frames_[0], 1);
	EXPECT_GE(frames_[0].seconds, before.tv_sec);
	EXPECT_LE(frames_[0].seconds, after.tv_sec);

	ASSERT_EQ(mox_restore_vlan(&frames_[0]), 4);
	const uint8_t tag[] = { 0x81, 0x00, 0xa1, 0x01, 0x88, 0xb5 };
	EXPECT_EQ(memcmp(buffers_[0] + 12, tag, sizeof tag), 0);

	mox_statistics statistics{};
	ASSERT_EQ(mox_read_statistics(s_, &statistics), 0) << mox_error();
	EXPECT_EQ(statistics.frames, 1u);
	EXPECT_EQ(statistics.drops, 0u);
}

// Each frame of a recvmmsg has its own record behind its own time stamp.
TEST_F(Libmox, many_frames_in_one_call)
{
	start("eth=88b5");
	for (uint8_t i = 0; i < 5; i++)
		put(Hook::Lev2, numbered(i));
	ASSERT_EQ(mox_receive_many(s_, frames_, 3, MOX_WAIT), 3) << mox_error();
	ASSERT_EQ(mox_receive_many(s_, frames_ + 3, 5, MOX_NO_WAIT), 2) << mox_error();
	for (uint8_t i = 0; i < 5; i++)
		expect_numbered(frames_[i], i);
	EXPECT_EQ(mox_receive_many(s_, frames_, 8, MOX_NO_WAIT), 0);
}

TEST_F(Libmox, a_descriptor_is_released_and_adopted_with_all_that_is_set)
{
	start("eth=88b5");
	int fd = mox_release(s_);
	s_ = nullptr;
	ASSERT_GE(fd, 0) << mox_error();
	put(Hook::Lev2, numbered(2));
	s_ = mox_adopt(fd);
	ASSERT_NE(s_, nullptr) << mox_error();
	put(Hook::Lev2, numbered(3));
	ASSERT_EQ(mox_receive_many(s_, frames_, 8, 5000), 2) << mox_error();
	expect_numbered(frames_[0], 2);
	expect_numbered(frames_[1], 3);

	// Without records the adopter finds none.
	ASSERT_EQ(mox_set_control(s_, 0), 0) << mox_error();
	fd = mox_release(s_);
	s_ = mox_adopt(fd);
	ASSERT_NE(s_, nullptr) << mox_error();
	put(Hook::Lev2, numbered(4));
	ASSERT_EQ(mox_receive(s_, &frames_[0], 5000), 1) << mox_error();
	EXPECT_EQ(frames_[0].flags, uint32_t(MOX_FRAME_STAMP));
}

TEST_F(Libmox, no_other_descriptor_is_adopted)
{
	int fd = socket(AF_INET, SOCK_DGRAM, 0);
	ASSERT_GE(fd, 0);
	EXPECT_EQ(mox_adopt(fd), nullptr);
	EXPECT_EQ(errno, EPROTONOSUPPORT);
	EXPECT_EQ(close(fd), 0) << "it is still ours";
}

TEST_F(Libmox, an_interface_is_the_filter_and_the_destination)
{
	s_ = mox_new(MOX_RAW);
	ASSERT_EQ(mox_set_interface(s_, std::to_string(lab::kPortA).c_str()), 0) << mox_error();
	ASSERT_EQ(mox_set_location(s_, PACKET_LEV2_LOC), 0);
	ASSERT_EQ(mox_start(s_), 0) << mox_error();
	put(Hook::Lev2, numbered(0));
	put(Hook::Lev2, numbered(1));
	ASSERT_EQ(mox_receive_many(s_, frames_, 8, 5000), 1) << mox_error();
	EXPECT_EQ(frames_[0].ifindex, lab::kPortA);
	uint8_t mac[6] = {};
	ASSERT_EQ(mox_interface_mac(s_, mac), 0) << mox_error();
	EXPECT_EQ(memcmp(mac, lab::kPortAMac, 6), 0);

	Frame frame = plain();
	EXPECT_EQ(mox_send(s_, frame.bytes.data(), frame.bytes.size(), 0), 0) << mox_error();
	EXPECT_EQ(mox_send(s_, frame.bytes.data(), frame.bytes.size(), lab::kPortDown), -1);
	EXPECT_EQ(errno, ENETDOWN);
	EXPECT_EQ(mox_send(s_, frame.bytes.data(), frame.bytes.size(), lab::kNoSuchInterface), -1);
	EXPECT_EQ(errno, ENXIO);
	EXPECT_NE(strstr(mox_error(), "3999"), nullptr) << mox_error();
}

TEST_F(Libmox, stop_and_start)
{
	start("eth=88b5");
	ASSERT_EQ(mox_stop(s_), 0) << mox_error();
	EXPECT_FALSE(lab::registered(Hook::Lev2));
	ASSERT_EQ(mox_start(s_), 0) << mox_error();
	put(Hook::Lev2, numbered(1));
	EXPECT_EQ(mox_receive(s_, &frames_[0], 5000), 1) << mox_error();
}

} // namespace
