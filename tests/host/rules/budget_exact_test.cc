// SPDX-License-Identifier: GPL-2.0-only
// What is charged to the byte, and both sides of each limit.
#include "read_trap.h"
#include "rules/budget.hpp"
#include "socket_fixture.h"

namespace {

class Exact : public SocketTest {
protected:
	void TearDown() override
	{
		EXPECT_EQ(g_packet_rule_bytes, 0u) << "bytes of closed sockets";
		EXPECT_EQ(g_packet_rule_work, 0u) << "work of closed sockets";
		g_packet_rule_refused = 0;
		kernel().net_admin = true;
		kernel().total_memory = fake::Kernel::kTotalMemory;
		budget_init();
		SocketTest::TearDown();
	}
	// A socket's limit in bytes, which is half of what all may take without the capability and
	// a quarter of what all may take; and the work of all.
	static void limits(u64 bytes, u32 work)
	{
		kernel().total_memory = bytes * 32;
		budget_init(work);
	}
	static void add(Sock &s, u32 type, u32 count, u32 first = 0)
	{
		ASSERT_EQ(s.add(type, count, values(type, count, first)), 0);
	}
	static Bytes values(u32 type, u32 count, u32 first = 0)
	{
		const u32 width = contract::width(type);
		Bytes out(count * width);
		for (u32 n = 0; n < count && width; n++) {
			out[n * width] = static_cast<u8>(first + n);
			if (width > 1)
				out[n * width + 1] = static_cast<u8>((first + n) >> 8);
		}
		return out;
	}
};

// The records of the rule, and for each value of the key that takes most an entry and a copy.
TEST_F(Exact, bytes__of_each_kind_of_rule)
{
	using Conditions = std::vector<std::pair<u32, u32>>; // types and how many values of each
	const Conditions rows[] = {
		{ { contract::kV4DstPort, 1 } },
		{ { contract::kV4DstPort, 7 } },
		{ { contract::kCode, 3 } },
		{ { contract::kAll, 1 } },
		{ { contract::kPid, 3 } },
		{ { contract::kPid, 3 }, { contract::kAll, 1 } },
		{ { contract::kPid, 9 }, { contract::kEth, 2 } },
		{ { contract::kCode, 4 }, { contract::kEth, 2 } },
		{ { contract::kEth, 2 }, { contract::kV4DstPort, 5 } },
		{ { contract::kV4DstPort, 5 }, { contract::kEth, 2 } },
		{ { contract::kEth, 2 }, { contract::kV4DstPort, 2 }, { contract::kPid, 1 } },
	};
	// As the caches count them: a multiple of eight.
	const auto size = [](size_t bytes) { return (bytes + 7) / 8 * 8; };
	for (auto &row : rows) {
		u64 own = 0, filed = 0;
		const auto item = [&](u32 type, u32 count) {
			return size(sizeof(regular_item)) +
			       (contract::width(type) ? count : 0) * size(sizeof(regular_data));
		};
		for (auto [type, count] : row)
			own += item(type, count);
		for (auto [type, count] : row)
			if (contract::may_be_key(type))
				filed = std::max<u64>(filed,
						      (contract::width(type) ? count : 1) *
							      (size(sizeof(filter_list_data)) +
							       size(sizeof(packet_regular)) + own -
							       item(type, count)));
		Sock s;
		ASSERT_EQ(s.create(), 0);
		for (auto [type, count] : row)
			add(s, type, count);
		EXPECT_EQ(s.po().rule_bytes, own + filed)
			<< contract::kRuleTypes[row[0].first].name << " " << row[0].second;
		EXPECT_EQ(g_packet_rule_bytes, own + filed);
	}
}

// Conditions that the table of budget_test.cc lacks: the first type, and no value that is a key.
TEST_F(Exact, work__of_further_kinds_of_rule)
{
	constexpr u32 kCandidate = 24, kDigest = 10, kCondition = 32, kLevel = 12;
	const struct {
		u32 first, first_count, second, second_count, work;
	} rows[] = {
		{ contract::kCode, 1, contract::kEth, 1, kCandidate + 2 * kDigest },
		{ contract::kCode, 5, contract::kEth, 1,
		  2 * (kCandidate + 2 * kCondition + 3 * kLevel) },
		{ contract::kAll, 1, contract::kEth, 1, kCandidate + 2 * kDigest },
		{ contract::kPid, 1, contract::kEth, 1, kCandidate + 2 * kDigest },
		{ contract::kPid, 4, contract::kAll, 1, kCandidate + 2 * kCondition + 2 * kLevel },
	};
	for (auto &row : rows) {
		Sock s;
		ASSERT_EQ(s.create(), 0);
		add(s, row.first, row.first_count);
		EXPECT_EQ(s.po().rule_work, 0u);
		add(s, row.second, row.second_count);
		EXPECT_EQ(s.po().rule_work, row.work) << contract::kRuleTypes[row.first].name;
	}
}

TEST_F(Exact, limit__of_a_socket)
{
	Sock model;
	ASSERT_EQ(model.create(), 0);
	add(model, contract::kV4DstPort, 10);
	const u32 ten = model.po().rule_bytes;
	model.release();
	for (bool enough : { true, false }) {
		limits(enough ? ten : ten - 1, 1000);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		EXPECT_EQ(budget_state(BudgetOf::kBytes).socket, enough ? ten : ten - 1);
		EXPECT_EQ(budget_fits(&s.po(), contract::kV4DstPort, 10), enough);
		EXPECT_EQ(s.add(contract::kV4DstPort, 10, values(contract::kV4DstPort, 10)),
			  enough ? 0 : -12);
		EXPECT_EQ(s.po().rule_bytes, enough ? ten : 0u);
	}
}

// Only what a change takes more is charged: a socket may have all of the limit in two steps.
TEST_F(Exact, limit__of_a_change_is_for_what_it_takes_more)
{
	Sock model;
	ASSERT_EQ(model.create(), 0);
	add(model, contract::kV4DstPort, 10);
	add(model, contract::kV4DstPort, 1, 10);
	const u32 eleven = model.po().rule_bytes;
	model.release();
	limits(eleven, 1000);
	kernel().net_admin = false;
	Sock first, second;
	for (Sock *s : { &first, &second }) { // twice the limit of a socket is what all may take
		ASSERT_EQ(s->create(), 0);
		add(*s, contract::kV4DstPort, 10);
		add(*s, contract::kV4DstPort, 1, 10);
		EXPECT_EQ(s->po().rule_bytes, eleven);
	}
	EXPECT_EQ(g_packet_rule_bytes, 2 * eleven);
	EXPECT_EQ(g_packet_rule_refused, 0u);
}

// Work of sockets without the capability: what one has counts for it, what others have against it.
TEST_F(Exact, fits__beside_what_all_use)
{
	constexpr u32 kTwo = 44, kThree = 54; // of rules of two and of three conditions
	const struct {
		const char *name;
		u32 others, own;  // rules of two conditions; conditions of the socket's own
		u32 type;         // of the further value
		u32 unprivileged; // what all may use
		bool fits;
	} rows[] = {
		{ "all of it", 0, 1, contract::kEth, kTwo, true },
		{ "one too few", 0, 1, contract::kEth, kTwo - 1, false },
		{ "others have it", 1, 1, contract::kEth, kTwo, false },
		{ "beside others", 1, 1, contract::kEth, 2 * kTwo, true },
		{ "beside others, one too few", 1, 1, contract::kEth, 2 * kTwo - 1, false },
		{ "more of its own", 0, 2, contract::kIntf, kThree, true },
		{ "more of its own, one too few", 0, 2, contract::kIntf, kThree - 1, false },
		{ "more of its own beside others", 1, 2, contract::kIntf, kTwo + kThree, true },
		{ "more, one too few beside others", 1, 2, contract::kIntf, kTwo + kThree - 1,
		  false },
		{ "no work at all", 2, 0, contract::kEth, 0, true },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.name);
		limits(1 << 20, 1000);
		kernel().net_admin = true;
		std::deque<Sock> others(row.others);
		Sock s;
		for (Sock &other : others) {
			ASSERT_EQ(other.create(), 0);
			add(other, contract::kV4DstPort, 1);
			add(other, contract::kEth, 1);
		}
		ASSERT_EQ(s.create(), 0);
		if (row.own > 0)
			add(s, contract::kV4DstPort, 1);
		if (row.own > 1)
			add(s, contract::kEth, 1);
		limits(1 << 20, 2 * row.unprivileged);
		EXPECT_EQ(budget_fits(&s.po(), row.type, 1), row.fits);
		kernel().net_admin = false;
		EXPECT_EQ(s.add(row.type, 1, values(row.type, 1)), row.fits ? 0 : -12);
	}
}

// A change that takes no more fits, even where others have more than all may have.
TEST_F(Exact, fits__no_more_than_it_has)
{
	Sock s, other;
	for (Sock *sock : { &s, &other }) {
		ASSERT_EQ(sock->create(), 0);
		add(*sock, contract::kV4DstPort, 1);
		add(*sock, contract::kEth, 1);
	}
	limits(1 << 20, 2 * 44);
	EXPECT_TRUE(budget_fits(&s.po(), contract::kEth, 0));
	EXPECT_FALSE(budget_fits(&s.po(), contract::kIntf, 1));
}

// A bind is charged for the value that it adds, and for nothing when it adds none.
TEST_F(Exact, bind__is_charged_for_its_value)
{
	Sock model, s;
	ASSERT_EQ(model.create(), 0);
	add(model, contract::kEth, 1);
	const u32 one = model.po().rule_bytes;
	model.release();
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.bind(7, 0), 0);
	EXPECT_EQ(s.po().rule_bytes, 0u);
	limits(one - 1, 1000);
	EXPECT_EQ(s.bind(7, 0x0806), -12);
	limits(one, 1000);
	kernel().fail(Fail::kDataAlloc);
	EXPECT_EQ(s.bind(7, 0x0806), -12);
	EXPECT_EQ(s.po().rule_bytes, 0u) << "given back, as nothing was added";
	EXPECT_EQ(g_packet_rule_bytes, 0u);
	ASSERT_EQ(s.bind(7, 0x0806), 0);
	EXPECT_EQ(s.po().rule_bytes, one);
}

TEST_F(Exact, create__that_fails_gives_back)
{
	Sock s;
	kernel().fail(Fail::kDataAlloc);
	EXPECT_EQ(s.create(kRaw, 0x0806), -12);
	EXPECT_EQ(g_packet_rule_bytes, 0u);
}

TEST_F(Exact, release__gives_back_once)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	add(s, contract::kV4DstPort, 3);
	add(s, contract::kEth, 1);
	ASSERT_NE(g_packet_rule_bytes, 0u);
	ASSERT_NE(g_packet_rule_work, 0u);
	for (int times = 0; times < 2; times++) {
		budget_release(&s.po());
		EXPECT_EQ(s.po().rule_bytes, 0u);
		EXPECT_EQ(s.po().rule_work, 0u);
		EXPECT_EQ(g_packet_rule_bytes, 0u);
		EXPECT_EQ(g_packet_rule_work, 0u);
	}
}

// Another CPU charges between the reading of what is used and the adding to it.
TEST_F(Exact, charge__while_another_cpu_charges)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	u32 others = 0;
	{
		ReadTrap trap(&g_packet_rule_bytes, [&] {
			if (others < 3) {
				others++;
				__atomic_fetch_add(&g_packet_rule_bytes, 1u, __ATOMIC_RELAXED);
			}
		});
		add(s, contract::kV4DstPort, 3);
	}
	EXPECT_EQ(others, 3u);
	EXPECT_EQ(g_packet_rule_bytes, s.po().rule_bytes + others);
	__atomic_fetch_sub(&g_packet_rule_bytes, others, __ATOMIC_RELAXED);
}

} // namespace
