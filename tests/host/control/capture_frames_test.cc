// SPDX-License-Identifier: GPL-2.0-only
// The ledgers of the locations, and the queues, as the family for reading has them.
#include "capture_fixture.h"
#include "contract/ledger.h"
#include "fake/backlog.h"
#include "read_trap.h"
#include "services/services.hpp"
#include "socket/closed.hpp"

namespace {

using namespace packets;

// The words of a ledger by the attribute that carries each.
struct Word {
	int attribute;
	size_t offset;
	bool hook; // of hook_ledger; otherwise of delivery_ledger
};

#define HOOK(name, word)                                                       \
	{                                                                      \
		MOX_CAPTURE_LOCATION_##name, offsetof(hook_ledger, word), true \
	}
#define BEHIND(name, word)                                                          \
	{                                                                           \
		MOX_CAPTURE_LOCATION_##name, offsetof(delivery_ledger, word), false \
	}
const Word kWords[] = {
	HOOK(SEEN, seen),
	HOOK(WANTED, wanted),
	HOOK(CLONED, cloned),
	HOOK(TAKEN, taken),
	HOOK(CLONE_FAILED, clone_failed),
	HOOK(COPIES_REFUSED, copies_refused),
	HOOK(TAKES_REFUSED, takes_refused),
	HOOK(RNFP_DROPS, rnfp_drops),
	HOOK(RNFP_WLAN_DROPS, rnfp_wlan_drops),
	BEHIND(KEPT, kept),
	BEHIND(UNKEPT, unkept),
	BEHIND(UNMATCHED, unmatched),
	BEHIND(FREED, freed),
	BEHIND(OFFERS, offers),
};

// All numbers of a location's ledger.
const int kNumbers[] = {
	MOX_CAPTURE_LOCATION_SEEN,           MOX_CAPTURE_LOCATION_UNWANTED,
	MOX_CAPTURE_LOCATION_WANTED,         MOX_CAPTURE_LOCATION_CLONED,
	MOX_CAPTURE_LOCATION_TAKEN,          MOX_CAPTURE_LOCATION_CLONE_FAILED,
	MOX_CAPTURE_LOCATION_COPIES_REFUSED, MOX_CAPTURE_LOCATION_TAKES_REFUSED,
	MOX_CAPTURE_LOCATION_RNFP_DROPS,     MOX_CAPTURE_LOCATION_RNFP_WLAN_DROPS,
	MOX_CAPTURE_LOCATION_KEPT,           MOX_CAPTURE_LOCATION_UNKEPT,
	MOX_CAPTURE_LOCATION_UNMATCHED,      MOX_CAPTURE_LOCATION_FREED,
	MOX_CAPTURE_LOCATION_QUEUED,         MOX_CAPTURE_LOCATION_OFFERS,
};

class CaptureFrames : public CaptureTest {
protected:
	void TearDown() override
	{
		fake::max_backlog = fake::kBacklogDefault;
		pkt_rnfp = pkt_rnfp_wlan = nullptr;
		CaptureTest::TearDown();
	}
	// A message of the locations or queues by location and CPU; -1: the sums.
	static capture::Message at(u8 command, u32 location, int cpu)
	{
		const bool queues = command == MOX_CAPTURE_CMD_QUEUES;
		const int number = queues ? int{ MOX_CAPTURE_QUEUE_CPU }
					  : int{ MOX_CAPTURE_LOCATION_CPU };
		for (const capture::Message &m :
		     dump(command, attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, location)))
			if (cpu < 0 ? !m.has(number)
				    : m.has(number) && m.u32(number) == static_cast<u32>(cpu))
				return m;
		ADD_FAILURE() << "no message of location " << location << ", CPU " << cpu;
		return {};
	}
	static capture::Message sums(u32 location)
	{
		return at(MOX_CAPTURE_CMD_LOCATIONS, location, -1);
	}
	static capture::Message ledger(u32 location, int cpu)
	{
		return at(MOX_CAPTURE_CMD_LOCATIONS, location, cpu);
	}
	static capture::Message queue(u32 location, int cpu)
	{
		return at(MOX_CAPTURE_CMD_QUEUES, location, cpu);
	}
	// The place of a word of a ledger.
	static mox_total &word(const Word &of, u32 queue, int cpu)
	{
		hook_cpu &record = kernel().hook_cpus[cpu];
		auto *base = of.hook ? reinterpret_cast<u8 *>(&record.hooks[queue])
				     : reinterpret_cast<u8 *>(&record.delivered[queue]);
		return *reinterpret_cast<mox_total *>(base + of.offset);
	}
	// The sums that the interface promises of a ledger at rest.
	static void balanced(const capture::Message &m)
	{
		contract::expect_location_sums([&m](int number) { return m.u64(number); });
	}
	// A frame through the hook of a location, which stays on its queue.
	void hook_only(u32 location, int cpu, const ::Bytes &bytes)
	{
		Meta meta;
		meta.source = port;
		void *e = make(meta, bytes);
		hook(kHooks[location - 1].func, e, cpu);
		auto it = efmp().live.find(fake::word(e));
		if (it != efmp().live.end() && it->second.owner == fake::Owner::kPlatform)
			efmp().drop(e);
	}
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
	const ::Bytes arp = eth(0x0806) + ::Bytes(46, 0x5c);
};

TEST_F(CaptureFrames, locations__the_messages_and_what_each_has)
{
	const Messages all = dump(MOX_CAPTURE_CMD_LOCATIONS);
	size_t at = 0;
	// The locations, and behind them the row of all higher numbers.
	for (u32 location = 0; location <= contract::kLocationCount; location++) {
		const bool frames = location >= 1 && location <= contract::kLibraries;
		for (int cpu = -1; cpu < (frames ? kernel().cpu_ids : 0); cpu++, at++) {
			SCOPED_TRACE(std::to_string(location) + ", CPU " + std::to_string(cpu));
			ASSERT_LT(at, all.size());
			const capture::Message &m = all[at];
			EXPECT_EQ(m.u32(MOX_CAPTURE_LOCATION_LOCATION), location);
			EXPECT_EQ(m.text(MOX_CAPTURE_LOCATION_NAME),
				  contract::location_name(location));
			EXPECT_EQ(m.has(MOX_CAPTURE_LOCATION_CPU), cpu >= 0);
			if (cpu >= 0)
				EXPECT_EQ(m.u32(MOX_CAPTURE_LOCATION_CPU), static_cast<u32>(cpu));
			EXPECT_EQ(m.has(MOX_CAPTURE_LOCATION_RULES), frames && cpu < 0);
			EXPECT_EQ(m.has(MOX_CAPTURE_LOCATION_CLOSED), cpu < 0);
			EXPECT_EQ(m.has(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS), cpu < 0);
			for (int number : kNumbers)
				EXPECT_EQ(m.has(number), frames) << number;
			if (frames)
				balanced(m);
		}
	}
	EXPECT_EQ(at, all.size());
}

TEST_F(CaptureFrames, locations__one_of_them)
{
	const struct {
		u32 location;
		size_t messages;
	} rows[] = { { 0, 1 },  { 1, 5 },  { 2, 5 },  { 8, 5 },          { 9, 1 },
		     { 10, 1 }, { 11, 1 }, { 12, 0 }, { 0x80000000, 0 }, { 0xffffffff, 0 } };
	for (const auto &row : rows) {
		SCOPED_TRACE(row.location);
		const Messages all = dump(MOX_CAPTURE_CMD_LOCATIONS,
					  attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION,
							 row.location));
		EXPECT_EQ(all.size(), row.messages);
		for (const capture::Message &m : all)
			EXPECT_EQ(m.u32(MOX_CAPTURE_LOCATION_LOCATION), row.location);
	}
}

// Each word of each ledger goes to its attribute, with all of its 64 bits.
TEST_F(CaptureFrames, locations__every_word_at_its_attribute)
{
	const auto value = [](u32 location, int cpu, size_t row) {
		return (uint64_t{ 1 + row } << 33) + location * 100 + static_cast<u32>(cpu) * 10;
	};
	for (u32 location = 1; location <= 8; location++)
		for (int cpu = 0; cpu < kernel().cpu_ids; cpu++)
			for (size_t i = 0; i < std::size(kWords); i++) {
				const uint64_t v = value(location, cpu, i);
				word(kWords[i], contract::kLocations[location].queue,
				     cpu) = { static_cast<u32>(v), static_cast<u32>(v >> 32) };
			}
	for (u32 location = 1; location <= 8; location++) {
		uint64_t sum[std::size(kWords)] = {};
		for (int cpu = 0; cpu < kernel().cpu_ids; cpu++) {
			const capture::Message m = ledger(location, cpu);
			for (size_t i = 0; i < std::size(kWords); i++) {
				EXPECT_EQ(m.u64(kWords[i].attribute), value(location, cpu, i));
				sum[i] += value(location, cpu, i);
			}
			// More wanted than seen, and more delivered than queued: counts that are
			// under way. No difference is negative.
			EXPECT_EQ(m.u64(MOX_CAPTURE_LOCATION_UNWANTED), 0u);
			EXPECT_EQ(m.u64(MOX_CAPTURE_LOCATION_QUEUED), 0u);
		}
		const capture::Message m = sums(location);
		for (size_t i = 0; i < std::size(kWords); i++)
			EXPECT_EQ(m.u64(kWords[i].attribute), sum[i]);
	}
	for (hook_cpu &record : kernel().hook_cpus) {
		memset(record.hooks, 0, sizeof(record.hooks));
		memset(record.delivered, 0, sizeof(record.delivered));
	}
}

TEST_F(CaptureFrames, locations__frames_of_all_outcomes_balance_and_add_up)
{
	fake::max_backlog = 8;
	Sock s, copy, filtered;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, { 0x88, 0xcc }), 0);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_FETCH), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	copy.capture(PACKET_IPv4_LOC, PACKET_COPY);
	std::minstd_rand random(3);
	u32 seen[contract::kLocationCount][2] = {};
	for (int i = 0; i < 400; i++) {
		const u32 location = random() % 2 ? PACKET_LEV2_LOC : PACKET_IPv4_LOC;
		const int cpu = random() % 2;
		seen[location][cpu]++;
		if (random() % 16 == 0) {
			pkt_rnfp = pkt_rnfp_wlan = [](void *) { return 1; };
		}
		if (location == PACKET_IPv4_LOC && random() % 16 == 0)
			kernel().fault = [](Fail call) { return call == Fail::kClone; };
		if (random() % 32 == 0)
			pkt_rnfp = nullptr;
		hook_only(location, cpu, random() % 4 ? lldp : arp);
		kernel().fault = nullptr;
		pkt_rnfp = pkt_rnfp_wlan = nullptr;
		s.sk->rcvbuf = random() % 4 ? 1 << 30 : 1;
		if (random() % 12 == 0)
			drain();
		if (random() % 64 == 0)
			mox_packet_efbuff_queue_deinit(
				&g_cpu_pkt_que[cpu][contract::kLocations[location].queue]);
	}
	for (u32 location : { u32{ PACKET_LEV2_LOC }, u32{ PACKET_IPv4_LOC } }) {
		SCOPED_TRACE(location);
		const Messages all = dump(MOX_CAPTURE_CMD_LOCATIONS,
					  attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, location));
		ASSERT_EQ(all.size(), 5u);
		for (const capture::Message &m : all)
			balanced(m);
		for (int number : kNumbers) {
			uint64_t sum = 0;
			for (size_t i = 1; i < all.size(); i++)
				sum += all[i].u64(number);
			EXPECT_EQ(all[0].u64(number), sum) << number;
		}
		for (int cpu = 0; cpu < 2; cpu++)
			EXPECT_EQ(all[1 + cpu].u64(MOX_CAPTURE_LOCATION_SEEN), seen[location][cpu]);
		EXPECT_GT(all[0].u64(MOX_CAPTURE_LOCATION_KEPT), 0u);
		EXPECT_GT(all[0].u64(MOX_CAPTURE_LOCATION_FREED), 0u);
	}
	const capture::Message lev2 = sums(PACKET_LEV2_LOC), ipv4 = sums(PACKET_IPv4_LOC);
	for (int number :
	     { int{ MOX_CAPTURE_LOCATION_UNWANTED }, int{ MOX_CAPTURE_LOCATION_TAKEN },
	       int{ MOX_CAPTURE_LOCATION_TAKES_REFUSED }, int{ MOX_CAPTURE_LOCATION_RNFP_DROPS },
	       int{ MOX_CAPTURE_LOCATION_UNKEPT } })
		EXPECT_GT(lev2.u64(number), 0u) << number;
	for (int number :
	     { int{ MOX_CAPTURE_LOCATION_CLONED }, int{ MOX_CAPTURE_LOCATION_COPIES_REFUSED },
	       int{ MOX_CAPTURE_LOCATION_CLONE_FAILED } })
		EXPECT_GT(ipv4.u64(number), 0u) << number;
	// What the sockets were offered.
	EXPECT_EQ(lev2.u64(MOX_CAPTURE_LOCATION_OFFERS),
		  fake::total(&s.po(), MOX_CAPTURE_COUNTERS_MATCHED));
	EXPECT_EQ(ipv4.u64(MOX_CAPTURE_LOCATION_OFFERS),
		  fake::total(&copy.po(), MOX_CAPTURE_COUNTERS_MATCHED));
	drain();
	EXPECT_EQ(sums(PACKET_LEV2_LOC).u64(MOX_CAPTURE_LOCATION_QUEUED), 0u);
}

TEST_F(CaptureFrames, locations__queued_frames_and_rules_in_force)
{
	std::deque<Sock> socks(3);
	for (Sock &s : socks)
		s.capture(PACKET_RESV_LOC, PACKET_FETCH);
	// A shared location's rules are those of its owner.
	ASSERT_EQ(socks[2].set(PACKET_LOCATION, PACKET_LEV2_RESV_LOC), 0);
	EXPECT_EQ(sums(PACKET_RESV_LOC).u32(MOX_CAPTURE_LOCATION_RULES), 3u);
	EXPECT_EQ(sums(PACKET_LEV2_LOC).u32(MOX_CAPTURE_LOCATION_RULES), 0u);
	hook_only(PACKET_RESV_LOC, 0, lldp);
	hook_only(PACKET_RESV_LOC, 1, lldp);
	hook_only(PACKET_RESV_LOC, 1, lldp);
	EXPECT_EQ(sums(PACKET_RESV_LOC).u64(MOX_CAPTURE_LOCATION_QUEUED), 3u);
	EXPECT_EQ(ledger(PACKET_RESV_LOC, 1).u64(MOX_CAPTURE_LOCATION_QUEUED), 2u);
	EXPECT_EQ(ledger(PACKET_RESV_LOC, 2).u64(MOX_CAPTURE_LOCATION_QUEUED), 0u);
	drain();
	EXPECT_EQ(sums(PACKET_RESV_LOC).u64(MOX_CAPTURE_LOCATION_QUEUED), 0u);
	EXPECT_EQ(sums(PACKET_RESV_LOC).u64(MOX_CAPTURE_LOCATION_KEPT), 3u);
}

TEST_F(CaptureFrames, locations__what_closed_sockets_counted)
{
	// The number that the option takes, and the location whose message has it.
	const u32 rows[][2] = { { PACKET_NONE_LOC, 0 },
				{ PACKET_LEV2_LOC, 2 },
				{ PACKET_LEV3_RESV_LOC, 10 },
				{ 11, 11 },
				{ 4711, 11 },
				{ 0xffffffff, 11 } };
	std::map<u32, uint64_t> closed, sum;
	for (const auto &row : rows) {
		SCOPED_TRACE(row[0]);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, row[0]), 0);
		// Of a counter whose row no frame of this test moves; with it the sum.
		const u32 n = 100 + row[0] % 97;
		s.po().ledger.totals[MOX_CAPTURE_COUNTERS_EF_SEND_FAILS - 1] = { n, 3 };
		s.po().ledger.totals[MOX_CAPTURE_COUNTERS_SENDS - 1] = { n, 3 };
		ASSERT_EQ(s.release(), 0);
		closed[row[1]]++;
		sum[row[1]] += (uint64_t{ 3 } << 32) + n;
	}
	for (u32 location = 0; location <= contract::kLocationCount; location++) {
		SCOPED_TRACE(location);
		const capture::Message m = sums(location);
		EXPECT_EQ(m.u64(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS), closed[location]);
		const capture::Attributes &counters = m.nest(MOX_CAPTURE_LOCATION_CLOSED);
		EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_EF_SEND_FAILS), sum[location]);
		EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_SENDS), sum[location]);
		EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_MATCHED), 0u);
	}
}

TEST_F(CaptureFrames, queues__the_messages_and_what_each_has)
{
	const Messages all = dump(MOX_CAPTURE_CMD_QUEUES);
	ASSERT_EQ(all.size(), 8u * kernel().cpu_ids);
	size_t at = 0;
	for (u32 location = 1; location <= 8; location++)
		for (int cpu = 0; cpu < kernel().cpu_ids; cpu++) {
			const capture::Message &m = all[at++];
			EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_LOCATION), location);
			EXPECT_EQ(m.text(MOX_CAPTURE_QUEUE_NAME),
				  contract::location_name(location));
			EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_CPU), static_cast<u32>(cpu));
			EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_LENGTH), 0u);
			EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_CPU_HELD), 0u);
		}
	for (u32 location : { 0u, 9u, 10u, 11u, 0xffffffffu })
		EXPECT_TRUE(dump(MOX_CAPTURE_CMD_QUEUES,
				 attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, location))
				    .empty());
	EXPECT_EQ(dump(MOX_CAPTURE_CMD_QUEUES, attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, 8))
			  .size(),
		  4u);
}

TEST_F(CaptureFrames, queues__what_they_hold)
{
	Sock taker, copier;
	taker.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	copier.capture(PACKET_WLAN_LOC, PACKET_COPY);
	for (int i = 0; i < 3; i++)
		hook_only(PACKET_LEV2_LOC, 1, lldp);
	for (int i = 0; i < 2; i++)
		hook_only(PACKET_WLAN_LOC, 1, lldp);
	hook_only(PACKET_WLAN_LOC, 0, lldp);
	const struct {
		u32 location;
		int cpu;
		u32 length, copies, on_cpu;
	} rows[] = {
		{ PACKET_LEV2_LOC, 0, 0, 0, 1 }, { PACKET_LEV2_LOC, 1, 3, 0, 5 },
		{ PACKET_WLAN_LOC, 0, 1, 1, 1 }, { PACKET_WLAN_LOC, 1, 2, 2, 5 },
		{ PACKET_IPv4_LOC, 1, 0, 0, 5 }, { PACKET_LEV2_LOC, 2, 0, 0, 0 },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::to_string(row.location) + ", CPU " + std::to_string(row.cpu));
		const capture::Message m = queue(row.location, row.cpu);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_LENGTH), row.length);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_HELD), row.length);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_COPIES), row.copies);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_CPU_HELD), row.on_cpu);
	}
	// While it is delivered a frame is off the queue, and still held.
	u32 length = 99, held = 99;
	kernel().at[Point::kDataReady] = [&](const void *) {
		on_other_cpu([&] {
			if (held != 99)
				return;
			const capture::Message m = queue(PACKET_LEV2_LOC, 1);
			length = m.u32(MOX_CAPTURE_QUEUE_LENGTH);
			held = m.u32(MOX_CAPTURE_QUEUE_HELD);
		});
	};
	drain();
	kernel().at.clear();
	EXPECT_EQ(length, 0u);
	EXPECT_GT(held, 0u);
	EXPECT_EQ(queue(PACKET_LEV2_LOC, 1).u32(MOX_CAPTURE_QUEUE_CPU_HELD), 0u);
}

// A frame comes, is delivered and freed while the reader is between the two words.
TEST_F(CaptureFrames, queues__what_they_hold_while_frames_pass)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	hook_only(PACKET_LEV2_LOC, 1, lldp);
	drain();
	HeldCount &count = g_cpu_held[1].queues[kHooks[contract::kLev2Hook].queue];
	for (const u32 *word : { &count.queued, &count.freed }) {
		u32 passed = 0;
		capture::Message m;
		{
			ReadTrap trap(word, [&] {
				if (std::exchange(passed, 1) == 0)
					on_other_cpu([&] {
						hook_only(PACKET_LEV2_LOC, 1, lldp);
						drain();
					});
			});
			m = queue(PACKET_LEV2_LOC, 1);
		}
		EXPECT_EQ(passed, 1u);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_HELD), 0u);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_COPIES), 0u);
	}
}

// Frames that pass all the time: the reader ends, with a number that may be too high.
TEST_F(CaptureFrames, queues__what_they_hold_while_frames_pass_without_an_end)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	HeldCount &count = g_cpu_held[1].queues[kHooks[contract::kLev2Hook].queue];
	u32 passed = 0;
	{
		ReadTrap trap(&count.freed, [&] {
			passed++;
			__atomic_fetch_add(&count.queued, 1 | 1 << 16, __ATOMIC_RELAXED);
			__atomic_fetch_add(&count.freed, 1 | 1 << 16, __ATOMIC_RELAXED);
		});
		EXPECT_EQ(held_now(count), 1u | 1 << 16);
	}
	EXPECT_EQ(passed, kHeldReads + 2);
}

TEST_F(CaptureFrames, queues__limits_follow_the_kernels)
{
	const struct {
		int backlog;
		u32 limit;
	} rows[] = { { 1000, 1000 },   { 0, 0 },           { -1, 0 },      { INT32_MIN, 0 },
		     { 1, 1 },         { 2047, 2047 },     { 2048, 2048 }, { 2049, 2048 },
		     { 100000, 2048 }, { INT32_MAX, 2048 } };
	for (const auto &row : rows) {
		fake::max_backlog = row.backlog;
		const capture::Message m = queue(PACKET_LEV2_LOC, 0);
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_LIMIT), row.limit) << row.backlog;
		EXPECT_EQ(m.u32(MOX_CAPTURE_QUEUE_CPU_LIMIT), 2 * row.limit) << row.backlog;
	}
}

// Every message comes once, whatever the buffers' size.
TEST_F(CaptureFrames, dumps__in_buffers_of_any_size)
{
	for (u8 command : { u8{ MOX_CAPTURE_CMD_LOCATIONS }, u8{ MOX_CAPTURE_CMD_QUEUES } }) {
		const Messages whole = dump(command, {}, 1 << 20);
		size_t longest = 0;
		for (const capture::Message &m : whole)
			longest = std::max(longest, m.size);
		for (size_t room : { longest, longest + 1, 2 * longest - 1, 2 * longest,
				     size_t{ 4096 }, size_t{ 8192 }, size_t{ 16384 } }) {
			const Messages all = dump(command, {}, room);
			ASSERT_EQ(all.size(), whole.size()) << room;
			// The numbers of location and CPU are the same in both sets.
			static_assert(MOX_CAPTURE_LOCATION_CPU == int{ MOX_CAPTURE_QUEUE_CPU });
			for (size_t i = 0; i < all.size(); i++) {
				EXPECT_EQ(all[i].u32(1), whole[i].u32(1));
				EXPECT_EQ(all[i].numbers(MOX_CAPTURE_QUEUE_CPU),
					  whole[i].numbers(MOX_CAPTURE_QUEUE_CPU));
			}
		}
	}
}

// Numbers of CPUs that the machine does not have get no message.
TEST_F(CaptureFrames, dumps__of_the_possible_cpus)
{
	for (int cpus : { 1, 2, 4 }) {
		kernel().cpu_ids = cpus;
		EXPECT_EQ(dump(MOX_CAPTURE_CMD_QUEUES).size(), 8u * cpus);
		EXPECT_EQ(dump(MOX_CAPTURE_CMD_LOCATIONS).size(), 12u + 8u * cpus);
	}
}

} // namespace
