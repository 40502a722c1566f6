// SPDX-License-Identifier: GPL-2.0-only
// Requests without end, at random and against everything that changes meanwhile. What counts is what the checked kernel
// says, and that the books balance afterwards. Seeds are printed; MOX_SEED repeats a run's choices.
#include "control.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include <unistd.h>

#include "scene.h"
#include "support/module.h"
#include "support/unrest.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;
using Clock = std::chrono::steady_clock;

class Storm : public ControlTest {
protected:
	void SetUp() override
	{
		ControlTest::SetUp();
		std::filesystem::create_directories("/tmp/vsd/0/ef/af_packet");
	}
	void TearDown() override
	{
		std::filesystem::remove_all("/tmp/vsd");
		ControlTest::TearDown();
	}
};

TEST_F(Storm, a_hundred_thousand_random_requests)
{
	LayerTwoScene scene;
	std::minstd_rand random(seed_of_run());
	auto start = Clock::now();
	uint32_t taken = requests_taken(), expected = 0;
	for (int i = 0; i < 100000; ++i) {
		GenlMessage message;
		message.type = family_;
		message.flags = uint16_t(random() % 16 ? 0x01 : 0x05);
		message.version = uint8_t(random());
		message.seq = uint32_t(random());
		Bytes payload(random() % 100);
		for (uint8_t &byte : payload)
			byte = uint8_t(random());
		uint32_t kind = random() % 64;
		if (kind < 16 && payload.size() >= 6) {
			// One that means something, in an attribute that may be odd; the dump is left to other tests.
			uint16_t type = uint16_t(kind ? 11 + random() % 5 : random() % 16);
			payload[4] = uint8_t(type);
			payload[5] = 0;
			if (type == MOX_MSG_DEBUG && payload.size() >= 12)
				for (size_t at : { 9, 10, 11 })
					payload[at] = 0;
			// Every second debug type is a true one, but that the lines stay off.
			if (type == MOX_MSG_DEBUG && payload.size() >= 12 && random() % 2)
				payload[8] = uint8_t(1 + random() % 28);
		}
		message.payload = payload;
		Bytes datagram = message.bytes();
		if (random() % 8 == 0) {
			uint32_t claimed = uint32_t(random()) % 140;
			for (uint32_t at = 0; at < 4; ++at)
				datagram[at] = uint8_t(claimed >> 8 * at);
		}
		uint32_t length = datagram[0] | datagram[1] << 8 | datagram[2] << 16 |
				  uint32_t(datagram[3]) << 24;
		expected += length >= 24 && length <= datagram.size();
		ASSERT_EQ(client_.send(datagram), 0);
		if (i % 32 == 0)
			client_.drain();
	}
	auto seconds = std::chrono::duration<double>(Clock::now() - start).count();
	std::printf("100000 requests in %.1f s, %u of them handled\n", seconds,
		    requests_taken() - taken);
	// What lies behind a message that claims less than its datagram may be read as one more.
	EXPECT_GE(requests_taken() - taken, expected);
	EXPECT_GT(expected, 60000u);
	client_.drain();
	// Every hook may be away; back with them, and everything works as before.
	ask_debug(27, 0);
	for (uint32_t type : { 0, 9, 18 })
		ask_debug(type, 0);
	put(Hook::Lev2, plain());
	EXPECT_EQ(scene.trap.drain(), 1u);
	lab::clear_printk();
}

TEST_F(Storm, reports_while_rules_change_and_packets_flow)
{
	compare_records_ = false; // plain words that several CPUs count
	unsigned seed = seed_of_run();
	std::atomic<bool> stop{ false };
	std::atomic<uint64_t> frames_sent{ 0 }, changes{ 0 };
	std::vector<std::thread> threads;
	const uint32_t locations[] = { 0, 1, 2, 3, 4, 7, 8, 9, 10 };
	LayerTwoScene scene;
	for (int cpu : { 0, 2, 3 })
		threads.emplace_back([&, cpu] {
			while (!stop) {
				frames_sent += lab::flood(Hook::Lev2, plain(), 8, cpu);
				frames_sent += lab::flood(Hook::Ipv4, ipv4(17, udp(68, 67)), 8,
							  cpu);
				std::this_thread::sleep_for(std::chrono::milliseconds(2));
			}
		});
	for (int cpu : { 0, 3 })
		threads.emplace_back([&, cpu] {
			pin(cpu);
			std::minstd_rand random(seed + unsigned(cpu));
			std::vector<Socket> sockets;
			while (!stop) {
				sockets.emplace_back(SOCK_RAW);
				Socket &socket = sockets.back();
				socket.add(random() % 2 ? be16s(PACKET_ETH_PROT_EQUAL,
								{ 0x0800, uint16_t(random() % 4) })
							: all());
				socket.treatment(uint32_t(random() % 6));
				socket.location(locations[random() % 9]);
				for (Socket &one : sockets)
					if (random() % 4 == 0) {
						one.location(locations[random() % 9]);
						one.drain();
					}
				++changes;
				if (sockets.size() > 12)
					sockets.erase(sockets.begin() +
						      long(random() % sockets.size()));
				std::this_thread::sleep_for(std::chrono::milliseconds(1));
			}
		});
	std::minstd_rand random(seed + 100);
	uint64_t reports = 0;
	// Five seconds, and on a slow host as long as a few reports take.
	for (auto begin = Clock::now();
	     Clock::now() < begin + std::chrono::seconds(reports > 20 ? 5 : 60);) {
		uint16_t types[] = { uint16_t(random() % 8), MOX_MSG_SHOW_ALL, MOX_MSG_SHOW_QUEUES,
				     MOX_MSG_SHOW_MEMORY,    MOX_MSG_SHOW_PID, MOX_MSG_SHOW_NAME,
				     MOX_MSG_TECH,           MOX_MSG_DEBUG };
		uint16_t type = types[random() % 8];
		Bytes body = words({ uint32_t(::getpid()) });
		if (type == MOX_MSG_DEBUG && random() % 4 == 0) {
			// A hook goes for a moment; packets must go on flowing.
			uint32_t hook = uint32_t(19 + random() % 9);
			ask_debug(hook, 1);
			body = words({ hook, 0 });
		} else if (type == MOX_MSG_DEBUG) {
			body = words({ uint32_t(1 + random() % 18), uint32_t(random() % 2) });
		}
		if (type == MOX_MSG_SHOW_NAME)
			body = { 'v', 'm', '_', 'c', 'o', 'n', 't', 'r', 'o', 'l', 0 };
		ask(type, body);
		client_.drain();
		++reports;
		if (reports % 16 == 0)
			scene.trap.drain();
	}
	stop = true;
	for (std::thread &thread : threads)
		thread.join();
	std::printf("%llu reports, %llu frames, %llu changes\n", (unsigned long long)reports,
		    (unsigned long long)frames_sent, (unsigned long long)changes);
	EXPECT_GT(reports, 20u);
	EXPECT_GT(frames_sent, 100u);
	EXPECT_GT(changes, 20u);
	ask_debug(27, 0);
	EXPECT_TRUE(lab::settle());
	scene.trap.drain();
	put(Hook::Lev2, plain());
	EXPECT_EQ(scene.trap.drain(), 1u);
	lab::clear_printk();
}

TEST_F(Storm, the_module_goes_and_comes_while_it_is_asked)
{
	compare_records_ = false; // a module loaded anew starts its counters at 0
	std::atomic<bool> stop{ false };
	std::atomic<uint32_t> refused{ 0 }, sent{ 0 };
	std::atomic<uint16_t> family{ family_ }; // another one after every load
	std::vector<Bytes> requests;
	for (uint16_t type :
	     { MOX_MSG_SHOW_QUEUES, MOX_MSG_TECH, MOX_MSG_SHOW_ALL, MOX_MSG_FILTER })
		requests.push_back(request(type));
	std::vector<std::thread> clients;
	for (int cpu : { 0, 2, 3 })
		clients.emplace_back([&, cpu] {
			pin(cpu);
			GenlSocket client;
			while (!stop) {
				Bytes datagram = requests[sent % requests.size()];
				datagram[4] = uint8_t(family);
				datagram[5] = uint8_t(family >> 8);
				ASSERT_EQ(client.send(datagram), 0);
				++sent;
				while (auto reply = client.receive())
					refused += reply->error() == -ENOENT;
				std::this_thread::sleep_for(std::chrono::milliseconds(5));
			}
		});
	uint32_t handled = 0;
	for (int i = 0; i < 3; ++i) {
		// Neither a request on its way nor a client keeps it.
		ASSERT_EQ(unload_module("mox_ef_socket"), 0) << "time " << i;
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
		ASSERT_EQ(load_module("mox_ef_socket"), 0) << "time " << i;
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		family_ = genl_family_id(client_, kFamily);
		ASSERT_NE(family_, 0);
		family = family_;
		ASSERT_EQ(refusal(request(MOX_MSG_SHOW_THREAD, {}, 0x05)), 0) << "time " << i;
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		handled += requests_taken();
	}
	stop = true;
	for (std::thread &client : clients)
		client.join();
	std::printf("%u requests, %u of them without a receiver, %u handled before an unload\n",
		    sent.load(), refused.load(), handled);
	EXPECT_GT(handled, 5u);
	EXPECT_GT(refused, 0u);
	lab::clear_printk();
}

TEST_F(Storm, a_dump_keeps_its_file_to_itself)
{
	// Another CPU asks a socket for its report by option 18 all the while: that goes to the log, whole, and the file holds
	// the dump and nothing else.
	std::vector<Socket> sockets;
	for (int i = 0; i < 40; ++i)
		sockets.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, all()));
	Socket odd = capture(PACKET_IPv4_LOC, PACKET_COPY, u8s(PACKET_IPv4_PROT_EQUAL, { 89 }));
	const std::string wanted = dump_text(answer(MOX_MSG_SHOW_ALL), answer(MOX_MSG_SHOW_MEMORY));
	const std::string one = joined(
		own_socket(PACKET_IPv4_LOC, PACKET_COPY, { { PACKET_IPv4_PROT_EQUAL, { "89  " } } })
			.pieces());
	said();
	std::atomic<bool> stop{ false };
	std::atomic<uint32_t> dumps{ 0 }, overlaps{ 0 };
	std::thread asker([&] {
		pin(kAskingCpu);
		while (!stop) {
			ask(MOX_MSG_TECH);
			client_.drain();
			++dumps;
			std::ifstream in("/tmp/vsd/0/ef/af_packet/afpacketdump", std::ios::binary);
			std::string got{ std::istreambuf_iterator<char>(in), {} };
			ASSERT_EQ(got.size(), wanted.size()) << "dump " << dumps;
			ASSERT_TRUE(got == wanted) << "dump " << dumps;
		}
	});
	pin(3);
	uint32_t options = 0;
	for (auto end = Clock::now() + std::chrono::seconds(5);
	     Clock::now() < end && !HasFailure();) {
		bool before = lab::peek8("g_tech_dump");
		ASSERT_EQ(odd.option_raw(MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET, nullptr, 0), 0);
		overlaps += before || lab::peek8("g_tech_dump");
		ASSERT_EQ(said(), one) << "option 18, time " << options;
		++options;
	}
	stop = true;
	asker.join();
	std::printf("%u dumps, %u socket reports, %u of them during a dump\n", dumps.load(),
		    options, overlaps.load());
	EXPECT_GT(dumps, 5u);
	EXPECT_GT(options, 20u);
	EXPECT_GT(overlaps, 0u) << "they never overlapped";
	pin(kAskingCpu);
}

} // namespace
