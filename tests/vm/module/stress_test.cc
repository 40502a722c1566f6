// SPDX-License-Identifier: GPL-2.0-only
// Four CPUs flood while rules, sockets and readers come and go. What counts is what the checked kernel reports meanwhile,
// and that the books balance afterwards. The seed is printed; MOX_SEED repeats a run's choices.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/churn.h"
#include "support/fixture.h"
#include "support/unrest.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

using Stress = VmTest;

TEST_F(Stress, floods_on_four_cpus_while_everything_changes)
{
	const unsigned seed = seed_of_run();
	const int seconds = std::getenv("MOX_STRESS_SECONDS")
				    ? std::atoi(std::getenv("MOX_STRESS_SECONDS"))
				    : 20;
	// With several CPUs changing them the record counters, plain words, may drift.
	compare_records_ = false;

	std::atomic<bool> stop{ false };
	std::atomic<uint64_t> frames_sent{ 0 };
	std::vector<std::thread> threads;
	for (int cpu = 0; cpu < 4; ++cpu) {
		threads.emplace_back([&, cpu] {
			std::minstd_rand random(seed + unsigned(cpu));
			while (!stop) {
				const HookTraffic &one =
					hook_traffic()[random() % hook_traffic().size()];
				Frame frame = one.frame;
				frame.softirq = random() % 2;
				frames_sent += lab::flood(one.hook, frame,
							  1 + uint32_t(random() % 16), cpu);
				// An emulated CPU under the checked kernel needs air, or the flood itself is taken for a lock-up.
				std::this_thread::sleep_for(
					std::chrono::milliseconds(random() % 4));
			}
		});
		// Two that change things leave the floods their share of the emulated CPUs.
		if (cpu >= 2)
			continue;
		threads.emplace_back([&, cpu] {
			pin(cpu);
			std::minstd_rand random(seed + 100 + unsigned(cpu));
			while (!stop)
				live_a_sockets_life(random);
		});
	}
	// One reader that stays, and must never starve.
	Socket watcher = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(watcher.ctrl(true), 0);
	size_t watched = 0;
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
	while (std::chrono::steady_clock::now() < end)
		if (auto packet = watcher.receive(50)) {
			++watched;
			EXPECT_EQ(packet->info.pkt_ifx, lab::kPortA);
			EXPECT_EQ(packet->info.reserved46, 0);
		}
	stop = true;
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_TRUE(lab::settle());
	EXPECT_GT(frames_sent, 0u);
	EXPECT_GT(watched, 0u);
	std::printf("%llu frames at hooks, %zu watched\n",
		    static_cast<unsigned long long>(frames_sent.load()), watched);
	watcher.close();
}

TEST_F(Stress, one_socket_used_by_four_threads_at_once)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	std::vector<std::thread> threads;
	for (int cpu = 0; cpu < 4; ++cpu)
		threads.emplace_back([&, cpu] {
			pin(cpu);
			for (uint16_t i = 0; std::chrono::steady_clock::now() < end; ++i)
				switch (cpu) {
				case 0:
					socket.add(ethertype(uint16_t(0x9000 + i % 16)));
					break;
				case 1:
					socket.del(ethertype(uint16_t(0x9000 + i % 16)));
					break;
				case 2:
					socket.location(i % 2 ? PACKET_LEV2_LOC : PACKET_IPv4_LOC);
					break;
				default:
					lab::flood(Hook::Lev2, plain(), 4, cpu);
					socket.receive(0);
				}
		});
	for (std::thread &thread : threads)
		thread.join();
	compare_records_ = false;
}

} // namespace
