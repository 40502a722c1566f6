// SPDX-License-Identifier: GPL-2.0-only
// A flood on all CPUs, wanted by several sockets, while others come and go: each frame is in the ledger, once.
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/fixture.h"

namespace {

using namespace vm;

// Under emulation a frame of a flood takes a millisecond.
constexpr uint32_t kFramesOfCpu = 4000, kFramesOfCall = 400;
constexpr int kCpus = 4;

class Ledger : public VmTest {};

uint64_t word(mox_capture_location_attr which)
{
	return location_word(PACKET_LEV2_LOC, which);
}

TEST_F(Ledger, a_flood_on_all_cpus)
{
	Socket slow = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	Socket taker = capture(PACKET_LEV2_LOC, PACKET_FETCH, ethertype(0x88b6));
	const mox_capture_location_attr words[] = {
		MOX_CAPTURE_LOCATION_SEEN,           MOX_CAPTURE_LOCATION_CLONED,
		MOX_CAPTURE_LOCATION_TAKEN,          MOX_CAPTURE_LOCATION_CLONE_FAILED,
		MOX_CAPTURE_LOCATION_COPIES_REFUSED, MOX_CAPTURE_LOCATION_TAKES_REFUSED,
		MOX_CAPTURE_LOCATION_KEPT,           MOX_CAPTURE_LOCATION_UNKEPT,
		MOX_CAPTURE_LOCATION_UNMATCHED,
	};
	std::vector<uint64_t> before;
	for (mox_capture_location_attr which : words)
		before.push_back(word(which));
	std::atomic<bool> done{ false };
	std::vector<std::thread> floods;
	std::atomic<uint64_t> sent{ 0 };
	for (int cpu = 0; cpu < kCpus; ++cpu)
		floods.emplace_back([&sent, cpu] {
			pin(cpu);
			for (uint32_t n = 0; n < kFramesOfCpu; n += kFramesOfCall)
				sent += lab::flood(lab::Hook::Lev2,
						   frames::plain(n % (2 * kFramesOfCall) ? 0x88b5
											 : 0x88b6),
						   kFramesOfCall, cpu);
		});
	std::thread churn([&done] {
		while (!done)
			capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5)).drain();
	});
	for (std::thread &flood : floods)
		flood.join();
	done = true;
	churn.join();
	ASSERT_TRUE(lab::settle());
	std::vector<uint64_t> now;
	for (size_t i = 0; i < std::size(words); ++i)
		now.push_back(word(words[i]) - before[i]);
	EXPECT_EQ(sent, uint64_t{ kFramesOfCpu } * kCpus);
	EXPECT_EQ(now[0], sent) << "seen";
	EXPECT_EQ(now[1] + now[2] + now[3] + now[4] + now[5], sent)
		<< "each wanted frame has a fate";
	EXPECT_EQ(now[6] + now[7] + now[8], now[1] + now[2]) << "and each queued one";
	std::printf(
		"of %llu frames: %llu cloned, %llu taken, %llu without a clone, %llu and %llu without room; "
		"%llu kept, %llu kept by none, %llu matched by none\n",
		(unsigned long long)now[0], (unsigned long long)now[1], (unsigned long long)now[2],
		(unsigned long long)now[3], (unsigned long long)now[4], (unsigned long long)now[5],
		(unsigned long long)now[6], (unsigned long long)now[7], (unsigned long long)now[8]);
}

} // namespace
