// SPDX-License-Identifier: GPL-2.0-only
// What the queues hold while the copy thread does not run: no more than their limits, and nothing that a rule takes goes on.
#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/copy_thread.h"
#include "support/cpus.h"
#include "support/fixture.h"

namespace {

using namespace vm;

constexpr const char *kBacklog = "/proc/sys/net/core/netdev_max_backlog";
constexpr const char *kRealTime = "/proc/sys/kernel/sched_rt_runtime_us";

std::string read_word(const std::string &path)
{
	std::ifstream file(path);
	std::string word;
	file >> word;
	return word;
}

void write_word(const std::string &path, const std::string &word)
{
	std::ofstream file(path);
	file << word << std::flush;
	ASSERT_TRUE(file) << path;
}

/// The copy thread on CPU 0 without a moment to run, for the life of the object: a real-time task is there.
class CopyThreadStopped {
public:
	CopyThreadStopped() : real_time_(read_word(kRealTime)), thread_(0)
	{
		write_word(kRealTime, "-1");
		// Newer kernels leave ordinary tasks a share of each second: the thread must not be one.
		schedule_thread(SCHED_FIFO, 1);
		busy_ = std::thread([this] {
			pin(0);
			sched_param first{};
			first.sched_priority = 50;
			EXPECT_EQ(::sched_setscheduler(0, SCHED_FIFO, &first), 0);
			runs_ = true;
			while (!done_)
				;
		});
		while (!runs_)
			::usleep(1000);
	}
	~CopyThreadStopped()
	{
		done_ = true;
		busy_.join();
		schedule_thread(SCHED_OTHER, 0);
		write_word(kRealTime, real_time_);
	}

private:
	static void schedule_thread(int policy, int priority)
	{
		sched_param parameter{};
		parameter.sched_priority = priority;
		EXPECT_EQ(::sched_setscheduler(copy_thread(), policy, &parameter), 0);
	}

	const std::string real_time_;
	const CopyThreadOn thread_;
	std::atomic<bool> runs_{ false }, done_{ false };
	std::thread busy_;
};

class QueueLimit : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		backlog_ = read_word(kBacklog);
		VM_NEEDS_TWO_CPUS("these tests keep one busy, which stops the copy thread");
		pin(2);
	}
	void TearDown() override
	{
		write_word(kBacklog, backlog_);
		pin(-1);
		VmTest::TearDown();
	}
	static Socket listener(uint32_t location, uint32_t treatment)
	{
		Socket socket = capture(location, treatment, all());
		int large = 16 << 20;
		EXPECT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, 33 /* SO_RCVBUFFORCE */, &large,
				       sizeof large),
			  0);
		return socket;
	}
	static uint32_t refused(uint32_t location)
	{
		return uint32_t(location_word(location, MOX_CAPTURE_LOCATION_COPIES_REFUSED));
	}
	static uint32_t dropped(uint32_t location)
	{
		return uint32_t(location_word(location, MOX_CAPTURE_LOCATION_TAKES_REFUSED));
	}
	int64_t held() const { return lab::books().live - before_.live; }
	std::string backlog_;
};

TEST_F(QueueLimit, twenty_thousand_frames_while_the_copy_thread_does_not_run)
{
	struct Row {
		uint32_t location;
		lab::Hook hook;
		uint32_t treatment;
		const char *backlog;
		uint32_t room;
		uint32_t over; // answer for a frame beyond
	};
	for (const Row &row : {
		     Row{ PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_COPY, "1000", 500, lab::kGoOn },
		     Row{ PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_FETCH, "1000", 1000,
			  lab::kDrop },
		     Row{ PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_TRAP, "100000", 2048,
			  lab::kDrop },
		     Row{ PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_FETCH, "10", 10, lab::kDrop },
		     Row{ PACKET_RESV_LOC, lab::Hook::Resv, PACKET_TRAP, "100", 100,
			  lab::kResvTaken },
		     Row{ PACKET_WLAN_LOC, lab::Hook::WlanIn, PACKET_TRAP, "100", 50, lab::kGoOn },
		     Row{ PACKET_WLAN_LOC, lab::Hook::WlanIn, PACKET_FETCH, "100", 100,
			  lab::kDrop },
	     }) {
		SCOPED_TRACE("location " + std::to_string(row.location) + ", treatment " +
			     std::to_string(row.treatment) + ", backlog " + row.backlog);
		write_word(kBacklog, row.backlog);
		Socket socket = listener(row.location, row.treatment);
		const uint32_t refused_before = refused(row.location);
		const uint32_t dropped_before = dropped(row.location);
		const bool copies = row.over == lab::kGoOn && row.location != PACKET_RESV_LOC;
		{
			CopyThreadStopped stopped;
			lab::inject_many(row.hook, frames::plain(), 20000, 1);
			EXPECT_EQ(held(), int64_t(row.room));
			EXPECT_EQ(lab::inject(row.hook, frames::plain(), 1), row.over);
			EXPECT_EQ(held(), int64_t(row.room));
		}
		const uint32_t over = 20001 - row.room;
		EXPECT_EQ(refused(row.location) - refused_before, copies ? over : 0);
		EXPECT_EQ(dropped(row.location) - dropped_before, copies ? 0 : over);
		EXPECT_TRUE(lab::settle());
		EXPECT_EQ(socket.stats().packets, row.room) << "what was held is delivered";
		socket.drain();
		EXPECT_EQ(lab::books().misuse, before_.misuse);
		// The queue is as good as new.
		put(row.hook, frames::plain(), 1);
		EXPECT_TRUE(socket.receive_now());
	}
}

TEST_F(QueueLimit, copies_of_all_locations_leave_room_for_traps)
{
	write_word(kBacklog, "100");
	Socket two = listener(PACKET_LEV2_LOC, PACKET_COPY),
	       four = listener(PACKET_IPv4_LOC, PACKET_COPY),
	       six = listener(PACKET_IPv6_LOC, PACKET_COPY),
	       trap = listener(PACKET_RESV_LOC, PACKET_TRAP);
	{
		CopyThreadStopped stopped;
		for (lab::Hook hook : { lab::Hook::Lev2, lab::Hook::Ipv4, lab::Hook::Ipv6 })
			lab::inject_many(hook, frames::plain(), 1000, 1);
		EXPECT_EQ(held(), 100) << "half of what a CPU's queues hold";
		lab::inject_many(lab::Hook::Resv, frames::plain(), 1000, 1);
		EXPECT_EQ(held(), 200);
	}
	EXPECT_TRUE(lab::settle());
	EXPECT_EQ(trap.stats().packets, 100u);
	EXPECT_EQ(two.stats().packets + four.stats().packets + six.stats().packets, 100u);
}

} // namespace
