// SPDX-License-Identifier: GPL-2.0
// Sends and captures on all CPUs, for MOX_SOAK_MINUTES (lab/test --soak; otherwise 10 seconds), while
// services come and go and rules change. Every send is accounted for by the socket's counters in the end, every frame
// that a listener sees is one that was sent, and no efbuff is left. The seed is printed; MOX_SEED repeats a run's choices.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include <arpa/inet.h>

#include "support/churn.h"
#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kOurs = 0x88b7; ///< EtherType of what the senders send
constexpr size_t kHeader = 14, kLeast = kHeader + 8;

/// Payload whose every byte follows from its first four: number, length, then bytes made of both.
Bytes payload_of(uint32_t number, size_t length)
{
	Bytes bytes(std::max<size_t>(length, 8));
	uint32_t words[2] = { number, uint32_t(bytes.size()) };
	std::memcpy(bytes.data(), words, sizeof words);
	for (size_t i = 8; i < bytes.size(); ++i)
		bytes[i] = uint8_t(number + i * 7);
	return bytes;
}

/// Whether the frame is one that payload_of() made, and nothing else in front of or behind it.
bool is_ours(const Bytes &frame)
{
	uint32_t words[2];
	if (frame.size() < kLeast)
		return false;
	std::memcpy(words, &frame[kHeader], sizeof words);
	return frame.size() == kHeader + words[1] &&
	       Bytes(frame.begin() + kHeader, frame.end()) == payload_of(words[0], words[1]);
}

bool has_our_type(const Bytes &frame)
{
	return frame.size() >= kHeader && frame[12] == kOurs >> 8 && frame[13] == (kOurs & 0xff);
}

/// What may be wrong with a send, and the counter that shows it; null: nothing.
struct Flaw {
	unsigned weight;
	uint32_t SendCounters::*counter;
	void (*make)(Send &send);
};
constexpr Flaw kFlaws[] = {
	{ 40, nullptr, [](Send &) {} },
	{ 1, &SendCounters::sendmsg_ill,
	  [](Send &s) { s.controlled = true, s.control_length = 47; } },
	{ 1, &SendCounters::sendmsg_ill, [](Send &s) { s.name_length = 19; } },
	{ 1, &SendCounters::pkt_copy,
	  [](Send &s) { s.at = reinterpret_cast<void *>(8), s.at_length = 60; } },
	{ 1, &SendCounters::alloc_efbuff,
	  [](Send &s) { s.at = reinterpret_cast<void *>(0x10000), s.at_length = 1 << 20; } },
	{ 1, &SendCounters::dstintf_ill,
	  [](Send &s) { s.address().sll_ifindex = int(lab::kNoSuchInterface); } },
	{ 1, &SendCounters::linkdown,
	  [](Send &s) { s.address().sll_ifindex = int(lab::kPortDown); } },
	{ 1, &SendCounters::srcintf_ill,
	  [](Send &s) { s.controlled = true, s.control.pkt_ifx = lab::kNoSuchInterface; } },
};

/// The sockets of one sending thread, and what their counters must say in the end.
struct Sender {
	Socket raw{ SOCK_RAW }, dgram{ SOCK_DGRAM };
	SendCounters of_raw{}, of_dgram{};
	std::atomic<uint32_t> sends{ 0 }, refused{ 0 };
	std::string trouble;

	void send_one(std::minstd_rand &random, uint32_t number, uint32_t tap);
};

void Sender::send_one(std::minstd_rand &random, uint32_t number, uint32_t tap)
{
	const uint32_t destinations[] = { lab::kPortA, lab::kPortB, tap, 0 };
	const size_t lengths[] = { 8, 46, 200, 1400, 1486 };
	bool datagram = random() % 2;
	Send send;
	send.data = payload_of(number, lengths[random() % std::size(lengths)]);
	send.to(destinations[random() % 4], 6, kOurs);
	if (!datagram) {
		Bytes header(kPeerMac, kPeerMac + 6);
		header.insert(header.end(), kLocalMac[0], kLocalMac[0] + 6);
		header.push_back(kOurs >> 8);
		header.push_back(kOurs & 0xff);
		send.data.insert(send.data.begin(), header.begin(), header.end());
	}
	if (random() % 2) {
		send.with({});
		send.control.pkt_ifx = random() % 2 ? lab::kPortA : 0;
		send.control.flags = uint32_t(random()) & ~uint32_t(MOX_SEND_DEBUG);
		send.control.wlan_id = uint16_t(number);
	}
	unsigned die = unsigned(random()) % 47;
	const Flaw *flaw = kFlaws;
	for (; die >= flaw->weight; ++flaw)
		die -= flaw->weight;
	flaw->make(send);

	ssize_t result = send.by(datagram ? dgram.fd() : raw.fd());
	int error = result < 0 ? errno : 0;
	uint32_t SendCounters::*counter = flaw->counter;
	// The service may be away: the header of a datagram is built before the data are read.
	bool before_header = counter == &SendCounters::sendmsg_ill ||
			     counter == &SendCounters::alloc_efbuff;
	if (error == ENOMEM)
		counter = &SendCounters::alloc_efbuff;
	else if (datagram && error == EINVAL && !before_header)
		counter = &SendCounters::macfunc_ill;
	else if (!counter)
		counter = !error ? &SendCounters::sent
			  : error == ENETUNREACH
				  ? &SendCounters::
					    ef_send // dropped by a service, or the device was busy
				  : nullptr;
	if (!counter || (!error && (flaw->counter || result != ssize_t(send.length())))) {
		trouble = "a send with flaw " + std::to_string(flaw - kFlaws) +
			  " ended in: " + std::strerror(error);
		return;
	}
	SendCounters &books = datagram ? of_dgram : of_raw;
	++(books.*counter);
	++(error ? refused : sends);
}

class Soak : public SendTest {
protected:
	static std::chrono::seconds duration()
	{
		const char *minutes = std::getenv("MOX_SOAK_MINUTES");
		return std::chrono::seconds(minutes ? std::atoi(minutes) * 60 : 10);
	}
	static unsigned seed()
	{
		const char *given = std::getenv("MOX_SEED");
		unsigned seed = given ? unsigned(std::atoi(given))
				      : unsigned(std::random_device{}());
		std::printf("seed %u\n", seed);
		return seed;
	}
	/// Does the work on the CPU again and again, with pauses of up to so many milliseconds: an emulated CPU under the
	/// checked kernel needs air, or the load itself is taken for a lock-up, and nothing else gets its share.
	template <class Work> void run(int cpu, unsigned pause, Work work)
	{
		threads_.emplace_back(
			[this, cpu, pause, work, number = unsigned(threads_.size())]() mutable {
				pin(cpu);
				std::minstd_rand random(seed_ + number);
				for (; !stop_; std::this_thread::sleep_for(
					     std::chrono::microseconds(random() % (pause * 1000))))
					work(random);
			});
	}
	void complain(const std::string &what)
	{
		std::lock_guard<std::mutex> guard(lock_);
		if (trouble_.size() < 20)
			trouble_.push_back(what);
	}
	void join()
	{
		stop_ = true;
		for (std::thread &thread : threads_)
			thread.join();
		threads_.clear();
	}

	unsigned seed_ = seed();
	std::atomic<bool> stop_{ false };
	std::vector<std::thread> threads_;
	std::mutex lock_;
	std::vector<std::string> trouble_;
};

TEST_F(Soak, sends_and_captures_on_four_cpus)
{
	// Counted without atomics by several CPUs at once; leaks of records show when the module's caches go.
	compare_records_ = false;
	platform().record_left(false);
	const auto length = duration();
	TapPort tap("tap-soak");
	Sender senders[4];
	std::atomic<uint64_t> heard{ 0 }, on_the_wire{ 0 }, changes{ 0 }, lives{ 0 };
	Socket listeners[2] = { capture(PACKET_LOCAL_LOC, PACKET_COPY, ethertype(kOurs)),
				capture(PACKET_LOCAL_LOC, PACKET_COPY, all()) };

	for (int cpu = 0; cpu < 4; ++cpu) {
		run(cpu, 1,
		    [&, cpu, number = uint32_t(cpu) << 28](std::minstd_rand &random) mutable {
			    Sender &sender = senders[cpu];
			    for (int n = 0; n < 8; ++n)
				    sender.send_one(random, number++, tap.ifindex());
			    if (!sender.trouble.empty())
				    complain(std::exchange(sender.trouble, {}));
		    });
		run(cpu, 40, [](std::minstd_rand &random) {
			const HookTraffic &one = hook_traffic()[random() % hook_traffic().size()];
			lab::flood(one.hook, one.frame, 1 + uint32_t(random() % 4), -1);
		});
	}
	run(0, 50, [&](std::minstd_rand &random) {
		live_a_sockets_life(random);
		++lives;
	});
	run(1, 20, [&](std::minstd_rand &random) {
		const ServiceId ids[] = { kLocalMacService, kDropService, kDropWlanService };
		ServiceId id = ids[random() % 3];
		uint8_t entry = uint8_t(random() % 2);
		if (random() % 3)
			publish(id, entry, random() % 4 ? 0 : 1, kLocalMac[entry]);
		else
			withdraw(id);
		++changes;
	});
	run(2, 5, [&](std::minstd_rand &) {
		for (Socket &listener : listeners)
			while (auto packet = listener.receive_now())
				if (has_our_type(packet->bytes)) {
					++heard;
					if (!is_ours(packet->bytes))
						complain(
							"a listener received a frame that no test sent");
				}
	});
	run(3, 5, [&](std::minstd_rand &) {
		while (auto frame = tap.read_now()) {
			++on_the_wire;
			if (has_our_type(*frame) && !is_ours(*frame))
				complain("the device sent a frame that no test sent");
		}
	});

	auto totals = [&] {
		std::pair<uint64_t, uint64_t> sum{};
		for (Sender &sender : senders)
			sum.first += sender.sends, sum.second += sender.refused;
		return sum;
	};
	const auto begin = Clock::now();
	const auto step = std::max(length / 20, std::chrono::seconds(5));
	for (auto next = begin + step; Clock::now() < begin + length;) {
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
		if (Clock::now() < next)
			continue;
		next += step;
		long passed = long(
			std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin)
				.count());
		auto [sent, refused] = totals();
		std::printf(
			"soak: %ld of %ld s, %llu sent (%llu a second), %llu refused, %llu heard, %llu on the wire, "
			"%llu service changes, %llu sockets, %u efbuffs alive\n",
			passed, long(length.count()), (unsigned long long)sent,
			(unsigned long long)(sent / uint64_t(passed)), (unsigned long long)refused,
			(unsigned long long)heard.load(), (unsigned long long)on_the_wire.load(),
			(unsigned long long)changes.load(), (unsigned long long)lives.load(),
			platform().balance(0).live_all);
		std::fflush(stdout);
	}
	join();
	EXPECT_TRUE(lab::settle());
	EXPECT_EQ(platform().balance(0).live_all, 0u) << "efbuffs of any owner";
	for (const std::string &what : trouble_)
		ADD_FAILURE() << what;
	auto [sent, refused] = totals();
	EXPECT_GT(sent, 100u);
	EXPECT_GT(refused, 0u);
	EXPECT_GT(heard, 0u);
	EXPECT_GT(on_the_wire, 0u);
	EXPECT_GT(changes, 0u);
	for (Sender &sender : senders) {
		EXPECT_EQ(SendCounters::of(sender.raw), sender.of_raw);
		EXPECT_EQ(SendCounters::of(sender.dgram), sender.of_dgram);
	}
}

/// Nothing but datagrams on every CPU and hooks that ask both drop services, while all three services are withdrawn,
/// published and replaced as fast as it goes. A frame's source is either implementation's address, whole.
TEST_F(Soak, services_come_and_go_under_datagrams_and_hooks)
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
		run(cpu, 2, [&, cpu](std::minstd_rand &) {
			Send send;
			send.data = payload_of(uint32_t(cpu), 46);
			send.to(lab::kPortA, 6, kOurs);
			for (int n = 0; n < 8; ++n)
				if (send.by(sockets[size_t(cpu)].fd()) == 46)
					++sent;
				else if (errno == EINVAL)
					++refused;
				else
					complain(std::string("a datagram: ") +
						 std::strerror(errno));
		});
		run(cpu, 20, [&](std::minstd_rand &) {
			asked += lab::flood(lab::Hook::Lev2, frames::plain(0x88b5), 4, -1);
		});
	}
	run(0, 10, [&](std::minstd_rand &random) {
		for (ServiceId id : { kLocalMacService, kDropService, kDropWlanService }) {
			uint8_t entry = uint8_t(random() % 2);
			if (random() % 2)
				publish(id, entry, 0, kLocalMac[entry]);
			else
				withdraw(id);
			++changes;
		}
	});
	run(1, 10, [&](std::minstd_rand &) {
		taker.drain();
		while (auto packet = listener.receive_now()) {
			const uint8_t *source = &packet->bytes.at(6);
			if (std::memcmp(source, kLocalMac[0], 6) &&
			    std::memcmp(source, kLocalMac[1], 6))
				complain("a source address of neither implementation");
		}
	});
	// On a busy host every change may take the better part of a second.
	const auto begin = Clock::now();
	while (Clock::now() < begin + std::chrono::seconds(5) ||
	       ((changes < 60 || !sent || !refused) &&
		Clock::now() < begin + std::chrono::seconds(60)))
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
	join();
	EXPECT_TRUE(lab::settle());
	for (const std::string &what : trouble_)
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
