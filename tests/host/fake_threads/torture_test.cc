// SPDX-License-Identifier: GPL-2.0-only
// Processes, hooks and the copy thread on real threads, at once. ThreadSanitizer
// reports accesses without a lock; at the end nothing may be left.
//
// SEED=n replays the choices (not the interleaving), SECONDS=n the length of each test.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "backend.h"
#include "base/log.hpp"
#include "control/capture.hpp"
#include "control/requests.hpp"
#include "control/switches.hpp"
#include "oracle/frames.h"
#include "receive/arrivals.hpp"
#include "receive/queue.hpp"
#include "rules/edit.hpp"
#include "rules/filing.hpp"
#include "rules/library.hpp"
#include "base/socket_record.hpp"
#include "socket/address.hpp"
#include "socket/dump.hpp"
#include "socket/family.hpp"
#include "receive/deliver.hpp"
#include "receive/thread.hpp"
#include "receive/tracer.hpp"

using namespace mox;

namespace {

using oracle::Bytes;
using oracle::operator+;

double seconds()
{
	return getenv("SECONDS") ? atof(getenv("SECONDS")) : 1.5;
}

struct Process {
	::socket socket;
	std::mt19937 rng;

	u32 below(u32 n) { return rng() % n; }
	void open()
	{
		socket = {};
		socket.type = below(2) ? 3 : 2;
		ASSERT_EQ(mox_packet_create(&threads::init_net(), &socket, below(2) ? 0 : 0x0008,
					    0),
			  0);
	}
	void close() { mox_packet_release(&socket); }
	int set(int option, const Bytes &value)
	{
		seam_uptr at{ value.data() };
		return mox_packet_setsockopt(&socket, 263, option, &at, value.size());
	}
	int set(int option, u32 v)
	{
		Bytes b(4);
		memcpy(b.data(), &v, 4);
		return set(option, b);
	}
	void rule(int option)
	{
		const Bytes records[] = {
			{ 16, 0, 0, 0, 0, 0 },                  // all
			{ 3, 0, 2, 0, 1, 0, 8, 0 },             // EtherType IPv4
			{ 3, 0, 2, 0, 2, 0, 8, 0, 0x88, 0xcc }, // two EtherTypes
			{ 10, 0, 4, 0, 1, 0, 7, 0, 0, 0 },      // interface 7
			{ 17, 0, 4, 0, 1, 0, 5, 0, 0, 0 },      // attribute
		};
		set(option, records[below(5)]);
	}
	void bind()
	{
		Bytes addr{ 17, 0, 0, 0, u8(below(2) ? 7 : 0), 0, 0, 0 };
		addr.resize(20);
		if (below(4) == 0)
			addr[2] = 8;
		mox_packet_bind(&socket, reinterpret_cast<sockaddr *>(addr.data()), 20);
	}
	void read()
	{
		msghdr msg;
		u8 name[128];
		msg.name = name;
		for (int i = 0; i < 4; i++)
			mox_packet_recvmsg(&socket, &msg, 2000, 0x40 | (below(4) ? 0 : 2));
	}
	void statistics()
	{
		u32 out[2];
		int len = 8;
		mox_packet_getsockopt(&socket, 263, 6, reinterpret_cast<char *>(out), &len);
		mox_packet_ioctl(&socket, 0x541b, reinterpret_cast<unsigned long>(&len));
	}
	// Changes the option for times of arrival, in any of the calls that look at it.
	void stamp()
	{
		socket.sk->stamped = below(2);
		if (below(2))
			mox_packet_poll(&socket);
		else
			read();
	}
	// One of the operations, each as often as its weight says.
	void operate()
	{
		switch (below(20)) {
		case 0 ... 2:
			rule(11);
			break;
		case 3 ... 4:
			rule(12);
			break;
		case 5 ... 7:
			set(PACKET_TREATMENT, below(6));
			break;
		case 8 ... 11: {
			static const u32 locations[] = { 2, 2, 2, 3, 7, 8, 1, 0, 9 };
			set(PACKET_LOCATION, locations[below(9)]);
			break;
		}
		case 12:
			set(PACKET_CTRL_INFO, below(2));
			break;
		case 13 ... 14:
			bind();
			break;
		case 15:
			statistics();
			break;
		default:
			read();
			break;
		}
	}
};

// An operator: a task that sends requests; the module sees to it that they take turns.
struct Operator {
	std::mt19937 rng;
	uint64_t requests = 0, dumps = 0;

	u32 below(u32 n) { return rng() % n; }
	void ask(u16 type)
	{
		genl_info info;
		Bytes &m = info.message;
		m = Bytes(24 + 76);
		for (size_t i = 28; i < m.size(); i++)
			m[i] = rng();
		m[0] = m.size();
		m[24] = type;
		if (type == 14) {
			m[28] = below(28);
			m[29] = m[30] = m[31] = 0;
			m[32] = below(2);
		} else if (type == 15) {
			m[28] = below(4) != 0;
			m[32] &= 0x1f; // few fields, so that many are looked at
			m[33] = 0;
		}
		EXPECT_EQ(mox_packet_msg_recv(nullptr, &info), 0);
		requests++;
		dumps += type == 16;
	}
};

class Torture : public testing::Test {
protected:
	void SetUp() override
	{
		seed = getenv("SEED") ? strtoull(getenv("SEED"), nullptr, 0)
				      : std::random_device{}();
		printf("SEED=%u Torture\n", seed);
		oracle::Meta m;
		m.source = threads::interface_word();
		frame = oracle::efbuff(m, oracle::eth(0x0800) + Bytes(46, 0));
		frame.resize(1024);
		ASSERT_EQ(mox_packet_init(), 0);
	}
	void TearDown() override
	{
		stop = true;
		for (std::thread &t : all)
			t.join();
		mox_packet_exit();
		threads::Live &l = threads::live();
		EXPECT_EQ(l.blocks + l.objects + l.caches + l.tasks, 0);
		EXPECT_EQ(l.socks, 0) << "sockets";
		EXPECT_EQ(l.skbs, 0) << "socket buffers";
		EXPECT_EQ(l.efbuffs, 0) << "efbuffs";
		EXPECT_EQ(threads::init_net().refs, 1);
		for (u32 location : { 1, 2, 3, 4, 7, 8 })
			EXPECT_FALSE(threads::registered(location)) << location;
	}
	// A CPU whose hooks see frames at every location until the end.
	void start_cpu(int cpu)
	{
		all.emplace_back([this, cpu] {
			threads::become_cpu(cpu);
			std::mt19937 rng(seed + cpu);
			static const u32 locations[] = { 2, 2, 2, 3, 7, 8, 1 };
			while (!stop) {
				threads::inject(locations[rng() % 7], frame);
				injected++;
			}
		});
	}
	void run_for()
	{
		std::this_thread::sleep_for(std::chrono::duration<double>(seconds()));
		stop = true;
		for (std::thread &t : all)
			t.join();
		all.clear();
	}

	unsigned seed = 0;
	Bytes frame;
	std::atomic<bool> stop{ false };
	std::atomic<uint64_t> injected{ 0 }, operations{ 0 };
	std::vector<std::thread> all;
};

TEST_F(Torture, processes_of_their_own_against_hooks)
{
	start_cpu(0);
	start_cpu(1);
	for (int p = 0; p < 3; p++)
		all.emplace_back([this, p] {
			Process process;
			process.rng.seed(seed + 100 + p);
			while (!stop) {
				process.open();
				for (int i = 0; i < 60; i++, operations++)
					process.operate();
				process.close();
			}
		});
	run_for();
	EXPECT_GT(injected, 100u);
	EXPECT_GT(operations, 100u);
}

TEST_F(Torture, threads_that_share_a_socket)
{
	Process owner;
	owner.rng.seed(seed);
	owner.open();
	start_cpu(0);
	for (int p = 0; p < 4; p++)
		all.emplace_back([this, p, &owner] {
			Process process;
			process.socket = owner.socket;
			process.rng.seed(seed + 200 + p);
			while (!stop) {
				process.operate();
				operations++;
			}
		});
	run_for();
	owner.close();
	EXPECT_GT(operations, 100u);
}

// Reports, switches, the filter and the dump file while everything else goes on; the
// sockets' own reports come from other tasks in the middle of a dump.
TEST_F(Torture, operator_against_processes_and_hooks)
{
	Operator ops[3];
	for (int i = 0; i < 3; i++)
		ops[i].rng.seed(seed + 300 + i);
	start_cpu(0);
	start_cpu(1);
	for (int p = 0; p < 2; p++)
		all.emplace_back([this, p] {
			Process process;
			process.rng.seed(seed + 400 + p);
			while (!stop) {
				process.open();
				for (int i = 0; i < 60; i++, operations++) {
					process.operate();
					if (i % 8 == 0)
						process.set(18, 0u);
				}
				process.close();
			}
		});
	for (Operator &op : ops)
		all.emplace_back([this, &op] {
			while (!stop)
				op.ask(op.below(3) ? op.below(18) : 16);
		});
	run_for();
	uint64_t requests = 0, dumps = 0;
	for (const Operator &op : ops) {
		requests += op.requests;
		dumps += op.dumps;
	}
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	EXPECT_GT(injected, 100u);
	EXPECT_GT(operations, 100u);
	EXPECT_GT(requests, 50u);
	EXPECT_GT(dumps, 10u);
	EXPECT_GT(threads::live().dumped, dumps * 2000)
		<< "every dump has the empty reports at least";
	EXPECT_EQ(threads::live().files, 0);
}

// Readers of the family, in buffers that hold a part of most rules, while sockets come and go
// and frames are delivered.
TEST_F(Torture, readers_against_processes_and_hooks)
{
	std::atomic<uint64_t> buffers{ 0 }, ended{ 0 };
	start_cpu(0);
	for (int p = 0; p < 2; p++)
		all.emplace_back([this, p] {
			Process process;
			process.rng.seed(seed + 500 + p);
			while (!stop) {
				process.open();
				for (int i = 0; i < 20; i++, operations++)
					process.operate();
				process.close();
			}
		});
	for (int p = 0; p < 2; p++)
		all.emplace_back([&, p] {
			std::mt19937 rng(seed + 600 + p);
			while (!stop) {
				const u8 commands[] = {
					MOX_CAPTURE_CMD_LOCATIONS, MOX_CAPTURE_CMD_SOCKETS,
					MOX_CAPTURE_CMD_RULES,     MOX_CAPTURE_CMD_RULES,
					MOX_CAPTURE_CMD_QUEUES,    MOX_CAPTURE_CMD_MEMORY
				};
				const seam_request request{ &threads::init_net(), 1, 1, 2,
							    nullptr };
				void *state = nullptr;
				EXPECT_EQ(mox_capture_dump_start(commands[rng() % 6], nullptr, 0,
								 &request, &state),
					  0);
				int filled = 1;
				// Some readers close before the end.
				for (u32 most = 1 + rng() % 40; filled > 0 && most; most--) {
					sk_buff *skb = threads::skb_alloc(600 + rng() % 600);
					u32 sequence = 0;
					filled = mox_capture_dump_fill(skb, state, &request,
								       &sequence);
					EXPECT_GE(filled, 0);
					EXPECT_NE(sequence, 0u);
					buffers += filled > 0;
					seam_consume_skb(skb);
				}
				ended += filled == 0;
				mox_capture_dump_done(state);
				EXPECT_EQ(mox_capture_do(MOX_CAPTURE_CMD_THREAD, nullptr, 0,
							 &request),
					  0);
			}
		});
	run_for();
	EXPECT_GT(injected, 100u);
	EXPECT_GT(operations, 100u);
	EXPECT_GT(buffers, 30u);
	EXPECT_GT(ended, 3u);
}

// Traces and times of arrival come and go while frames are queued and delivered, and while
// several threads look at the options of one socket.
TEST_F(Torture, traces_and_times_against_processes_and_hooks)
{
	std::atomic<uint64_t> traces{ 0 };
	Process owner;
	owner.rng.seed(seed);
	owner.open();
	owner.set(MOX_PACKET_ADD_RULE, Bytes{ 16, 0, 0, 0, 0, 0 }); // every frame
	owner.set(PACKET_TREATMENT, PACKET_COPY);
	owner.set(PACKET_LOCATION, PACKET_LEV2_LOC);
	threads::records() = 0;
	threads::stamps() = 0;
	start_cpu(0);
	start_cpu(1);
	for (int p = 0; p < 3; p++)
		all.emplace_back([this, p, &owner] {
			Process process;
			process.socket = owner.socket;
			process.rng.seed(seed + 700 + p);
			while (!stop) {
				process.stamp();
				operations++;
				// So that frames come and go while it is on, or off.
				std::this_thread::sleep_for(std::chrono::microseconds(300));
			}
		});
	all.emplace_back([this] {
		Process process;
		process.rng.seed(seed + 800);
		while (!stop) {
			process.open();
			for (int i = 0; i < 20; i++, operations++) {
				process.operate();
				process.stamp();
			}
			process.close();
		}
	});
	// More readers than there may be traces.
	for (u32 reader = 1; reader <= MOX_CAPTURE_TRACES + 1; reader++)
		all.emplace_back([&, reader] {
			std::mt19937 rng(seed + 900 + reader);
			while (!stop) {
				const seam_request request{ &threads::init_net(), reader, 1, 0,
							    nullptr };
				traces += mox_capture_do(MOX_CAPTURE_CMD_TRACE_START, nullptr, 0,
							 &request) == 0;
				if (rng() % 2)
					sched_yield();
				if (rng() % 2)
					mox_capture_client_gone(reader);
				else
					mox_capture_do(MOX_CAPTURE_CMD_TRACE_STOP, nullptr, 0,
						       &request);
			}
			mox_capture_client_gone(reader);
		});
	// A busy machine delivers few frames, and times come and go meanwhile.
	for (int i = 0; i < 600 && threads::stamps() <= 10; i++)
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
	run_for();
	owner.close();
	EXPECT_GT(injected, 100u);
	EXPECT_GT(operations, 100u);
	EXPECT_GT(traces, 100u);
	EXPECT_GT(threads::records(), 10);
	EXPECT_GT(threads::stamps(), 10);
	// Each need has been given back.
	EXPECT_FALSE(tracer_on());
	for (int cpu = 0; cpu < seam_nr_cpu_ids(); cpu++)
		EXPECT_FALSE(arrivals_needed(seam_hook_cpu(cpu))) << cpu;
}

// Every frame that a hook took or copied must come out, without a further one to
// push it: what is queued when traffic ends is delivered.
TEST_F(Torture, no_frame_waits_for_the_next_one)
{
	Process process;
	process.rng.seed(seed);
	process.socket.type = 3;
	ASSERT_EQ(mox_packet_create(&threads::init_net(), &process.socket, 0, 0), 0);
	process.set(11, Bytes{ 16, 0, 0, 0, 0, 0 });
	process.set(PACKET_TREATMENT, PACKET_FETCH);
	process.set(PACKET_LOCATION, PACKET_LEV2_LOC);
	sock *sk = process.socket.sk;
	sk->rcvbuf = 1 << 30;
	auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds());
	u32 sent = 0;
	threads::become_cpu(0);
	while (std::chrono::steady_clock::now() < end && !HasFailure()) {
		for (u32 burst = 1 + sent % 3; burst; burst--, sent++)
			threads::inject(PACKET_LEV2_LOC, frame);
		auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
		while (seam_rcvq_len(sk) != sent) {
			if (std::chrono::steady_clock::now() > limit) {
				ADD_FAILURE() << "a frame was left behind, at " << sent;
				break;
			}
			std::this_thread::yield();
		}
	}
	process.close();
	EXPECT_GT(sent, 10u);
}

// Loading and unloading under traffic: hooks run while the module goes.
TEST_F(Torture, unload_while_hooks_run)
{
	start_cpu(0);
	start_cpu(1);
	auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds());
	int rounds = 0;
	Process process;
	process.rng.seed(seed);
	while (std::chrono::steady_clock::now() < end) {
		process.open();
		process.set(11, Bytes{ 16, 0, 0, 0, 0, 0 });
		process.set(PACKET_TREATMENT, PACKET_COPY);
		for (u32 location : { 2u, 3u, 7u, 8u, 1u }) {
			process.set(PACKET_LOCATION, location);
			std::this_thread::yield();
		}
		process.close();
		mox_packet_exit();
		ASSERT_EQ(mox_packet_init(), 0);
		rounds++;
	}
	run_for();
	EXPECT_GT(rounds, 2);
}

} // namespace
