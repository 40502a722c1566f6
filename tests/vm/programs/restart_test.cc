// SPDX-License-Identifier: GPL-2.0-only
// Restarts of a daemon that traps, while frames keep coming: which of them the platform forwards, which are lost, which
// are handled twice. docs/daemons.md states what these tests measure.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <thread>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fixture.h"
#include "support/senders.h"
#include "support/tap.h"

namespace {

using namespace vm;

/// Frames of one test; each has a number of its own.
constexpr uint32_t kMost = 200'000;

/// What became of each frame, in memory that the daemons' processes share.
struct Fates {
	std::atomic<uint8_t> handled[kMost], forwarded[kMost];
	std::atomic<uint32_t> sent, armed, served;
};

/// The number of a frame that Traffic sent; kMost of any other.
uint32_t number_of(const Bytes &frame)
{
	uint32_t number;
	if (!has_our_type(frame) || !is_ours(frame))
		return kMost;
	std::memcpy(&number, &frame[14], sizeof number);
	return number < kMost ? number : kMost;
}

/// Frames that come in by one port, and a station at another port to which the platform forwards them.
class Traffic {
public:
	explicit Traffic(Fates &fates)
		: fates_(fates), in_("tap-in"), out_("tap-out"), station_([this] { listen(); })
	{
	}
	~Traffic()
	{
		stop();
		done_ = true;
		station_.join();
	}
	/// Sends one after the other until stop().
	void start()
	{
		stop();
		running_ = true;
		sender_ = std::thread([this] {
			while (running_ && send(1))
				::usleep(100);
		});
	}
	void stop()
	{
		running_ = false;
		if (sender_.joinable())
			sender_.join();
	}
	/// False when there are no numbers left.
	bool send(uint32_t frames)
	{
		for (uint32_t i = 0; i < frames; ++i) {
			uint32_t number = fates_.sent;
			if (number >= kMost)
				return false;
			in_.write(frames::ethernet(kOurs, payload_of(number, 46)).bytes);
			++fates_.sent;
		}
		return true;
	}

private:
	void listen()
	{
		while (!done_)
			while (auto frame = out_.read(50))
				note(*frame);
		// The last ones are still on their way.
		while (auto frame = out_.read(200))
			note(*frame);
	}
	void note(const Bytes &frame)
	{
		uint32_t number = number_of(frame);
		if (number < kMost)
			++fates_.forwarded[number];
	}

	Fates &fates_;
	TapPort in_, out_;
	std::atomic<bool> running_{ false }, done_{ false };
	std::thread sender_, station_;
};

/// A socket that traps Traffic's frames, with room for all that arrive during a restart.
Socket armed_socket()
{
	Socket socket;
	int room = 32 << 20;
	if (socket.error() || socket.option_raw(SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) ||
	    socket.add(ethertype(kOurs)) || socket.treatment(PACKET_TRAP) ||
	    socket.location(PACKET_LEV2_LOC))
		socket.close();
	return socket;
}

class Restart : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		void *shared = ::mmap(nullptr, sizeof(Fates), PROT_READ | PROT_WRITE,
				      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		ASSERT_NE(shared, MAP_FAILED);
		fates_ = new (shared) Fates{};
	}
	void TearDown() override
	{
		for (pid_t worker : workers_) {
			::kill(worker, SIGKILL);
			::waitpid(worker, nullptr, 0);
		}
		::munmap(fates_, sizeof(Fates));
		VmTest::TearDown();
	}

	/// Runs the daemon in a process of its own.
	pid_t begin(const std::function<void()> &daemon)
	{
		pid_t pid = ::fork();
		if (pid == 0) {
			daemon();
			::_exit(0);
		}
		workers_.push_back(pid);
		return pid;
	}
	void end(pid_t worker, int signal)
	{
		::kill(worker, signal);
		::waitpid(worker, nullptr, 0);
		std::erase(workers_, worker);
	}
	bool eventually(const std::function<bool()> &is_so)
	{
		for (int i = 0; i < 2000; ++i, ::usleep(10'000))
			if (is_so())
				return true;
		return false;
	}

	/// The daemon: handles what the socket has, until SIGTERM; what is queued by then too.
	void serve(Socket &socket)
	{
		static std::atomic<bool> asked;
		asked = false;
		struct sigaction action {};
		action.sa_handler = [](int) { asked = true; };
		::sigaction(SIGTERM, &action, nullptr);
		while (!asked)
			if (auto packet = socket.receive(20))
				handle(packet->bytes);
		while (auto packet = socket.receive_now())
			handle(packet->bytes);
	}
	/// A daemon with a socket of its own, counted once that traps.
	void serve_own_socket()
	{
		Socket socket = armed_socket();
		if (socket.fd() < 0)
			return;
		++fates_->armed;
		serve(socket);
	}
	/// Waits until the daemons have handled so many frames more.
	bool served_more(uint32_t frames)
	{
		uint32_t served = fates_->served;
		return eventually([&] { return fates_->served > served + frames; });
	}
	void handle(const Bytes &frame)
	{
		uint32_t number = number_of(frame);
		if (number < kMost)
			++fates_->handled[number];
		++fates_->served;
	}

	struct Sums {
		uint32_t sent = 0, handled = 0, twice = 0, lost = 0, forwarded = 0;
	};
	Sums sums() const
	{
		Sums sums;
		sums.sent = fates_->sent;
		for (uint32_t i = 0; i < sums.sent; ++i) {
			sums.handled += fates_->handled[i] > 0;
			sums.twice += fates_->handled[i] > 1;
			sums.forwarded += fates_->forwarded[i] > 0;
			sums.lost += !fates_->handled[i] && !fates_->forwarded[i];
		}
		std::printf(
			"[  MEASURED ] %u frames: %u handled, %u twice, %u lost, %u forwarded\n",
			sums.sent, sums.handled, sums.twice, sums.lost, sums.forwarded);
		return sums;
	}

	Fates *fates_ = nullptr;
	std::vector<pid_t> workers_;
};

TEST_F(Restart, a_supervisor_holds_the_descriptor__nothing_is_forwarded_and_frames_wait)
{
	constexpr uint32_t kRestarts = 10, kWaiting = 100;
	{
		Socket socket = armed_socket();
		ASSERT_GE(socket.fd(), 0);
		Traffic traffic(*fates_);
		for (uint32_t i = 0; i < kRestarts; ++i) {
			traffic.start();
			pid_t worker = begin([&] { serve(socket); });
			ASSERT_TRUE(served_more(50));
			end(worker, SIGKILL);
			traffic.stop();
			// No process reads now.
			ASSERT_TRUE(traffic.send(kWaiting));
			lab::settle();
			pollfd readable{ socket.fd(), POLLIN, 0 };
			EXPECT_EQ(::poll(&readable, 1, 0), 1);
		}
		pid_t last = begin([&] { serve(socket); });
		ASSERT_TRUE(eventually([&] {
			int next = 0;
			return ::ioctl(socket.fd(), FIONREAD, &next) == 0 && next == 0;
		}));
		end(last, SIGTERM);
		EXPECT_EQ(socket.stats().drops, 0u);
	}
	Sums all = sums();
	EXPECT_EQ(all.forwarded, 0u);
	EXPECT_EQ(all.twice, 0u);
	// A frame that a worker had read, and not handled, when it was killed is gone with it: at most one each time.
	EXPECT_LE(all.lost, kRestarts);
	EXPECT_EQ(all.handled + all.lost, all.sent);
	EXPECT_GE(all.handled, kRestarts * kWaiting);
}

TEST_F(Restart, a_worker_that_peeks_first_leaves_its_frame_to_the_next)
{
	Socket socket = armed_socket();
	ASSERT_GE(socket.fd(), 0);
	Traffic traffic(*fates_);
	ASSERT_TRUE(traffic.send(2));
	lab::settle();
	uint8_t frame[128];
	pid_t worker = begin([&] {
		// Handles the frame, and dies before it takes it off the queue.
		if (::recv(socket.fd(), frame, sizeof frame, MSG_PEEK) > 0)
			++fates_->served;
		::pause();
	});
	ASSERT_TRUE(eventually([&] { return fates_->served == 1; }));
	end(worker, SIGKILL);
	for (uint32_t expected : { 0u, 1u }) {
		auto packet = socket.receive();
		ASSERT_TRUE(packet);
		EXPECT_EQ(number_of(packet->bytes), expected);
	}
}

TEST_F(Restart, overlapping__the_new_socket_is_armed_before_the_old_one_is_read_empty_and_closed)
{
	constexpr uint32_t kRestarts = 20;
	{
		Traffic traffic(*fates_);
		pid_t old = begin([&] { serve_own_socket(); });
		ASSERT_TRUE(eventually([&] { return fates_->armed == 1; }));
		traffic.start();
		for (uint32_t i = 0; i < kRestarts; ++i) {
			ASSERT_TRUE(served_more(50));
			pid_t young = begin([&] { serve_own_socket(); });
			ASSERT_TRUE(eventually([&] { return fates_->armed == i + 2; }));
			end(old, SIGTERM);
			old = young;
		}
		traffic.stop();
		lab::settle();
		end(old, SIGTERM);
	}
	Sums all = sums();
	EXPECT_EQ(all.forwarded, 0u);
	EXPECT_EQ(all.twice, 0u);
	EXPECT_EQ(all.lost, 0u);
	EXPECT_EQ(all.handled, all.sent);
}

TEST_F(Restart, overlapping__an_old_socket_that_is_closed_unread_takes_its_queue_along)
{
	constexpr uint32_t kQueued = 30;
	{
		Traffic traffic(*fates_);
		Socket old = armed_socket();
		ASSERT_TRUE(traffic.send(kQueued));
		lab::settle();
		Socket young = armed_socket();
		ASSERT_TRUE(traffic.send(kQueued));
		lab::settle();
		old.close();
		while (auto packet = young.receive_now())
			handle(packet->bytes);
	}
	Sums all = sums();
	EXPECT_EQ(all.forwarded, 0u);
	EXPECT_EQ(all.lost, kQueued) << "what the old one had not read";
	EXPECT_EQ(all.handled, kQueued);
}

TEST_F(Restart, plain__frames_are_forwarded_until_the_new_process_has_its_socket)
{
	constexpr uint32_t kRestarts = 5;
	{
		Traffic traffic(*fates_);
		pid_t worker = begin([&] { serve_own_socket(); });
		ASSERT_TRUE(eventually([&] { return fates_->armed == 1; }));
		traffic.start();
		for (uint32_t i = 0; i < kRestarts; ++i) {
			ASSERT_TRUE(served_more(50));
			end(worker, SIGTERM);
			uint32_t sent = fates_->sent;
			ASSERT_TRUE(eventually([&] { return fates_->sent > sent + 10; }));
			worker = begin([&] { serve_own_socket(); });
			ASSERT_TRUE(eventually([&] { return fates_->armed == i + 2; }));
		}
		traffic.stop();
		lab::settle();
		end(worker, SIGTERM);
	}
	Sums all = sums();
	EXPECT_GE(all.forwarded, kRestarts * 10);
	EXPECT_EQ(all.twice, 0u);
}

} // namespace
