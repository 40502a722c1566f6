// SPDX-License-Identifier: GPL-2.0-only
// All sockets in the order of their opening, a few at a time, while others come and go.
#include "module_fixture.h"
#include "socket/registry.hpp"

namespace {

class Registry : public ModuleTest {
protected:
	using Seen = std::vector<mox_packet_sock *>;

	// One visit of at most so many.
	static bool visit(RegistryPlace *place, u32 most, Seen *seen)
	{
		return registry_visit(
			place, most,
			[](void *context, mox_packet_sock *po) {
				static_cast<Seen *>(context)->push_back(po);
				return true;
			},
			seen);
	}
	static Seen all(u32 most)
	{
		Seen seen;
		RegistryPlace place;
		for (int calls = 0; calls < 1000 && !visit(&place, most, &seen);)
			calls++;
		return seen;
	}
	static Seen of(std::deque<Sock> &socks)
	{
		Seen list;
		for (Sock &s : socks)
			list.push_back(&s.po());
		return list;
	}
};

TEST_F(Registry, visit__each_socket_once_in_order_whatever_the_portion)
{
	EXPECT_EQ(all(1), Seen());
	std::deque<Sock> socks(7);
	::net other;
	other.name = "other";
	other.list_ready = true;
	fake::Kernel::init_lock(&other.lock, fake::LockKind::kNsMutex);
	for (size_t i = 0; i < socks.size(); i++)
		ASSERT_EQ(socks[i].create(kRaw, 0, i == 3 ? &other : &fake::init_net()), 0);
	EXPECT_EQ(registry_size(), 7u);
	for (u32 most : { 1u, 2u, 3u, 7u, 8u, 100u })
		EXPECT_EQ(all(most), of(socks)) << most;
	socks.clear();
	EXPECT_EQ(registry_size(), 0u);
	EXPECT_EQ(all(1), Seen());
}

TEST_F(Registry, visit__a_refused_socket_comes_again)
{
	std::deque<Sock> socks(3);
	for (Sock &s : socks)
		ASSERT_EQ(s.create(), 0);
	RegistryPlace place;
	u32 left = 2;
	const auto few = [](void *context, mox_packet_sock *) {
		auto *room = static_cast<u32 *>(context);
		return *room != 0 && (*room)-- != 0;
	};
	EXPECT_FALSE(registry_visit(&place, 100, few, &left));
	Seen seen;
	EXPECT_TRUE(visit(&place, 100, &seen));
	EXPECT_EQ(seen, Seen({ &socks[2].po() }));
}

// Those that stay are seen once, whatever leaves and comes between two portions.
TEST_F(Registry, visit__sockets_leave_and_come_meanwhile)
{
	std::minstd_rand random(7);
	for (int round = 0; round < 50; round++) {
		std::map<int, std::unique_ptr<Sock>> socks;
		std::map<int, mox_packet_sock *> stay;
		int number = 0;
		const auto open = [&] {
			auto s = std::make_unique<Sock>();
			ASSERT_EQ(s->create(), 0);
			socks[number++] = std::move(s);
		};
		for (int i = 0; i < 20; i++)
			open();
		for (auto &[id, s] : socks)
			if (random() % 2)
				stay[id] = &s->po();
		Seen seen;
		RegistryPlace place;
		u32 before = registry_changes();
		while (!visit(&place, 1 + random() % 3, &seen)) {
			EXPECT_EQ(registry_changes(), before);
			if (number < 100 && random() % 2)
				open();
			auto it = socks.lower_bound(random() % 20);
			if (it != socks.end() && !stay.count(it->first))
				socks.erase(it);
			before = registry_changes();
		}
		for (auto &[id, po] : stay)
			EXPECT_EQ(std::count(seen.begin(), seen.end(), po), 1) << id;
	}
}

TEST_F(Registry, changes__of_sockets_and_of_rules_and_never_0)
{
	Sock s;
	u32 last = registry_changes();
	const auto changed = [&] { return std::exchange(last, registry_changes()) != last; };
	ASSERT_EQ(s.create(), 0);
	EXPECT_TRUE(changed());
	const ::Bytes arp = { 8, 6 };
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, arp), 0);
	EXPECT_TRUE(changed());
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	EXPECT_TRUE(changed());
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	EXPECT_TRUE(changed());
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	EXPECT_FALSE(changed());
	ASSERT_EQ(s.release(), 0);
	EXPECT_TRUE(changed());
	EXPECT_FALSE(changed());
	EXPECT_NE(registry_changes(), 0u);
}

// A list that is written while a rule changes is of neither state: the number changes before and
// after.
TEST_F(Registry, changes__at_both_ends_of_a_rule_change)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const ::Bytes arp = { 8, 6 };
	const u32 before = registry_changes();
	u32 during = before;
	kernel().at[Point::kLock] = [&](const void *lock) {
		if (lock == &g_lev2_packet_regular_lib.lock)
			during = registry_changes();
	};
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, arp), 0);
	kernel().at.clear();
	EXPECT_NE(during, before);
	EXPECT_NE(registry_changes(), during);
	EXPECT_NE(registry_changes(), before);
}

TEST_F(Registry, serials__begin_with_1_at_init)
{
	for (int times = 0; times < 2; times++) {
		registry_init();
		std::deque<Sock> socks(3);
		for (u64 serial = 1; serial <= 3; serial++) {
			ASSERT_EQ(socks[serial - 1].create(), 0);
			EXPECT_EQ(socks[serial - 1].po().serial, serial);
		}
	}
}

} // namespace
