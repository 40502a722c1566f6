// SPDX-License-Identifier: GPL-2.0-only
#include "module_fixture.h"

#include <algorithm>

#include "packet/filter.hpp"

using namespace mox;

Sock::~Sock()
{
	if (sk)
		release();
}

int Sock::create(int type, int protocol, ::net *ns)
{
	socket = ::socket{};
	socket.type = type;
	int result = mox_packet_create(ns, &socket, protocol, 0);
	sk = socket.sk;
	if (result)
		EXPECT_EQ(sk, nullptr) << "a failed create leaves its sk";
	return result;
}

int Sock::release()
{
	int result = mox_packet_release(&socket);
	EXPECT_EQ(socket.sk, nullptr);
	sk = nullptr;
	return result;
}

int Sock::setsockopt(int option, const Bytes &value, int level, int len, size_t fault_at)
{
	fake::UserBuf buf(value);
	buf.fault_at = fault_at;
	seam_uptr at{ &buf };
	return mox_packet_setsockopt(&socket, level, option, &at, len < 0 ? value.size() : len);
}

int Sock::set(int option, u32 value)
{
	return setsockopt(option, u32_bytes(value));
}

int Sock::rule(bool add, u16 type, u16 count, const Bytes &elements, int size)
{
	u16 stated = size >= 0 ? size : count ? elements.size() / count : 0;
	Bytes record(6);
	memcpy(&record[0], &type, 2);
	memcpy(&record[2], &stated, 2);
	memcpy(&record[4], &count, 2);
	record.insert(record.end(), elements.begin(), elements.end());
	return setsockopt(add ? MOX_PACKET_ADD_RULE : MOX_PACKET_DEL_RULE, record);
}

int Sock::bind(u32 ifindex, u16 protocol, u16 family, int len)
{
	Bytes addr(32, 0x77);
	memcpy(&addr[0], &family, 2);
	memcpy(&addr[2], &protocol, 2);
	memcpy(&addr[4], &ifindex, 4);
	return mox_packet_bind(&socket, reinterpret_cast<sockaddr *>(addr.data()), len);
}

Sock &Sock::capture(u32 location, u32 treatment, int type)
{
	EXPECT_EQ(create(type), 0);
	EXPECT_EQ(add(PACKET_ALL), 0);
	EXPECT_EQ(set(PACKET_TREATMENT, treatment), 0);
	EXPECT_EQ(set(PACKET_LOCATION, location), 0);
	return *this;
}

HookTraits::HookTraits(contract::HookId id, u32 location, u32 (*func)(void))
	: location(location), func(func), taken(contract::kHooks[id].taken),
	  go_on(contract::kHooks[id].go_on), queue(contract::kLocations[location].queue),
	  lib(lib_of(location)), name(contract::location_name(location))
{
}

const HookTraits kHooks[contract::kHookIds] = {
	{ contract::kLocalHook, 1, mox_packet_local_rcv },
	{ contract::kLev2Hook, 2, mox_packet_lev2_rcv },
	{ contract::kIpv4Hook, 3, mox_packet_ipv4_rcv },
	{ contract::kIpv6Hook, 4, mox_packet_ipv6_rcv },
	{ contract::kMplsHook, 5, mox_packet_mpls_rcv },
	{ contract::kTrillHook, 6, mox_packet_trill_rcv },
	{ contract::kResvHook, 7, mox_packet_resv_rcv },
	{ contract::kWlanInHook, 8, mox_packet_wlan_in_rcv },
	{ contract::kWlanOutHook, 8, mox_packet_wlan_out_rcv },
};

void ModuleTest::SetUp()
{
	KernelTest::SetUp();
	memset(g_regular_data_stats, 0, sizeof g_regular_data_stats);
	memset(g_regular_item_stats, 0, sizeof g_regular_item_stats);
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	memset(&g_pktd_kdbg_filter, 0, sizeof g_pktd_kdbg_filter);
	g_packet_regular_data_alloc = g_packet_regular_data_free = 0;
	g_alloc_skb_num = g_free_skb_num = 0;
	g_packet_thread_debug = {};
	ASSERT_EQ(mox_packet_init(), 0);
	kernel().journal.clear();
	kernel().log.clear();
	const u8 mac[6] = { 2, 0, 0, 0, 0, 9 };
	port = fake::word(efmp().add_interface(7, "eth7", mac));
	efmp().add_interface(4094, "lev2", mac);
	efmp().add_interface(4095, "lev3", mac);
}

void ModuleTest::TearDown()
{
	kernel().at.clear();
	for (u32 location = 1; location <= 8; location++) {
		verify(lib_of(location));
		EXPECT_EQ(lib_of(location)->regular_count, 0u)
			<< "rules left at location " << location;
		EXPECT_EQ(lib_of(location)->filter_count, 0u)
			<< "keys left at location " << location;
	}
	oracle::Counters left = counters();
	left.data_failures = left.item_failures = 0;
	EXPECT_EQ(left, oracle::Counters{}) << "rule memory left";
	EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
	mox_packet_exit();
	KernelTest::TearDown();
}

u32 ModuleTest::hook(u32 (*func)(void), void *efbuff, int cpu)
{
	auto *known = std::find_if(std::begin(kHooks), std::end(kHooks),
				   [&](auto &h) { return h.func == func; });
	return efmp().call(func, efbuff, known->taken, cpu);
}

void ModuleTest::drain()
{
	kernel().run_thread();
}

u32 ModuleTest::frame(u32 location, const packets::Meta &meta, const Bytes &bytes)
{
	packets::Meta m = meta;
	if (!m.source)
		m.source = port;
	void *e = packets::make(m, bytes);
	u32 answer = hook(kHooks[location - 1].func, e);
	drain();
	if (efmp().live.count(fake::word(e)))
		efmp().drop(e);
	return answer;
}

std::string ModuleTest::tagged(const std::string &line)
{
	return "[MOX-PACKET(" + std::to_string(kernel().cpu) + ")]: " + line;
}
