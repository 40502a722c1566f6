// SPDX-License-Identifier: GPL-2.0-only
// The frames of control protocols arrive, however many other wanted frames there are: three CPUs inject copies at LEV2 and
// IPv4, and the fourth one receives LLDP and EAPOL at RESV.
#include "limits/measure.h"

#include <atomic>
#include <chrono>
#include <stop_token>
#include <thread>

#include <sys/socket.h>

#include "support/cpus.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;

constexpr unsigned kFrames = 1000;
constexpr auto kInterval = std::chrono::milliseconds(10);
constexpr int kQuietCpu = 3;
constexpr int kRoom = 1 << 20; // as getsockopt reports it; the kernel doubles what is set
constexpr uint16_t kLldp = 0x88cc, kEapol = 0x888e;

class ControlPlane : public VmTest {
protected:
	void TearDown() override
	{
		pin(-1);
		VmTest::TearDown();
	}
	/// Takes LLDP and EAPOL at RESV.
	static Socket agent()
	{
		Socket socket;
		EXPECT_EQ(socket.error(), 0);
		EXPECT_EQ(socket.add(be16s(PACKET_ETH_PROT_EQUAL, { kLldp, kEapol })), 0);
		EXPECT_EQ(socket.treatment(PACKET_FETCH), 0);
		EXPECT_EQ(socket.location(PACKET_RESV_LOC), 0);
		const int half = kRoom / 2;
		EXPECT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half),
			  0);
		return socket;
	}
};

TEST_F(ControlPlane, lldp_and_eapol_arrive_while_three_cpus_flood)
{
	VM_NEEDS_TWO_CPUS("the floods leave one free for the control frames");
	Socket agents[2] = { agent(), agent() };
	Socket layer_2 = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Socket ipv4 = capture(PACKET_IPv4_LOC, PACKET_COPY, all());
	const lab::Frame plain = frames::plain(), packet = frames::ipv4(17, frames::udp(1, 2));
	std::atomic<uint64_t> flooded{ 0 };
	// These stop and end before the test does, however it ends.
	std::vector<std::jthread> floods;
	for (int cpu = 0; cpu < kQuietCpu; ++cpu)
		floods.emplace_back([&, cpu](const std::stop_token &stop) {
			pin(cpu);
			while (!stop.stop_requested()) {
				flooded += lab::flood(lab::Hook::Lev2, plain, 16, -1);
				flooded += lab::flood(lab::Hook::Ipv4, packet, 16, -1);
				// Without a pause emulated CPUs only wait for each other's locks in the lab.
				std::this_thread::sleep_for(std::chrono::milliseconds(1));
			}
		});
	pin(kQuietCpu);
	const lab::Frame control[2] = { frames::plain(kLldp, 200), frames::eapol(1) };
	size_t received[2] = {};
	auto next = Clock::now();
	for (unsigned n = 0; n < kFrames; ++n) {
		EXPECT_EQ(lab::inject(lab::Hook::Resv, control[n % 2]), lab::kResvTaken);
		for (int reader = 0; reader < 2; ++reader)
			received[reader] += agents[reader].drain();
		std::this_thread::sleep_until(next += kInterval);
	}
	floods.clear();
	EXPECT_TRUE(lab::settle());
	show("wanted frames of other locations meanwhile", double(flooded), "");
	EXPECT_GT(flooded, kFrames * 2u) << "no flood: nothing was tested";
	for (int reader = 0; reader < 2; ++reader) {
		SCOPED_TRACE("reader " + std::to_string(reader));
		received[reader] += agents[reader].drain();
		const mox_packet_stats stats = agents[reader].stats();
		EXPECT_EQ(stats.packets, kFrames);
		EXPECT_EQ(stats.drops, 0u);
		EXPECT_EQ(received[reader], kFrames);
	}
}

} // namespace
