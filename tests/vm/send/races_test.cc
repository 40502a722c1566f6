// SPDX-License-Identifier: GPL-2.0-only
// Sends while something else changes: the socket's own binding, its counters, the device.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;

class Races : public SendTest {
protected:
	static constexpr auto kLength = std::chrono::seconds(3);

	void SetUp() override
	{
		SendTest::SetUp();
		compare_records_ = false;
		platform().record_left(false);
	}
	/// Calls work(cpu) on each of four CPUs again and again until stop().
	template <class Work> void on_all_cpus(Work work)
	{
		for (int cpu = 0; cpu < 4; ++cpu)
			threads_.emplace_back([this, cpu, work]() mutable {
				pin(cpu);
				for (; !stop_;
				     std::this_thread::sleep_for(std::chrono::microseconds(500)))
					work(cpu);
			});
	}
	void stop()
	{
		stop_ = true;
		for (std::thread &thread : threads_)
			thread.join();
	}
	std::atomic<bool> stop_{ false };
	std::vector<std::thread> threads_;
};

TEST_F(Races, one_socket_sends_on_four_cpus_while_it_is_bound_and_read)
{
	Socket socket(SOCK_RAW);
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	std::atomic<unsigned> sent{ 0 }, wrong{ 0 };
	on_all_cpus([&](int) {
		Send send;
		send.data = counting(60);
		if (send.by(socket.fd()) == 60)
			++sent;
		else
			++wrong;
	});
	unsigned rounds = 0;
	for (auto end = Clock::now() + kLength; Clock::now() < end; ++rounds) {
		EXPECT_EQ(socket.bind(rounds % 2 ? lab::kPortA : lab::kPortB), 0);
		socket.stats();
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	stop();
	EXPECT_EQ(wrong, 0u) << "either interface is there and up";
	EXPECT_GT(sent, 0u);
	EXPECT_GT(rounds, 0u);
	EXPECT_EQ(platform().balance(0).live_all, 0u);
}

TEST_F(Races, the_device_goes_and_comes_while_frames_leave_by_it)
{
	auto tap = std::make_unique<TapPort>("tap-fickle");
	std::atomic<uint32_t> ifindex{ tap->ifindex() };
	std::atomic<unsigned> sent{ 0 }, refused{ 0 }, wrong{ 0 };
	on_all_cpus([&](int cpu) {
		Socket socket(cpu % 2 ? SOCK_RAW : SOCK_DGRAM);
		Send send;
		send.data = counting(60);
		send.with({}).to(ifindex, 6, 0x88b5);
		send.control.pkt_ifx = cpu / 2 ? lab::kPortA : 0;
		for (int n = 0; n < 4; ++n)
			if (send.by(socket.fd()) == 60)
				++sent;
			// Gone, down, or taken away between the check and the platform's turn.
			else if (errno == ENXIO || errno == ENETDOWN || errno == ENETUNREACH)
				++refused;
			else
				++wrong;
	});
	unsigned rounds = 0;
	for (auto end = Clock::now() + kLength; Clock::now() < end || rounds < 4; ++rounds) {
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		tap->set_up(false);
		tap->set_up(true);
		tap.reset();
		tap = std::make_unique<TapPort>("tap-fickle");
		ifindex = tap->ifindex();
	}
	stop();
	EXPECT_EQ(wrong, 0u);
	EXPECT_GT(sent, 0u);
	EXPECT_EQ(platform().balance(0).live_all, 0u);
}

TEST_F(Races, takers_at_LOCAL_come_and_go_while_others_send)
{
	std::atomic<unsigned> sent{ 0 }, wrong{ 0 }, heard{ 0 };
	on_all_cpus([&](int) {
		Socket socket(SOCK_RAW);
		Send send;
		send.data = counting(60);
		send.to(lab::kPortA);
		for (int n = 0; n < 4; ++n)
			if (send.by(socket.fd()) == 60)
				++sent;
			else
				++wrong;
	});
	for (auto end = Clock::now() + kLength; Clock::now() < end;)
		for (uint32_t treatment : { PACKET_COPY, PACKET_FETCH, PACKET_TRAP }) {
			Socket taker = capture(PACKET_LOCAL_LOC, treatment, all());
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
			while (auto packet = taker.receive_now()) {
				EXPECT_EQ(packet->bytes, counting(60));
				++heard;
			}
		}
	stop();
	EXPECT_TRUE(lab::settle());
	EXPECT_EQ(wrong, 0u) << "taken or gone out, a send is a success";
	EXPECT_GT(sent, 0u);
	EXPECT_GT(heard, 0u);
	EXPECT_EQ(platform().balance(0).live_all, 0u);
}

} // namespace
