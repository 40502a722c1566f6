// SPDX-License-Identifier: GPL-2.0-only
// Everything at once on four CPUs, for MOX_SOAK_MINUTES (lab/test --soak; otherwise 10 seconds): sends, floods at all
// hooks, services, sockets that come and go, rules of thousands of values, reports, dumps, traces, network namespaces,
// CPUs that go offline, memory that runs short, and allocations that fail. In the end every send is accounted for by its
// socket's counters, every frame that a listener saw is one that was sent, the ledgers' sums hold, and no efbuff is left.
// The seed is printed; MOX_SEED repeats a run's choices.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/churn.h"
#include "support/failnth.h"
#include "support/senders.h"
#include "support/tap.h"
#include "support/unrest.h"

namespace {

using namespace vm;
using namespace frames;
using Clock = std::chrono::steady_clock;
using Random = std::minstd_rand;

const char kCpu3[] = "/sys/devices/system/cpu/cpu3/online";

bool write_file(const std::string &file, const std::string &text)
{
	std::ofstream out(file);
	return bool(out << text << std::flush);
}

class Soak : public SendTest {
protected:
	void SetUp() override
	{
		SendTest::SetUp();
		// Counted without atomics by several CPUs at once; leaks of records show when the module's caches go.
		compare_records_ = false;
		platform().record_left(false);
		lab::echo_printk(false);
	}
	void TearDown() override
	{
		load_.stop();
		write_file(kCpu3, "1");
		allocations_fail(false);
		lab::echo_printk(true);
		SendTest::TearDown();
	}

	/// What was done so far, by the name of the work.
	struct Work {
		const char *name;
		std::atomic<uint64_t> times{ 0 };
	};
	enum : size_t {
		kSends,
		kHeard,
		kOnTheWire,
		kServices,
		kLives,
		kBigRules,
		kReports,
		kDumps,
		kTraces,
		kTraced,
		kNamespaces,
		kOffline,
		kShort,
		kFailing,
		kWorks
	};
	Work works_[kWorks] = {
		{ "sends" },
		{ "heard" },
		{ "on the wire" },
		{ "service changes" },
		{ "sockets" },
		{ "big rules" },
		{ "reports" },
		{ "dumps" },
		{ "traces" },
		{ "trace records" },
		{ "namespaces" },
		{ "CPUs offline" },
		{ "times short of memory" },
		{ "calls with failing allocations" },
	};

	void senders_and_floods();
	void listeners();
	void services();
	void sockets();
	void big_rules();
	void reports_and_dumps();
	void traces();
	void namespaces();
	static bool takes_cpus_offline();
	void cpus();
	void memory();
	void failing_allocations();
	/// Of tasks that have asked for it, one allocation in ten.
	static void allocations_fail(bool on);
	void run_for(std::chrono::seconds length);

	TapPort tap_{ "tap-soak" };
	Sender senders_[4];
	Socket listeners_[2];
	Unrest load_{ seed_of_run() };
};

void Soak::senders_and_floods()
{
	for (int cpu = 0; cpu < 4; ++cpu) {
		load_.run(cpu, 30,
			  [this, cpu, number = uint32_t(cpu) << 28](Random &random) mutable {
				  Sender &sender = senders_[cpu];
				  for (int n = 0; n < 8; ++n)
					  sender.send_one(random, number++, tap_.ifindex());
				  if (!sender.trouble.empty())
					  load_.complain(std::exchange(sender.trouble, {}));
				  works_[kSends].times += 8;
			  });
		load_.run(cpu, 150, [](Random &random) {
			const HookTraffic &one = hook_traffic()[random() % hook_traffic().size()];
			lab::Frame frame = one.frame;
			frame.softirq = random() % 2;
			lab::flood(one.hook, frame, 1 + uint32_t(random() % 8), -1);
		});
	}
}

void Soak::listeners()
{
	for (Socket &listener : listeners_)
		listener = capture(PACKET_LOCAL_LOC, PACKET_COPY,
				   &listener == listeners_ ? ethertype(kOurs) : all());
	load_.run(2, 5, [this](Random &) {
		for (Socket &listener : listeners_)
			while (auto packet = listener.receive_now())
				if (has_our_type(packet->bytes)) {
					++works_[kHeard].times;
					if (!is_ours(packet->bytes))
						load_.complain(
							"a listener received a frame that no test sent");
				}
	});
	load_.run(3, 5, [this](Random &) {
		while (auto frame = tap_.read_now()) {
			++works_[kOnTheWire].times;
			if (has_our_type(*frame) && !is_ours(*frame))
				load_.complain("the device sent a frame that no test sent");
		}
	});
}

void Soak::services()
{
	load_.run(1, 20, [this](Random &random) {
		const ServiceId ids[] = { kLocalMacService, kDropService, kDropWlanService };
		ServiceId id = ids[random() % 3];
		uint8_t entry = uint8_t(random() % 2);
		if (random() % 3)
			publish(id, entry, random() % 4 ? 0 : 1, kLocalMac[entry]);
		else
			withdraw(id);
		++works_[kServices].times;
	});
}

void Soak::sockets()
{
	load_.run(0, 50, [this](Random &random) {
		live_a_sockets_life(random);
		++works_[kLives].times;
	});
}

void Soak::big_rules()
{
	constexpr unsigned kValues = 4000, kOfCall = 500;
	// The checked kernel takes 2 seconds of a CPU for all that becomes of such a rule.
	load_.run(1, 8000, [this](Random &random) {
		Socket socket;
		socket.treatment(1 + uint32_t(random() % 3));
		const bool early = random() % 2;
		if (early)
			socket.location(PACKET_LEV2_LOC);
		for (unsigned from = 0; from < kValues; from += kOfCall) {
			Rule part{ PACKET_ETH_PROT_EQUAL, 2, kOfCall, {} };
			for (unsigned n = from; n < from + kOfCall; ++n) {
				const Bytes value = be16(uint16_t(0x9000 + n));
				part.elements.insert(part.elements.end(), value.begin(),
						     value.end());
			}
			if (int error = socket.add(part); error && error != ENOMEM)
				load_.complain(std::string("a big rule: ") + std::strerror(error));
			if (random() % 4 == 0)
				socket.del(part);
		}
		if (!early)
			socket.location(PACKET_LEV2_LOC);
		socket.location(random() % 2 ? PACKET_IPv4_LOC : 0);
		++works_[kBigRules].times;
	});
}

void Soak::reports_and_dumps()
{
	load_.run(2, 60, [this, socket = std::make_shared<GenlSocket>()](Random &random) {
		GenlMessage request;
		request.type = genl_family_id(*socket, MOX_PACKET_GENL_NAME);
		Bytes record = le16(uint16_t(random() % 14));
		record.resize(4 + 8);
		request.payload = attribute(MOX_PACKET_GENL_ATTR, record);
		if (socket->send(request.bytes()) == 0)
			++works_[kReports].times;
		socket->drain();
	});
	load_.run(3, 60, [this](Random &random) {
		const auto command = mox_capture_cmd(MOX_CAPTURE_CMD_INFO + random() % 7);
		const CaptureReply reply = capture_request(command);
		if (reply.error && reply.error != -ENOMEM)
			load_.complain("a dump ended in " + std::to_string(reply.error));
		++works_[kDumps].times;
	});
}

void Soak::traces()
{
	load_.run(0, 200, [this](Random &random) {
		GenlSocket socket;
		// Room for the acknowledgement behind the records of a trace of everything.
		const int room = 4 << 20;
		::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
		const Bytes what = random() % 2 ? Bytes()
						: capture_number(MOX_CAPTURE_REQUEST_ETHER_TYPE,
								 kOurs, 2);
		const int error = capture_request(MOX_CAPTURE_CMD_TRACE_START, what, &socket).error;
		if (error)
			load_.complain("a trace did not start: " + std::to_string(error));
		for (int n = 0; n < 200 && socket.receive(20); ++n)
			++works_[kTraced].times;
		// Half of them end with their socket.
		if (random() % 2) {
			socket.drain();
			capture_request(MOX_CAPTURE_CMD_TRACE_STOP, {}, &socket);
		}
		++works_[kTraces].times;
	});
}

void Soak::namespaces()
{
	load_.run(2, 200, [this](Random &random) {
		const int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
		if (home < 0 || ::unshare(CLONE_NEWNET)) {
			load_.complain("no new network namespace");
			::close(home);
			return;
		}
		{
			Socket stays = capture(PACKET_LEV2_LOC, PACKET_COPY,
					       be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, kOurs }));
			Socket moves(SOCK_DGRAM);
			std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
			stays.drain();
			// The namespace goes with its last socket, here or behind the return.
			if (random() % 2)
				stays.close();
			if (::setns(home, CLONE_NEWNET))
				load_.complain("no way back from a network namespace");
		}
		::close(home);
		++works_[kNamespaces].times;
	});
}

bool Soak::takes_cpus_offline()
{
	return ::access(kCpu3, W_OK) == 0;
}

void Soak::cpus()
{
	if (!takes_cpus_offline()) {
		std::printf("soak: this kernel takes no CPU offline\n");
		return;
	}
	load_.run(1, 4000, [this](Random &random) {
		if (write_file(kCpu3, "0"))
			++works_[kOffline].times;
		std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1000));
		if (!write_file(kCpu3, "1"))
			load_.complain("CPU 3 does not come back");
	});
}

void Soak::memory()
{
	load_.run(0, 15000, [this](Random &) {
		std::ifstream info("/proc/meminfo");
		size_t available = 0;
		for (std::string word; info >> word;)
			if (word == "MemAvailable:") {
				info >> available;
				break;
			}
		// Less than the kernel's own reserves would only let every allocation wait for the reclaim.
		constexpr size_t kLeave = 40 * 1024;
		const auto end = Clock::now() + std::chrono::seconds(2);
		if (available <= kLeave)
			return;
		const size_t size = (available - kLeave) * 1024;
		void *area = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
				    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
		if (area == MAP_FAILED)
			return;
		for (size_t at = 0; at < size && Clock::now() < end; at += 4096)
			static_cast<volatile uint8_t *>(area)[at] = 1;
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
		::munmap(area, size);
		++works_[kShort].times;
	});
}

void Soak::allocations_fail(bool on)
{
	const std::string failslab = "/sys/kernel/debug/failslab/";
	write_file(failslab + "task-filter", "Y");
	write_file(failslab + "interval", "1");
	write_file(failslab + "times", "-1");
	write_file(failslab + "probability", on ? "10" : "0");
}

void Soak::failing_allocations()
{
	if (!can_inject_failures()) {
		std::printf("soak: this kernel injects no failures\n");
		return;
	}
	allocations_fail(true);
	load_.run(3, 20, [this](Random &random) {
		Socket socket(random() % 2 ? SOCK_RAW : SOCK_DGRAM);
		if (socket.error())
			return;
		const Rule rules[] = { all(), ethertype(kOurs),
				       be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 67, 68 }) };
		Send send;
		send.data = payload_of(uint32_t(random()), 64);
		send.to(lab::kPortA, 6, kOurs);
		GenlSocket genl;
		GenlMessage dump;
		dump.type = genl_family_id(genl, MOX_CAPTURE_NAME);
		dump.cmd = MOX_CAPTURE_CMD_RULES;
		dump.flags = 0x301;
		const Bytes message = dump.bytes();
		const AllocationsFail now;
		// What a call answers is its own tests' business; what it leaves shows in the end.
		socket.add(rules[random() % 3]);
		socket.treatment(1 + uint32_t(random() % 3));
		socket.location(1 + uint32_t(random() % 4));
		socket.add(rules[random() % 3]);
		send.by(socket.fd());
		socket.bind(lab::kPortA, uint16_t(random()));
		genl.send(message);
		socket.location(0);
		++works_[kFailing].times;
	});
}

void Soak::run_for(std::chrono::seconds length)
{
	const auto begin = Clock::now();
	const auto step = std::max(length / 20, std::chrono::seconds(5));
	for (auto next = begin + step; Clock::now() < begin + length;) {
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
		if (Clock::now() < next)
			continue;
		next += step;
		std::printf("soak: %lld of %lld s,",
			    (long long)std::chrono::duration_cast<std::chrono::seconds>(
				    Clock::now() - begin)
				    .count(),
			    (long long)length.count());
		for (const Work &work : works_)
			if (work.times)
				std::printf(" %llu %s,", (unsigned long long)work.times, work.name);
		std::printf(" %u efbuffs alive\n", platform().balance(0).live_all);
		std::fflush(stdout);
	}
}

TEST_F(Soak, everything_at_once)
{
	const char *minutes = std::getenv("MOX_SOAK_MINUTES");
	senders_and_floods();
	listeners();
	services();
	sockets();
	big_rules();
	reports_and_dumps();
	traces();
	namespaces();
	memory();
	failing_allocations();
	// The last of them: a thread starts on its CPU only while that one is online.
	cpus();
	const std::chrono::seconds length(minutes ? std::atoi(minutes) * 60 : 10);
	run_for(length);
	load_.stop();
	allocations_fail(false);
	EXPECT_TRUE(lab::settle());
	EXPECT_EQ(platform().balance(0).live_all, 0u) << "efbuffs of any owner";
	for (const std::string &what : load_.trouble())
		ADD_FAILURE() << what;
	uint64_t sent = 0, refused = 0;
	for (Sender &sender : senders_) {
		sent += sender.sends;
		refused += sender.refused;
		EXPECT_EQ(SendCounters::of(sender.raw), sender.of_raw);
		EXPECT_EQ(SendCounters::of(sender.dgram), sender.of_dgram);
	}
	EXPECT_GT(sent, 100u);
	EXPECT_GT(refused, 0u);
	std::vector<size_t> done = { kHeard,   kOnTheWire, kServices, kLives,     kBigRules,
				     kReports, kDumps,     kTraces,   kNamespaces };
	// In seconds these may not have their turn.
	if (length >= std::chrono::minutes(1)) {
		done.insert(done.end(), { kTraced, kShort });
		if (takes_cpus_offline())
			done.push_back(kOffline);
		if (can_inject_failures())
			done.push_back(kFailing);
	}
	for (size_t work : done)
		EXPECT_GT(works_[work].times, 0u) << works_[work].name;
	for (Socket &listener : listeners_)
		listener.close();
}

} // namespace
