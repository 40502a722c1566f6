// SPDX-License-Identifier: GPL-2.0-only
// Requests take turns among themselves and hold up nothing else: other families are answered while a report is printed on a
// slow console, and who is killed while it waits, or while its report is printed, is gone.
#include "control.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// A process that sends one request and ends when it has been handled.
class Requester {
public:
	explicit Requester(const Bytes &datagram)
	{
		pid_ = ::fork();
		if (pid_ == 0) {
			GenlSocket own;
			::_exit(own.send(datagram) == 0 ? 0 : 1);
		}
	}
	~Requester()
	{
		if (pid_ > 0) {
			kill();
			::waitpid(pid_, nullptr, 0);
		}
	}
	Requester(const Requester &) = delete;
	Requester &operator=(const Requester &) = delete;

	void kill() const { ::kill(pid_, SIGKILL); }
	/// Whether it has ended within the time.
	bool gone(milliseconds within)
	{
		for (auto end = Clock::now() + within; pid_ > 0; ::usleep(5000)) {
			if (::waitpid(pid_, nullptr, WNOHANG) == pid_)
				pid_ = -1;
			else if (Clock::now() > end)
				return false;
		}
		return true;
	}

private:
	pid_t pid_;
};

class Turn : public ControlTest {
protected:
	void SetUp() override
	{
		ControlTest::SetUp();
		for (int i = 0; i < 200; ++i)
			sockets_.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, all()));
		line_us(1000);
	}
	void TearDown() override
	{
		line_us(0);
		sockets_.clear();
		ControlTest::TearDown();
	}
	/// How long the lab's console takes for each line.
	static void line_us(unsigned us)
	{
		std::ofstream file("/sys/module/mox_dprintk/parameters/line_us");
		file << us << std::flush;
		ASSERT_TRUE(file);
	}
	/// Waits until the module has begun with one more request than that.
	static bool taken_after(uint32_t before)
	{
		for (auto end = Clock::now() + milliseconds(5000); Clock::now() < end;
		     ::usleep(5000))
			if (requests_taken() != before)
				return true;
		return false;
	}
	std::vector<Socket> sockets_;
};

TEST_F(Turn, another_family_is_answered_during_a_long_report)
{
	const uint32_t before = requests_taken();
	Requester report(request(MOX_MSG_SHOW_ALL));
	ASSERT_TRUE(taken_after(before));
	pin(2);
	auto start = Clock::now();
	GenlSocket other;
	EXPECT_NE(genl_family_id(other, "nlctrl"), 0);
	EXPECT_NE(genl_family_id(other, kFamily), 0);
	EXPECT_LT(Clock::now() - start, milliseconds(1000));
	EXPECT_FALSE(report.gone(milliseconds(0))) << "the report took no time: nothing was tested";
}

TEST_F(Turn, a_killed_waiter_is_gone_and_has_done_nothing)
{
	const uint32_t before = requests_taken();
	Requester report(request(MOX_MSG_SHOW_ALL));
	ASSERT_TRUE(taken_after(before));
	pin(2);
	Requester waiter(request(MOX_MSG_DEBUG, words({ 1, 1 })));
	EXPECT_FALSE(waiter.gone(milliseconds(300))) << "reports do not take turns";
	waiter.kill();
	EXPECT_TRUE(waiter.gone(milliseconds(1000)));
	EXPECT_FALSE(report.gone(milliseconds(0))) << "the report took no time: nothing was tested";
	EXPECT_EQ(requests_taken(), before + 1);
	report.kill();
	EXPECT_TRUE(report.gone(milliseconds(3000)));
	EXPECT_EQ(switches(), Bytes(kSwitches)) << "the waiter's request";
}

TEST_F(Turn, a_killed_requester_ends_its_report)
{
	const uint32_t before = requests_taken();
	Requester report(request(MOX_MSG_SHOW_ALL));
	ASSERT_TRUE(taken_after(before));
	pin(2);
	EXPECT_FALSE(report.gone(milliseconds(300)));
	auto start = Clock::now();
	report.kill();
	EXPECT_TRUE(report.gone(milliseconds(3000)));
	std::printf(
		"gone after %lld ms\n",
		static_cast<long long>(
			std::chrono::duration_cast<milliseconds>(Clock::now() - start).count()));
	line_us(0);
	EXPECT_NE(answer(MOX_MSG_SHOW_THREAD), "") << "the next one has its turn";
}

/// The dump has a mutex of its own: it may wait for a file system.
TEST_F(Turn, a_dump_does_not_wait_for_a_report)
{
	std::filesystem::create_directories("/tmp/vsd/0/ef/af_packet");
	const uint32_t before = requests_taken();
	Requester report(request(MOX_MSG_SHOW_ALL));
	ASSERT_TRUE(taken_after(before));
	pin(2);
	ask(MOX_MSG_TECH);
	EXPECT_FALSE(report.gone(milliseconds(0))) << "the report took no time: nothing was tested";
	EXPECT_TRUE(client_.receive());
	EXPECT_GT(std::filesystem::file_size("/tmp/vsd/0/ef/af_packet/afpacketdump"), 10000u);
	std::filesystem::remove_all("/tmp/vsd");
}

} // namespace
