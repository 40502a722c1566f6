// SPDX-License-Identifier: GPL-2.0-only
/* The C API: frames, their control records and time stamps, waiting, and counters. */
#include "fixture.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>

namespace {

using Bytes = std::vector<std::uint8_t>;

mox_packet_ctrl_info sample_record()
{
	mox_packet_ctrl_info record{};
	record.pkt_ifx = 5;
	record.pkt_origifx = 6;
	record.pkt_l2ifx = 7;
	record.eth_type = htons(0x0806);
	record.vlan = 0xabc << 4 | 5;
	record.flags = MOX_RECV_EF_80;
	record.word28 = 0x01020304;
	record.inner_vlan = 0xdef;
	record.ex_inner_vlan = 0xdef;
	record.l2_len = 14;
	record.half38 = 0x1122;
	record.wlan_id = 8;
	record.ap_wlan_id = 9;
	record.radio_id = 10;
	record.proxy_capture = 11;
	return record;
}

class Receive : public Handle {
protected:
	Receive()
	{
		frame.buffer = buffer.data();
		frame.size = buffer.size();
	}
	Bytes captured() const
	{
		return Bytes(buffer.begin(), buffer.begin() + static_cast<long>(frame.captured));
	}

	Bytes buffer = Bytes(64);
	mox_frame frame{};
};

TEST_F(Receive, frame__with_its_record_taken_apart)
{
	start("all");
	ASSERT_EQ(mox_set_timestamps(s, 1), 0);
	calls.queue({ Bytes(20, 0xaa), sample_record(), { 1234567890123, 999999999 } });
	ASSERT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 1) << error();
	EXPECT_EQ(captured(), Bytes(20, 0xaa));
	EXPECT_EQ(frame.length, 20u);
	EXPECT_EQ(frame.ifindex, 5u);
	EXPECT_EQ(frame.flags,
		  static_cast<unsigned>(MOX_FRAME_CONTROL | MOX_FRAME_STAMP | MOX_FRAME_ETHERNET));
	EXPECT_EQ(frame.seconds, 1234567890123);
	EXPECT_EQ(frame.nanoseconds, 999999999u);
	const mox_control &control = frame.control;
	EXPECT_EQ(control.ifindex, 5u);
	EXPECT_EQ(control.origin_ifindex, 6u);
	EXPECT_EQ(control.l2_ifindex, 7u);
	EXPECT_EQ(control.flags, static_cast<unsigned>(MOX_RECV_EF_80));
	EXPECT_EQ(control.word28, 0x01020304u);
	EXPECT_EQ(control.ether_type, 0x0806);
	EXPECT_EQ(control.vlan, 0xabc);
	EXPECT_EQ(control.priority, 5);
	EXPECT_EQ(control.inner_vlan, 0xdef);
	EXPECT_EQ(control.l2_length, 14);
	EXPECT_EQ(control.half38, 0x1122);
	EXPECT_EQ(control.wlan_id, 8);
	EXPECT_EQ(control.ap_wlan_id, 9);
	EXPECT_EQ(control.radio_id, 10);
	EXPECT_EQ(control.proxy_capture, 11);
}

TEST_F(Receive, flags)
{
	mox_packet_ctrl_info wlan = sample_record();
	wlan.eth_type = 0;
	struct {
		const char *what;
		mox_kind kind;
		bool control;
		mox_packet_ctrl_info record;
		std::size_t length;
		unsigned flags;
	} const cases[] = {
		{ "no record", MOX_RAW, false, sample_record(), 20, 0 },
		{ "longer than the buffer", MOX_RAW, false, sample_record(), 65,
		  MOX_FRAME_TRUNCATED },
		{ "as long as the buffer", MOX_RAW, false, sample_record(), 64, 0 },
		{ "802.11", MOX_RAW, true, wlan, 20, MOX_FRAME_CONTROL },
		{ "datagram", MOX_DATAGRAM, true, sample_record(), 20, MOX_FRAME_CONTROL },
		{ "Ethernet", MOX_RAW, true, sample_record(), 20,
		  MOX_FRAME_CONTROL | MOX_FRAME_ETHERNET },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		make(each.kind);
		ASSERT_EQ(mox_set_control(s, each.control), 0);
		ASSERT_EQ(mox_open(s), 0) << error();
		calls.queue({ Bytes(each.length, 1), each.record, {} });
		ASSERT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 1) << error();
		EXPECT_EQ(frame.flags, each.flags);
		EXPECT_EQ(frame.length, each.length);
		EXPECT_EQ(frame.captured, std::min<std::size_t>(each.length, 64));
		if (!each.control)
			EXPECT_EQ(frame.control.ifindex, 0u) << "what an earlier frame left";
	}
}

TEST_F(Receive, none__errno_has_the_reason)
{
	start("all");
	EXPECT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 0);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_EQ(mox_receive(s, &frame, 20), 0);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_EQ(mox_receive_many(s, &frame, 1, 20), 0);
	EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Receive, none__a_signal_ends_the_wait)
{
	struct sigaction action {};
	action.sa_handler = [](int) {};
	sigaction(SIGALRM, &action, nullptr);
	// Again and again: one that comes before the wait has no effect.
	itimerval every{ { 0, 20000 }, { 0, 20000 } };
	start("all");
	setitimer(ITIMER_REAL, &every, nullptr);
	EXPECT_EQ(mox_receive(s, &frame, MOX_WAIT), 0);
	EXPECT_EQ(errno, EINTR);
	every = {};
	setitimer(ITIMER_REAL, &every, nullptr);
}

TEST_F(Receive, failure)
{
	start("all");
	calls.receive_error = EFAULT;
	EXPECT_EQ(mox_receive(s, &frame, MOX_WAIT), -1);
	EXPECT_EQ(errno, EFAULT);
	EXPECT_NE(error().find("cannot receive: Bad address"), std::string::npos) << error();
	EXPECT_EQ(mox_receive_many(s, &frame, 1, 0), -1);
	EXPECT_EQ(errno, EFAULT);
	EXPECT_EQ(mox_receive(s, nullptr, 0), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(mox_receive_many(s, &frame, 0, 0), -1);
	EXPECT_EQ(errno, EINVAL);
	make();
	EXPECT_EQ(mox_receive(s, &frame, 0), -1);
	EXPECT_EQ(errno, EBADF);
}

TEST_F(Receive, many__in_one_call_up_to_the_limit)
{
	start("all");
	constexpr std::size_t kRooms = MOX_MOST_FRAMES + 1;
	std::vector<Bytes> rooms(kRooms, Bytes(16));
	std::vector<mox_frame> frames(kRooms);
	for (std::size_t i = 0; i < kRooms; ++i) {
		frames[i].buffer = rooms[i].data();
		frames[i].size = rooms[i].size();
	}
	for (std::uint8_t i = 0; i < kRooms + 2; ++i) {
		mox_packet_ctrl_info record = sample_record();
		record.pkt_ifx = i + 1u;
		calls.queue({ Bytes(i % 20 + 1u, i), record, {} });
	}
	ASSERT_EQ(mox_receive_many(s, frames.data(), kRooms, MOX_NO_WAIT), MOX_MOST_FRAMES);
	EXPECT_EQ(calls.many_flags.size(), 1u);
	for (std::size_t i = 0; i < MOX_MOST_FRAMES; ++i) {
		SCOPED_TRACE(i);
		EXPECT_EQ(frames[i].length, i % 20 + 1);
		EXPECT_EQ(frames[i].captured, std::min<std::size_t>(i % 20 + 1, 16));
		EXPECT_EQ(rooms[i][0], i);
		EXPECT_EQ(frames[i].control.ifindex, i + 1);
	}
	EXPECT_EQ(frames[MOX_MOST_FRAMES].length, 0u) << "not changed";
	EXPECT_EQ(mox_receive_many(s, frames.data(), kRooms, MOX_WAIT), 3);
	EXPECT_EQ(frames[2].control.ifindex, kRooms + 2);
}

TEST_F(Receive, vlan__is_put_back)
{
	mox_packet_ctrl_info one = sample_record();
	one.inner_vlan = 0;
	mox_packet_ctrl_info none = one;
	none.vlan = 0;
	const Bytes plain = { 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 0x08, 0x06, 7, 8 };
	const Bytes tagged = { 1, 1, 1,    1, 1,    1,    2,    2,    2, 2,
			       2, 2, 0x81, 0, 0xaa, 0xbc, 0x08, 0x06, 7, 8 };
	struct {
		const char *what;
		Bytes frame;
		mox_packet_ctrl_info record;
		std::size_t size;
		int grown;
		Bytes expected;
		bool truncated;
	} const cases[] = {
		{ "one tag", plain, one, 64, 4, tagged, false },
		{ "two tags",
		  plain,
		  sample_record(),
		  64,
		  8,
		  { 1,    1,    1,    1,    1,    1,    2,    2,    2,    2,    2, 2,
		    0x88, 0xa8, 0xaa, 0xbc, 0x81, 0x00, 0x0d, 0xef, 0x08, 0x06, 7, 8 },
		  false },
		{ "none in the record", plain, none, 64, 0, plain, false },
		{ "the frame has it", tagged, one, 64, 0, tagged, false },
		{ "no room",
		  plain,
		  one,
		  16,
		  4,
		  { 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 0x81, 0, 0xaa, 0xbc },
		  true },
		{ "some room",
		  plain,
		  one,
		  18,
		  4,
		  { 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 0x81, 0, 0xaa, 0xbc, 0x08, 0x06 },
		  true },
		{ "shorter than a header", Bytes(13, 1), one, 64, 0, Bytes(13, 1), false },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		start("all");
		// Of its own, so that the sanitizer finds a byte beyond the end.
		Bytes room(each.size);
		frame.buffer = room.data();
		frame.size = room.size();
		calls.queue({ each.frame, each.record, {} });
		ASSERT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 1) << error();
		EXPECT_EQ(mox_restore_vlan(&frame), each.grown);
		EXPECT_EQ(Bytes(room.begin(), room.begin() + static_cast<long>(frame.captured)),
			  each.expected);
		EXPECT_EQ(frame.length, each.frame.size() + static_cast<unsigned>(each.grown));
		EXPECT_EQ((frame.flags & MOX_FRAME_TRUNCATED) != 0, each.truncated);
		EXPECT_EQ(mox_restore_vlan(&frame), 0) << "a second time";
	}
}

TEST_F(Receive, statistics__add_up)
{
	start("all");
	mox_statistics now{};
	calls.statistics = { 10, 3 };
	ASSERT_EQ(mox_read_statistics(s, &now), 0) << error();
	calls.statistics = { 5, 1 };
	ASSERT_EQ(mox_read_statistics(s, &now), 0);
	EXPECT_EQ(now.frames, 5u);
	EXPECT_EQ(now.drops, 1u);
	EXPECT_EQ(now.total_frames, 15u);
	EXPECT_EQ(now.total_drops, 4u);
	calls.statistics_error = EFAULT;
	EXPECT_EQ(mox_read_statistics(s, &now), -1);
	EXPECT_EQ(errno, EFAULT);
	EXPECT_EQ(now.frames, 5u) << "not changed";
}

/** Runs in a thread of its own, which is cancelled after it or within; whether body ended. */
template <typename Body> bool ends_before_its_thread(const Body &body)
{
	struct Work {
		const Body &body;
		bool ended;
	} work{ body, false };
	pthread_t thread;
	auto start = [](void *of) -> void * {
		auto &work = *static_cast<Work *>(of);
		work.body();
		work.ended = true;
		pthread_testcancel();
		return nullptr;
	};
	EXPECT_EQ(pthread_create(&thread, nullptr, start, &work), 0);
	void *result = nullptr;
	EXPECT_EQ(pthread_join(thread, &result), 0);
	EXPECT_EQ(result, PTHREAD_CANCELED) << "the request is kept";
	return work.ended;
}

TEST_F(Receive, cancelled_thread__the_call_ends_first)
{
	start("all");
	EXPECT_TRUE(ends_before_its_thread([this] {
		pthread_cancel(pthread_self());
		EXPECT_EQ(mox_receive(s, &frame, 10), 0);
		EXPECT_EQ(errno, EAGAIN);
	}));
	calls.queue({ Bytes(20, 0xaa), sample_record() });
	EXPECT_TRUE(ends_before_its_thread([this] {
		pthread_cancel(pthread_self());
		EXPECT_EQ(mox_receive_many(s, &frame, 1, 10), 1);
	}));
	EXPECT_EQ(captured(), Bytes(20, 0xaa));
}

TEST_F(Receive, cancelled_thread__free_closes_the_socket)
{
	start("all");
	EXPECT_TRUE(ends_before_its_thread([this] {
		pthread_cancel(pthread_self());
		mox_free(s);
		s = nullptr;
	}));
	EXPECT_FALSE(calls.is_open());
}

TEST_F(Receive, cancelled_thread__the_programs_own_setting_stays)
{
	start("all");
	EXPECT_TRUE(ends_before_its_thread([this] {
		int before = -1;
		pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
		EXPECT_EQ(before, PTHREAD_CANCEL_ENABLE);
		mox_receive(s, &frame, MOX_NO_WAIT);
		pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
		EXPECT_EQ(before, PTHREAD_CANCEL_DISABLE);
		mox_receive(s, nullptr, MOX_NO_WAIT); // fails
		pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
		EXPECT_EQ(before, PTHREAD_CANCEL_ENABLE);
		pthread_cancel(pthread_self());
	}));
}

} // namespace
