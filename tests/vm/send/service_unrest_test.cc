// SPDX-License-Identifier: GPL-2.0-only
// Services that come and go while datagrams and hooks ask them.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include <arpa/inet.h>

#include "support/senders.h"
#include "support/unrest.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;

class ServiceUnrest : public SendTest {
protected:
	Unrest load_{ seed_of_run() };
};

/// Nothing but datagrams on every CPU and hooks that ask both drop services, while all three services are withdrawn,
/// published and replaced as fast as it goes. A frame's source is either implementation's address, whole.
TEST_F(ServiceUnrest, services_come_and_go_under_datagrams_and_hooks)
{
	compare_records_ = false;
	platform().record_left(false);
	std::atomic<uint64_t> sent{ 0 }, refused{ 0 }, asked{ 0 }, changes{ 0 };
	std::vector<Socket> sockets;
	for (int cpu = 0; cpu < 4; ++cpu)
		sockets.emplace_back(SOCK_DGRAM);
	Socket taker = capture(PACKET_LEV2_LOC, PACKET_FETCH, ethertype(0x88b5));
	Socket listener = capture(PACKET_LOCAL_LOC, PACKET_COPY, ethertype(kOurs));

	for (int cpu = 0; cpu < 4; ++cpu) {
		load_.run(cpu, 2, [&, cpu](std::minstd_rand &) {
			Send send;
			send.data = payload_of(uint32_t(cpu), 46);
			send.to(lab::kPortA, 6, kOurs);
			for (int n = 0; n < 8; ++n)
				if (send.by(sockets[size_t(cpu)].fd()) == 46)
					++sent;
				else if (errno == EINVAL)
					++refused;
				else
					load_.complain(std::string("a datagram: ") +
						       std::strerror(errno));
		});
		load_.run(cpu, 20, [&](std::minstd_rand &) {
			asked += lab::flood(lab::Hook::Lev2, frames::plain(0x88b5), 4, -1);
		});
	}
	load_.run(0, 10, [&](std::minstd_rand &random) {
		for (ServiceId id : { kLocalMacService, kDropService, kDropWlanService }) {
			uint8_t entry = uint8_t(random() % 2);
			if (random() % 2)
				publish(id, entry, 0, kLocalMac[entry]);
			else
				withdraw(id);
			++changes;
		}
	});
	load_.run(1, 10, [&](std::minstd_rand &) {
		taker.drain();
		while (auto packet = listener.receive_now()) {
			const uint8_t *source = &packet->bytes.at(6);
			if (std::memcmp(source, kLocalMac[0], 6) &&
			    std::memcmp(source, kLocalMac[1], 6))
				load_.complain("a source address of neither implementation");
		}
	});
	// On a busy host every change may take the better part of a second.
	const auto begin = Clock::now();
	while (Clock::now() < begin + std::chrono::seconds(5) ||
	       ((changes < 60 || !sent || !refused) &&
		Clock::now() < begin + std::chrono::seconds(60)))
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
	load_.stop();
	EXPECT_TRUE(lab::settle());
	for (const std::string &what : load_.trouble())
		ADD_FAILURE() << what;
	std::printf(
		"%llu datagrams sent, %llu refused, %llu frames at the hook, %llu changes of services, %u late calls\n",
		(unsigned long long)sent.load(), (unsigned long long)refused.load(),
		(unsigned long long)asked.load(), (unsigned long long)changes.load(),
		service_state(kLocalMacService).late);
	EXPECT_GT(sent, 0u);
	EXPECT_GT(refused, 0u) << "the service was never away";
	EXPECT_GE(changes, 60u);
	SendCounters sum{};
	for (Socket &socket : sockets) {
		SendCounters one = SendCounters::of(socket);
		sum.sent += one.sent;
		sum.macfunc_ill += one.macfunc_ill;
	}
	EXPECT_EQ(sum.sent, sent);
	EXPECT_EQ(sum.macfunc_ill, refused);
	// The drop services were asked while traffic ran, and once withdrawn never again: the platform would have warned.
	for (ServiceId id : { kDropService, kDropWlanService })
		EXPECT_GT(service_state(id, 0).calls + service_state(id, 1).calls, 0u);
}

} // namespace
