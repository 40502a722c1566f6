// SPDX-License-Identifier: GPL-2.0-only
// What is charged to a socket for its rule, and when a charge is refused.
#include "rules/budget.hpp"
#include "socket_fixture.h"

namespace {

constexpr u64 kMiB = 1 << 20;

class Budget : public SocketTest {
protected:
	void SetUp() override
	{
		SocketTest::SetUp();
		set_memory(64 * kMiB); // 2 MiB a socket, 4 without the capability, 8 in all
	}
	void TearDown() override
	{
		EXPECT_EQ(g_packet_rule_bytes, 0u) << "bytes of closed sockets";
		EXPECT_EQ(g_packet_rule_work, 0u) << "work of closed sockets";
		g_packet_rule_refused = 0;
		kernel().total_memory = fake::Kernel::kTotalMemory;
		budget_init();
		SocketTest::TearDown();
	}
	static void set_memory(u64 bytes)
	{
		kernel().total_memory = bytes;
		budget_init();
	}
	// So many different values of two bytes, from the first on.
	static Bytes ports(u32 count, u32 first = 0)
	{
		Bytes out;
		for (u32 n = first; n < first + count; n++)
			out.insert(out.end(), { u8(n), u8(n >> 8) });
		return out;
	}
	// What the records of a rule take when it is filed: as the caches count them.
	static u64 live_bytes()
	{
		u64 items = 0, datas = 0;
		for (u32 type = 0; type < contract::kTypes; type++) {
			items += g_regular_item_stats[type];
			datas += g_regular_data_stats[type];
		}
		return items * sizeof(regular_item) + datas * sizeof(regular_data) +
		       g_regular_data_stats[contract::kLiveEntries] * sizeof(filter_list_data) +
		       g_regular_data_stats[contract::kLiveCopies] * sizeof(packet_regular);
	}
};

// The charge is never less than what filing takes, whichever item is the key, and not much more
// when the first one is.
TEST_F(Budget, charge__covers_what_filing_takes)
{
	struct {
		u32 first, count, second, others;
	} const rows[] = {
		{ PACKET_IPv4_DEST_PORT_EQUAL, 1, 0, 0 },
		{ PACKET_IPv4_DEST_PORT_EQUAL, 2000, 0, 0 },
		{ PACKET_IPv4_DEST_PORT_EQUAL, 50, PACKET_ETH_PROT_EQUAL, 40 },
		{ PACKET_IPv4_DEST_PORT_EQUAL, 1, PACKET_ETH_PROT_EQUAL, 500 },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.count);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		ASSERT_EQ(s.add(row.first, row.count, ports(row.count)), 0);
		if (row.others) {
			ASSERT_EQ(s.add(row.second, row.others, ports(row.others)), 0);
		}
		u32 charged = s.po().rule_bytes;
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		EXPECT_GE(charged, live_bytes());
		EXPECT_EQ(s.po().rule_bytes, charged) << "filing costs nothing";
		EXPECT_EQ(g_packet_rule_bytes, charged);
		// The other item may be the key once the first one is deleted.
		ASSERT_EQ(s.del(row.first, row.count, ports(row.count)), 0);
		EXPECT_LE(live_bytes(), s.po().rule_bytes);
		EXPECT_LE(s.po().rule_bytes, charged);
	}
	EXPECT_EQ(g_packet_rule_refused, 0u);
}

TEST_F(Budget, product__is_refused_and_the_rule_stays_in_its_library)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 200, ports(200)), 0);
	const Items before = items(s);
	const u32 charged = s.po().rule_bytes;
	mox_packet_debug[0] = 1;
	kernel().log.clear();
	EXPECT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 200, ports(200)), -12);
	EXPECT_EQ(kernel().count_said("MOX-PACKET-RULE-BUDGET: process captured pid 4711: "), 1u);
	EXPECT_EQ(kernel().log.size(), 1u) << "not even withdrawn";
	EXPECT_EQ(items(s), before);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.po().rule_bytes, charged);
	EXPECT_EQ(g_packet_rule_refused, 1u);
	// Also while the rule is in no library.
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_NONE_LOC), 0);
	EXPECT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 200, ports(200)), -12);
	EXPECT_EQ(g_packet_rule_refused, 2u);
	// What fits is still accepted.
	EXPECT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 2, ports(2)), 0);
}

// What a rule holds already is not charged again, however often it is added.
TEST_F(Budget, values_that_are_there__cost_nothing)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	u32 count = 4000;
	ASSERT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, count, ports(count)), 0);
	const u32 charged = s.po().rule_bytes;
	// Twice as many would not fit.
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 8000, ports(8000, 4000)), -12);
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, count, ports(count)), 0);
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, count, ports(count)), 0);
	// The same value 65,535 times is one.
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 65535, Bytes(2 * 65535, 0)), 0);
	EXPECT_EQ(s.po().rule_bytes, charged);
	EXPECT_EQ(g_packet_rule_bytes, charged);
}

TEST_F(Budget, item_without_a_value_that_is_there__costs_nothing)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_IPv4_MCAST_TRAFFIC, 1), 0);
	// As many conditions as fit: one more key, with a copy of them, would not.
	constexpr u32 kMore = 100;
	u32 count = 0;
	const auto pids = [&count] {
		Bytes out;
		for (u32 n = count; n < count + kMore; n++)
			out = out + u32_bytes(n);
		return out;
	};
	while (s.add(PACKET_PID_T, kMore, pids()) == 0)
		count += kMore;
	ASSERT_GT(count, 10 * kMore);
	const u32 charged = s.po().rule_bytes, refused = g_packet_rule_refused;
	EXPECT_EQ(s.add(PACKET_IPv4_MCAST_TRAFFIC, 1), 0);
	EXPECT_EQ(s.add(PACKET_IPv4_MCAST_TRAFFIC, 7), 0);
	EXPECT_EQ(s.po().rule_bytes, charged);
	EXPECT_EQ(g_packet_rule_refused, refused);
}

TEST_F(Budget, deletion_and_close__give_back)
{
	Sock s, other;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(other.create(kRaw, 0x0806), 0);
	const u32 one = other.po().rule_bytes;
	EXPECT_GT(one, 0u) << "the value of the protocol";
	ASSERT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 100, ports(100)), 0);
	const u32 all = s.po().rule_bytes;
	ASSERT_EQ(s.del(PACKET_IPv4_DEST_PORT_EQUAL, 99, ports(99)), 0);
	EXPECT_EQ(s.po().rule_bytes, one);
	ASSERT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 99, ports(99)), 0);
	EXPECT_EQ(s.po().rule_bytes, all);
	ASSERT_EQ(s.del(PACKET_IPv4_DEST_PORT_EQUAL, 100, ports(100)), 0);
	EXPECT_EQ(s.po().rule_bytes, 0u);
	EXPECT_EQ(g_packet_rule_bytes, one);
	s.release();
	other.release();
	EXPECT_EQ(g_packet_rule_bytes, 0u);
}

// A bind adds a value as well, and a socket may begin with one.
TEST_F(Budget, bind_and_create__are_charged)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.bind(7, 0x0806), 0);
	EXPECT_GT(s.po().rule_bytes, 0u);
	const u32 charged = s.po().rule_bytes;
	ASSERT_EQ(s.bind(7, 0x0806), 0);
	EXPECT_EQ(s.po().rule_bytes, charged);
	set_memory(1024);
	EXPECT_EQ(s.bind(7, 0x0008), -12);
	EXPECT_EQ(s.po().protocol, 0x0806) << "unchanged";
	EXPECT_EQ(s.po().rule_bytes, charged);
	EXPECT_EQ(s.bind(7, 0x0806), 0) << "nothing new";
	Sock late;
	EXPECT_EQ(late.create(kRaw, 0x0806), -12);
	EXPECT_EQ(g_packet_rule_refused, 2u);
}

// The last half of what all sockets may take is for holders of CAP_NET_ADMIN.
TEST_F(Budget, all_sockets__half_for_those_with_the_capability)
{
	std::vector<std::unique_ptr<Sock>> socks;
	auto fill = [&] {
		u32 filled = 0;
		for (;; filled++) {
			auto s = std::make_unique<Sock>();
			EXPECT_EQ(s->create(), 0);
			int result = s->add(PACKET_IPv4_DEST_PORT_EQUAL, 4000, ports(4000));
			if (result) {
				EXPECT_EQ(result, -12);
				return filled;
			}
			socks.push_back(std::move(s));
		}
	};
	kernel().net_admin = false;
	const u32 ordinary = fill();
	EXPECT_GT(ordinary, 1u);
	EXPECT_LE(g_packet_rule_bytes, 4 * kMiB);
	EXPECT_GT(g_packet_rule_bytes, 2 * kMiB);
	kernel().net_admin = true;
	EXPECT_GE(fill(), ordinary);
	EXPECT_LE(g_packet_rule_bytes, 8 * kMiB);
	EXPECT_GT(g_packet_rule_bytes, 6 * kMiB);
	EXPECT_EQ(g_packet_rule_refused, 2u);
	socks.clear();
	kernel().net_admin = false;
	EXPECT_EQ(fill(), ordinary) << "everything is back";
}

// A failed allocation in the middle: what was added stays, and only that is charged.
TEST_F(Budget, no_memory__leaves_the_charge_of_what_is_there)
{
	Sock s, want;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(want.create(), 0);
	u32 taken = 0;
	kernel().fault = [&](Fail call) { return call == Fail::kDataAlloc && ++taken == 11; };
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 20, ports(20)), -12);
	kernel().fault = nullptr;
	ASSERT_EQ(want.add(PACKET_IPv4_DEST_PORT_EQUAL, 10, ports(10)), 0);
	EXPECT_EQ(s.po().rule_bytes, want.po().rule_bytes);
	EXPECT_EQ(g_packet_rule_refused, 0u);
}

// What a rule is charged as work. One condition is looked up, and costs other frames nothing.
TEST_F(Budget, work__of_each_kind_of_rule)
{
	constexpr u32 kCandidate = 24, kDigest = 10, kCondition = 32, kLevel = 12;
	struct {
		const char *name;
		u32 first, first_count, second, second_count;
		u32 work;
	} const rows[] = {
		{ "one value", PACKET_IPv4_DEST_PORT_EQUAL, 1, 0, 0, 0 },
		{ "values of one type", PACKET_IPv4_DEST_PORT_EQUAL, 2000, 0, 0, 0 },
		{ "two conditions", PACKET_IPv4_DEST_PORT_EQUAL, 1, PACKET_ETH_PROT_EQUAL, 1,
		  kCandidate + 2 * kDigest },
		{ "a condition of two values", PACKET_PID_T, 4, PACKET_ETH_PROT_EQUAL, 1,
		  kCandidate + 2 * kCondition + 2 * kLevel },
		{ "a key of two values", PACKET_IPv4_DEST_PORT_EQUAL, 2, PACKET_ETH_PROT_EQUAL, 1,
		  2 * (kCandidate + 2 * kCondition + kLevel) },
		{ "a key of many values", PACKET_IPv4_DEST_PORT_EQUAL, 64, PACKET_ETH_PROT_EQUAL, 1,
		  2 * (kCandidate + 2 * kCondition + 6 * kLevel) },
		{ "a key that passes for other frames", PACKET_ICMPV6_TYPE_EQUAL, 1,
		  PACKET_ETH_PROT_EQUAL, 1, kCandidate + 2 * kCondition },
		{ "any SNAP type", PACKET_SNAP_ETH_TYPE_EQUAL, 1, PACKET_ETH_PROT_EQUAL, 1,
		  kCandidate + 2 * kCondition },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.name);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		const u32 width = contract::width(row.first);
		Bytes values = ports(row.first_count * (width > 2 ? width / 2 : 1));
		values.resize(row.first_count * width);
		ASSERT_EQ(s.add(row.first, row.first_count, values), 0);
		if (row.second_count) {
			ASSERT_EQ(s.add(row.second, row.second_count, ports(row.second_count)), 0);
		}
		EXPECT_EQ(s.po().rule_work, row.work);
		EXPECT_EQ(g_packet_rule_work, row.work);
		// Values that go give their work back.
		ASSERT_EQ(s.del(row.first, row.first_count, values), 0);
		EXPECT_EQ(s.po().rule_work, 0u);
		EXPECT_EQ(g_packet_rule_work, 0u);
	}
	EXPECT_EQ(g_packet_rule_refused, 0u);
}

// Rules of several conditions, until their work is that of the longest frame.
TEST_F(Budget, work__has_a_limit_and_half_of_it_takes_the_capability)
{
	std::vector<std::unique_ptr<Sock>> socks;
	auto fill = [&] {
		for (u32 filled = 0;; filled++) {
			auto s = std::make_unique<Sock>();
			EXPECT_EQ(s->create(), 0);
			EXPECT_EQ(s->add(PACKET_IPv4_DEST_PORT_EQUAL, 1, ports(1, filled)), 0)
				<< "one condition has no limit";
			EXPECT_EQ(s->set(PACKET_TREATMENT, PACKET_COPY), 0);
			EXPECT_EQ(s->set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
			const Items before = items(*s);
			if (int result = s->add(PACKET_ETH_PROT_EQUAL, 1, ports(1))) {
				EXPECT_EQ(result, -12);
				EXPECT_EQ(items(*s), before);
				EXPECT_TRUE(s->running()) << "the rule stays in its library";
				return filled;
			}
			socks.push_back(std::move(s));
		}
	};
	kernel().total_memory = 4096 * kMiB;
	budget_init(44 * 20);
	kernel().net_admin = false;
	EXPECT_EQ(fill(), 10u);
	kernel().net_admin = true;
	EXPECT_EQ(fill(), 10u);
	EXPECT_EQ(g_packet_rule_work, 44u * 20);
	EXPECT_EQ(g_packet_rule_refused, 2u);
	mox_packet_debug[0] = 1;
	kernel().log.clear();
	EXPECT_EQ(fill(), 0u);
	EXPECT_EQ(kernel().count_said("work 44, limit 880, all 880"), 1u);
	// Bytes of what was refused for its work are not charged.
	u32 bytes = 0;
	for (auto &s : socks)
		bytes += s->po().rule_bytes;
	EXPECT_EQ(g_packet_rule_bytes, bytes);
	socks.pop_back();
	EXPECT_EQ(fill(), 1u);
}

// What takes nothing of a budget is accepted, even if others have more than their half of it.
TEST_F(Budget, nothing_more__is_never_refused)
{
	budget_init(44);
	Sock two, one;
	ASSERT_EQ(two.create(), 0);
	ASSERT_EQ(two.add(PACKET_IPv4_DEST_PORT_EQUAL, 1, ports(1)), 0);
	ASSERT_EQ(two.add(PACKET_ETH_PROT_EQUAL, 1, ports(1)), 0);
	kernel().net_admin = false;
	ASSERT_EQ(one.create(), 0);
	EXPECT_EQ(one.add(PACKET_IPv4_DEST_PORT_EQUAL, 1, ports(1)), 0);
	EXPECT_EQ(one.add(PACKET_IPv4_DEST_PORT_EQUAL, 5, ports(5)), 0);
	EXPECT_EQ(one.add(PACKET_ETH_PROT_EQUAL, 1, ports(1)), -12);
	EXPECT_EQ(g_packet_rule_refused, 1u);
	kernel().net_admin = true;
}

} // namespace
