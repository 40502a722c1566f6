// SPDX-License-Identifier: GPL-2.0-only
// The ledgers of locations and sockets: each counter by its own case. That they add up is
// checked behind every test.
#include "offer_outcomes.h"
#include "base/counters.hpp"
#include "fake/backlog.h"
#include "services/services.hpp"

namespace {

using namespace packets;
using fake::total;

class Ledger : public ModuleTest {
protected:
	void TearDown() override
	{
		fake::max_backlog = fake::kBacklogDefault;
		pkt_rnfp = pkt_rnfp_wlan = nullptr;
		ModuleTest::TearDown();
	}
	static const hook_ledger &hooks(u32 queue, int cpu = 0)
	{
		return kernel().hook_cpus[cpu].hooks[queue];
	}
	static const delivery_ledger &delivered(u32 queue, int cpu = 0)
	{
		return kernel().hook_cpus[cpu].delivered[queue];
	}
	// What has changed in a ledger of CPU 0: the names of the words, with how much.
	template <class Record> static std::map<size_t, uint64_t> words(const Record &record)
	{
		std::map<size_t, uint64_t> found;
		const auto *word = reinterpret_cast<const mox_total *>(&record);
		for (size_t i = 0; i < sizeof(Record) / sizeof(mox_total); i++)
			if (uint64_t n = total(word[i]))
				found[i * sizeof(mox_total)] = n;
		return found;
	}
	using Words = std::map<size_t, uint64_t>;
	// A frame through the hook of a location, which stays on its queue.
	void hook_only(u32 location, const Meta &meta, const ::Bytes &bytes)
	{
		Meta m = meta;
		m.source = port;
		void *e = make(m, bytes);
		hook(kHooks[location - 1].func, e);
		auto it = efmp().live.find(fake::word(e));
		if (it != efmp().live.end() && it->second.owner == fake::Owner::kPlatform)
			efmp().drop(e);
	}
	static uint64_t of(Sock &s, mox_capture_counters_attr which)
	{
		return total(&s.po(), which);
	}
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

#define HOOK(word) offsetof(hook_ledger, word)
#define BEHIND(word) offsetof(delivery_ledger, word)

TEST_F(Ledger, hook__unwanted_frames_are_seen)
{
	for (int i = 0; i < 3; i++)
		frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(words(hooks(kQueueLev2)), (Words{ { HOOK(seen), 3 } }));
	EXPECT_EQ(words(delivered(kQueueLev2)), Words{});
}

TEST_F(Ledger, hook__each_location_and_cpu_has_its_own)
{
	for (u32 location : { 1u, 2u, 3u, 4u, 7u, 8u }) {
		SCOPED_TRACE(location);
		Sock s;
		s.capture(location, PACKET_COPY);
		const u32 queue = location_row(location).queue;
		frame(location, {}, lldp);
		EXPECT_EQ(words(hooks(queue)),
			  (Words{ { HOOK(seen), 1 }, { HOOK(wanted), 1 }, { HOOK(cloned), 1 } }));
		EXPECT_EQ(words(delivered(queue)),
			  (Words{ { BEHIND(kept), 1 }, { BEHIND(offers), 1 } }));
		EXPECT_EQ(words(hooks(queue, 1)), Words{});
	}
}

TEST_F(Ledger, hook__taken_frames_and_full_queues)
{
	fake::max_backlog = 2;
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	for (int i = 0; i < 5; i++)
		hook_only(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(words(hooks(kQueueLev2)), (Words{ { HOOK(seen), 5 },
						    { HOOK(wanted), 5 },
						    { HOOK(taken), 2 },
						    { HOOK(takes_refused), 3 } }));
	drain();
	EXPECT_EQ(words(delivered(kQueueLev2)),
		  (Words{ { BEHIND(kept), 2 }, { BEHIND(offers), 2 } }));
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	for (int i = 0; i < 5; i++)
		hook_only(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(total(hooks(kQueueLev2).cloned), 1u);
	EXPECT_EQ(total(hooks(kQueueLev2).copies_refused), 4u);
	kernel().fail(Fail::kClone);
	drain();
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(total(hooks(kQueueLev2).clone_failed), 1u);
	drain();
}

TEST_F(Ledger, hook__drop_services)
{
	Sock s;
	for (u32 location : { u32{ PACKET_LEV2_LOC }, u32{ PACKET_WLAN_LOC } }) {
		SCOPED_TRACE(location);
		ASSERT_EQ(location == PACKET_LEV2_LOC ? s.capture(location, PACKET_FETCH).running()
						      : s.set(PACKET_LOCATION, location) == 0,
			  true);
		const hook_ledger &ledger = hooks(location_row(location).queue);
		pkt_rnfp = [](void *) { return 1; };
		pkt_rnfp_wlan = [](void *) { return 1; };
		hook_only(location, {}, lldp);
		EXPECT_EQ(
			words(ledger),
			(Words{ { HOOK(seen), 1 }, { HOOK(wanted), 1 }, { HOOK(rnfp_drops), 1 } }));
		pkt_rnfp = [](void *) { return 0; };
		hook_only(location, {}, lldp);
		EXPECT_EQ(words(ledger), (Words{ { HOOK(seen), 2 },
						 { HOOK(wanted), 2 },
						 { HOOK(rnfp_drops), 1 },
						 { HOOK(rnfp_wlan_drops), 1 } }));
	}
}

TEST_F(Ledger, delivery__kept_by_none_and_matched_by_none)
{
	Sock full, gone;
	full.capture(PACKET_LEV2_LOC, PACKET_COPY);
	full.sk->rcvbuf = 1;
	frame(PACKET_LEV2_LOC, {}, lldp);
	EXPECT_EQ(words(delivered(kQueueLev2)),
		  (Words{ { BEHIND(unkept), 1 }, { BEHIND(offers), 1 } }));
	EXPECT_EQ(of(full, MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS), 1u);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	ASSERT_EQ(full.set(PACKET_LOCATION, 0), 0);
	drain();
	EXPECT_EQ(
		words(delivered(kQueueLev2)),
		(Words{ { BEHIND(unkept), 1 }, { BEHIND(unmatched), 1 }, { BEHIND(offers), 1 } }));
}

TEST_F(Ledger, delivery__freed_with_the_queue)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	mox_packet_efbuff_queue_deinit(&g_cpu_pkt_que[0][kQueueLev2]);
	EXPECT_EQ(words(delivered(kQueueLev2)), (Words{ { BEHIND(freed), 2 } }));
}

TEST_F(Ledger, socket__each_outcome_of_an_offer)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const auto deliver = [&] { frame(PACKET_LEV2_LOC, {}, lldp); };
	const auto rows = offer_outcomes(s);
	uint64_t matched = 0;
	for (const auto &row : rows) {
		SCOPED_TRACE(row.counter);
		row.make();
		deliver();
		row.undo();
		EXPECT_EQ(of(s, row.counter), 1u);
		EXPECT_EQ(of(s, MOX_CAPTURE_COUNTERS_MATCHED), ++matched);
	}
	// Reading the statistics clears none of it.
	for (const Counter &counter : kCounters)
		s.po().counters.*counter.field = 0;
	for (const auto &row : rows)
		EXPECT_EQ(of(s, row.counter), 1u);
}

TEST_F(Ledger, socket__frames_that_another_rule_left_to_the_platform)
{
	// The copy rule decides at the hook where its key comes first; the other one finds the
	// frame in delivery.
	for (u32 treatment : { PACKET_FETCH, PACKET_TRAP, PACKET_COPY }) {
		SCOPED_TRACE(treatment);
		Sock copy, other;
		ASSERT_EQ(copy.create(), 0);
		ASSERT_EQ(copy.add(PACKET_DEST_MAC_EQUAL, 1,
				   { 0x0a, 0xbb, 0xcc, 0x00, 0x00, 0x02 }),
			  0);
		ASSERT_EQ(copy.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(copy.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		ASSERT_EQ(other.create(), 0);
		ASSERT_EQ(other.add(PACKET_ETH_PROT_EQUAL, 1, { 0x88, 0xcc }), 0);
		ASSERT_EQ(other.set(PACKET_TREATMENT, treatment), 0);
		ASSERT_EQ(other.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		::Bytes to = lldp;
		const ::Bytes mac = { 0x0a, 0xbb, 0xcc, 0x00, 0x00, 0x02 };
		std::copy(mac.begin(), mac.end(), to.begin());
		frame(PACKET_LEV2_LOC, {}, to);
		EXPECT_EQ(of(other, MOX_CAPTURE_COUNTERS_MATCHED), 1u);
		EXPECT_EQ(of(other, MOX_CAPTURE_COUNTERS_PASSED_ON), treatment != PACKET_COPY);
		EXPECT_EQ(of(copy, MOX_CAPTURE_COUNTERS_PASSED_ON), 0u);
		// Without the copy rule the frame is taken.
		ASSERT_EQ(copy.release(), 0);
		frame(PACKET_LEV2_LOC, {}, to);
		EXPECT_EQ(of(other, MOX_CAPTURE_COUNTERS_PASSED_ON), treatment != PACKET_COPY);
	}
}

} // namespace
