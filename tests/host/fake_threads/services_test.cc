// SPDX-License-Identifier: GPL-2.0-only
// Two CPUs send datagrams and two run hooks while others publish, replace and withdraw
// the services that both use. What a reader has taken it calls, whatever comes then.
//
// SECONDS=n is the length of each test.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "backend.h"
#include "oracle/frames.h"
#include "platform.h"
#include "services/services.hpp"
#include "base/socket_record.hpp"
#include "socket/address.hpp"
#include "socket/dump.hpp"
#include "socket/family.hpp"
#include "receive/deliver.hpp"
#include "receive/thread.hpp"

using namespace mox;

namespace {

using oracle::Bytes;
using oracle::operator+;

double seconds()
{
	return getenv("SECONDS") ? atof(getenv("SECONDS")) : 1.5;
}

// Two implementations of each service, distinct in what they answer.
std::atomic<long> g_mac_calls[2], g_mixed, g_drop_calls[2], g_wlan_drop_calls[2];

template <int which> int local_mac(u32 unit, u8 mac[6])
{
	g_mac_calls[which]++;
	memset(mac, which ? 0xbb : 0xaa, 6);
	return unit != 0;
}
template <int which> int drop(void *)
{
	return g_drop_calls[which]++ % 2;
}
template <int which> int wlan_drop(void *)
{
	return g_wlan_drop_calls[which]++ % 2;
}

// A frame has its source from one service or from the other.
void look(const uint8_t *efbuff)
{
	const uint8_t *frame = efbuff + *reinterpret_cast<const uint16_t *>(efbuff + 22);
	for (int i = 7; i < 12; i++)
		g_mixed += frame[i] != frame[6];
	g_mixed += frame[6] != 0xaa && frame[6] != 0xbb;
}

struct Service {
	u32 service_class, instance;
	void *entries[2];
};
const Service kServices[] = {
	{ 11,
	  10,
	  { reinterpret_cast<void *>(local_mac<0>), reinterpret_cast<void *>(local_mac<1>) } },
	{ 32, 0, { reinterpret_cast<void *>(drop<0>), reinterpret_cast<void *>(drop<1>) } },
	{ 32,
	  3,
	  { reinterpret_cast<void *>(wlan_drop<0>), reinterpret_cast<void *>(wlan_drop<1>) } },
};

class Services : public testing::Test {
protected:
	void SetUp() override
	{
		g_mixed = 0;
		for (auto *calls : { g_mac_calls, g_drop_calls, g_wlan_drop_calls })
			calls[0] = calls[1] = 0;
		threads::sent() = 0;
		threads::output_looks = look;
		oracle::Meta m;
		m.source = threads::interface_word();
		frame = oracle::efbuff(m, oracle::eth(0x0800) + Bytes(46, 0));
		frame.resize(1024);
		ASSERT_EQ(mox_packet_init(), 0);
		ASSERT_NE(threads::change_handler(), nullptr);
	}
	void TearDown() override
	{
		run_out();
		mox_packet_exit();
		threads::output_looks = nullptr;
		EXPECT_EQ(threads::change_handler(), nullptr);
		EXPECT_EQ(threads::live().socks, 0) << "sockets";
		EXPECT_EQ(threads::live().efbuffs, 0) << "efbuffs";
		EXPECT_EQ(threads::live().blocks, 0) << "blocks";
	}
	void run_out()
	{
		stop = true;
		for (std::thread &t : all)
			t.join();
		all.clear();
	}
	void run_for()
	{
		std::this_thread::sleep_for(std::chrono::duration<double>(seconds()));
		run_out();
	}

	// Announces changes of one service until the end: one, the other in its place, none.
	void start_changes(const Service &service)
	{
		all.emplace_back([this, &service] {
			for (u32 i = 0; !stop; i++) {
				const u32 event = i % 3 == 2;
				platform::service_record record{ service.entries[i % 3 == 1],
								 service.service_class,
								 service.instance };
				threads::change_handler()(event, &record);
				changes++;
				if (i % 64 == 0)
					std::this_thread::yield();
			}
		});
	}
	static void capture(::socket &socket, u32 location)
	{
		socket.type = 3;
		ASSERT_EQ(mox_packet_create(&threads::init_net(), &socket, 0, 0), 0);
		const u32 treatment = PACKET_FETCH;
		const Bytes everything{ 16, 0, 0, 0, 0, 0 };
		seam_uptr at{ everything.data() };
		ASSERT_EQ(mox_packet_setsockopt(&socket, 263, MOX_PACKET_ADD_RULE, &at, 6), 0);
		at.from = &treatment;
		ASSERT_EQ(mox_packet_setsockopt(&socket, 263, PACKET_TREATMENT, &at, 4), 0);
		at.from = &location;
		ASSERT_EQ(mox_packet_setsockopt(&socket, 263, PACKET_LOCATION, &at, 4), 0);
	}
	// A CPU whose hooks take every frame, unless a service has it dropped.
	void start_hooks(int cpu, u32 location)
	{
		all.emplace_back([this, cpu, location] {
			threads::become_cpu(cpu);
			while (!stop)
				threads::inject(location, frame);
		});
	}
	// A process on a CPU that sends datagrams; odd lengths fail in the middle.
	void start_sender(int cpu, ::socket &socket)
	{
		all.emplace_back([this, cpu, &socket] {
			threads::become_cpu(cpu);
			u8 name[20] = {
				17, 0, 0x88, 0xcc, 7, 0, 0, 0, 0, 0, 0, 6, 1, 2, 3, 4, 5, 6
			};
			mox_packet_ctrl_info record{};
			record.pkt_ifx = 7;
			msghdr msg;
			msg.name = name;
			msg.namelen = sizeof name;
			msg.control = &record;
			msg.controllen = sizeof record;
			msg.out.resize(60);
			for (u32 i = 0; !stop; i++) {
				const int result = mox_packet_sendmsg(&socket, &msg,
								      i % 8 == 7 ? 61 : 60);
				if (result == 60)
					succeeded++;
				else if (result == -22)
					without_mac++;
				else if (result == -14 && i % 8 == 7)
					faulted++;
				else
					others++;
			}
		});
	}

	Bytes frame;
	std::atomic<bool> stop{ false };
	std::atomic<long> changes{ 0 }, succeeded{ 0 }, without_mac{ 0 }, faulted{ 0 }, others{ 0 };
	std::vector<std::thread> all;
};

TEST_F(Services, change_while_two_cpus_send_and_two_run_hooks)
{
	::socket taps[2], senders[2];
	capture(taps[0], PACKET_LEV2_LOC);
	capture(taps[1], PACKET_WLAN_LOC);
	for (int cpu = 0; cpu < 2; cpu++) {
		senders[cpu].type = 2;
		ASSERT_EQ(mox_packet_create(&threads::init_net(), &senders[cpu], 0, 0), 0);
		start_sender(cpu, senders[cpu]);
	}
	start_hooks(2, PACKET_LEV2_LOC);
	start_hooks(3, PACKET_WLAN_LOC);
	for (const Service &service : kServices)
		start_changes(service);
	run_for();

	EXPECT_GT(changes, 100);
	EXPECT_GT(succeeded, 100);
	EXPECT_GT(without_mac, 10);
	EXPECT_GT(faulted, 10);
	EXPECT_EQ(others, 0);
	EXPECT_EQ(threads::sent(), succeeded);
	EXPECT_EQ(g_mixed, 0);
	// Both implementations of every service have been called.
	for (int which : { 0, 1 }) {
		EXPECT_GT(g_mac_calls[which], 0);
		EXPECT_GT(g_drop_calls[which], 0);
		EXPECT_GT(g_wlan_drop_calls[which], 0);
	}
	EXPECT_EQ(g_mac_calls[0] + g_mac_calls[1], succeeded + faulted);
	// A socket of its own has exact counters.
	u32 sent = 0, refused = 0, copies = 0;
	for (::socket &socket : senders) {
		const auto &po = *reinterpret_cast<mox_packet_sock *>(socket.sk);
		sent += po.send_packets, refused += po.macfunc_ill_fails,
			copies += po.pkt_copy_fails;
		mox_packet_release(&socket);
	}
	EXPECT_EQ(sent, succeeded);
	EXPECT_EQ(refused, without_mac);
	EXPECT_EQ(copies, faulted);
	for (::socket &socket : taps)
		mox_packet_release(&socket);
}

// One socket for all: its counters may drift, its binding changes under the senders.
TEST_F(Services, change_while_a_shared_socket_sends_and_is_bound)
{
	::socket shared;
	shared.type = 2;
	ASSERT_EQ(mox_packet_create(&threads::init_net(), &shared, 0, 0), 0);
	start_sender(0, shared);
	start_sender(1, shared);
	start_changes(kServices[0]);
	all.emplace_back([this, &shared] {
		for (u32 i = 0; !stop; i++) {
			u8 addr[20] = { 17, 0, u8(i % 2 ? 8 : 0), 0, u8(i % 3 ? 7 : 0) };
			mox_packet_bind(&shared, reinterpret_cast<sockaddr *>(addr), 20);
			u32 out[2];
			int len = 8;
			mox_packet_getsockopt(&shared, 263, MOX_PACKET_STATISTICS,
					      reinterpret_cast<char *>(out), &len);
		}
	});
	run_for();
	EXPECT_GT(succeeded, 100);
	EXPECT_GT(without_mac, 10);
	EXPECT_EQ(others, 0);
	EXPECT_EQ(threads::sent(), succeeded);
	EXPECT_EQ(g_mixed, 0);
	mox_packet_release(&shared);
}

} // namespace
