// SPDX-License-Identifier: GPL-2.0-only
// Hooks while frames are traced: the record of each outcome, and that a trace changes nothing
// that the platform, the sockets and the ledgers see.
#include "fake/backlog.h"
#include "services/services.hpp"
#include "trace_fixture.h"

namespace {

using namespace packets;

int drops(void *)
{
	return 1;
}

class HookTrace : public TraceTest {
protected:
	void TearDown() override
	{
		fake::max_backlog = fake::kBacklogDefault;
		pkt_rnfp = pkt_rnfp_wlan = nullptr;
		kernel().fault = nullptr;
		kernel().at.erase(Point::kLock);
		socks.clear();
		drain();
		TraceTest::TearDown();
	}
	Sock &sock()
	{
		socks.push_back(std::make_unique<Sock>());
		return *socks.back();
	}
	// Through that hook, whatever the location's first one is. The platform's efbuff goes.
	u32 through(const HookTraits &h, const ::Bytes &bytes, int cpu = 0)
	{
		Meta meta;
		meta.source = port;
		meta.outer_tci = 0xe064;
		void *e = make(meta, bytes);
		const u32 answer = hook(h.func, e, cpu);
		auto it = efmp().live.find(fake::word(e));
		if (it != efmp().live.end() && it->second.owner == fake::Owner::kPlatform)
			efmp().drop(e);
		return answer;
	}
	static bool accepted(const HookTraits &h) { return h.location != 5 && h.location != 6; }

	std::vector<std::unique_ptr<Sock>> socks;
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

// ---- each outcome ---------------------------------------------------------------------

// The copy thread may deliver a frame as soon as it is queued: its records follow the hook's.
TEST_F(HookTrace, order__the_record_precedes_the_queueing)
{
	ASSERT_EQ(start(), 0);
	for (const HookTraits &h : kHooks)
		for (u32 treatment : { PACKET_COPY, PACKET_FETCH }) {
			if (!accepted(h))
				continue;
			SCOPED_TRACE(std::string(h.name) + ", treatment " +
				     std::to_string(treatment));
			Sock s;
			s.capture(h.location, treatment);
			next_tick();
			size_t before = 0;
			kernel().at[Point::kLocking] = [&](const void *lock) {
				if (lock == &g_cpu_pkt_que[0][h.queue].lock)
					before = kernel().capture_answers.size();
			};
			through(h, lldp);
			kernel().at.erase(Point::kLocking);
			EXPECT_EQ(before, 1u);
			EXPECT_EQ(records().size(), 1u);
			drain();
			records();
		}
}

TEST_F(HookTrace, verdict__of_each_outcome_at_each_hook)
{
	const struct {
		mox_capture_verdict verdict;
		u32 treatment; // 0: no socket
		int backlog;
		bool no_clone, drop, drop_wlan;
	} rows[] = {
		{ MOX_CAPTURE_VERDICT_UNWANTED, 0, 100, false, true, true },
		{ MOX_CAPTURE_VERDICT_CLONED, PACKET_COPY, 100, false, true, true },
		{ MOX_CAPTURE_VERDICT_TAKEN, PACKET_FETCH, 100, false, false, false },
		{ MOX_CAPTURE_VERDICT_CLONE_FAILED, PACKET_COPY, 100, true, false, false },
		{ MOX_CAPTURE_VERDICT_COPY_REFUSED, PACKET_COPY, 1, false, false, false },
		{ MOX_CAPTURE_VERDICT_TAKE_REFUSED, PACKET_FETCH, 0, false, false, false },
		{ MOX_CAPTURE_VERDICT_RNFP_DROP, PACKET_FETCH, 100, false, true, true },
		{ MOX_CAPTURE_VERDICT_RNFP_WLAN_DROP, PACKET_FETCH, 100, false, false, true },
	};
	ASSERT_EQ(start(), 0);
	int cpu = 0;
	for (const HookTraits &h : kHooks)
		for (const auto &row : rows) {
			if (!accepted(h))
				continue;
			SCOPED_TRACE(std::string(h.name) + ", verdict " +
				     std::to_string(row.verdict));
			cpu = (cpu + 1) % kernel().cpu_ids;
			Sock s;
			if (row.treatment)
				s.capture(h.location, row.treatment);
			fake::max_backlog = row.backlog;
			if (row.no_clone)
				kernel().fail(Fail::kClone);
			pkt_rnfp = row.drop ? drops : nullptr;
			pkt_rnfp_wlan = row.drop_wlan ? drops : nullptr;
			next_tick();
			const u32 number = g_cpu_held[cpu].queues[h.queue].queued & 0xffff;
			kernel().real_ns += 1000;
			through(h, lldp, cpu);
			const Messages got = records();
			ASSERT_EQ(got.size(), 1u);
			const capture::Message &record = got[0];
			// The services are not asked at the reserved location: it takes the frame.
			const bool services = h.location != PACKET_RESV_LOC;
			const bool dropped = row.verdict == MOX_CAPTURE_VERDICT_RNFP_DROP ||
					     row.verdict == MOX_CAPTURE_VERDICT_RNFP_WLAN_DROP;
			const u32 verdict = dropped && !services ? MOX_CAPTURE_VERDICT_TAKEN
								 : row.verdict;
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_HOOK });
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_VERDICT), verdict);
			EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_TIME), kernel().real_ns);
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_CPU), static_cast<u32>(cpu));
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LOCATION), h.location);
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LENGTH), 60u);
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_IFINDEX), 7u);
			EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_VLAN), 100u);
			EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_ETHER_TYPE), 0x88ccu);
			EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_DST_MAC),
				  (::Bytes{ 2, 0, 0, 0, 0, 1 }));
			EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_SRC_MAC),
				  (::Bytes{ 2, 0, 0, 0, 0, 2 }));
			EXPECT_FALSE(record.has(MOX_CAPTURE_TRACE_SINCE));
			EXPECT_FALSE(record.has(MOX_CAPTURE_TRACE_ERROR));
			const bool queued = verdict == MOX_CAPTURE_VERDICT_CLONED ||
					    verdict == MOX_CAPTURE_VERDICT_TAKEN;
			EXPECT_EQ(record.has(MOX_CAPTURE_TRACE_FRAME), queued);
			if (queued)
				EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_FRAME), number);
			for (int which : { MOX_CAPTURE_TRACE_KEY, MOX_CAPTURE_TRACE_COOKIE,
					   MOX_CAPTURE_TRACE_PID, MOX_CAPTURE_TRACE_PROCESS,
					   MOX_CAPTURE_TRACE_TREATMENT })
				EXPECT_EQ(record.has(which), row.treatment != 0) << which;
			if (row.treatment) {
				EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_COOKIE), s.sk->cookie);
				EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_TREATMENT), row.treatment);
			}
			mox_packet_efbuff_queue_deinit(&g_cpu_pkt_que[cpu][h.queue]);
		}
	memset(g_packet_thread_top.pending, 0, sizeof(g_packet_thread_top.pending));
}

TEST_F(HookTrace, frames_that_no_trace_follows_leave_no_record)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(start(attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x0806)), 0);
	through(kHooks[contract::kLev2Hook], lldp);
	EXPECT_TRUE(records().empty());
	through(kHooks[contract::kLev2Hook], eth(0x0806) + ::Bytes(46));
	EXPECT_EQ(records().size(), 1u);
	ASSERT_EQ(stop(), 0);
	through(kHooks[contract::kLev2Hook], eth(0x0806) + ::Bytes(46));
	EXPECT_TRUE(records().empty());
	drain();
}

// The value that decides, and the socket whose rule has it, of two that match.
TEST_F(HookTrace, key__that_decided)
{
	const struct {
		const char *name;
		u16 type;
		::Bytes value;
		::Bytes frame;
		u8 kind;
	} rows[] = {
		{ "destination MAC", PACKET_DEST_MAC_EQUAL, { 2, 0, 0, 0, 0, 1 }, lldp, 2 },
		{ "source MAC", PACKET_SRC_MAC_EQUAL, { 2, 0, 0, 0, 0, 2 }, lldp, 2 },
		{ "EtherType", PACKET_ETH_PROT_EQUAL, { 0x88, 0xcc }, lldp, 2 },
		{ "IPv4 protocol",
		  PACKET_IPv4_PROT_EQUAL,
		  { 89 },
		  eth(0x0800) + ipv4(89, { 1, 2, 3, 4 }, ::Bytes(30)),
		  1 },
		{ "interface", PACKET_SRC_INTF_EQUAL, { 7, 0, 0, 0 }, lldp, 2 },
	};
	ASSERT_EQ(start(), 0);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		Sock all, one;
		// Everything comes last in the order of keys.
		all.capture(PACKET_LEV2_LOC, PACKET_COPY);
		ASSERT_EQ(one.create(), 0);
		ASSERT_EQ(one.add(row.type, 1, row.value), 0);
		ASSERT_EQ(one.set(PACKET_TREATMENT, PACKET_FETCH), 0);
		ASSERT_EQ(one.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		hook_only(PACKET_LEV2_LOC, { .kind = row.kind }, row.frame);
		Messages got = records();
		ASSERT_EQ(got.size(), 1u);
		EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_VERDICT), u32{ MOX_CAPTURE_VERDICT_TAKEN });
		EXPECT_EQ(got[0].u64(MOX_CAPTURE_TRACE_COOKIE), one.sk->cookie);
		EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_TREATMENT), u32{ PACKET_FETCH });
		const capture::Attributes &key = got[0].nest(MOX_CAPTURE_TRACE_KEY);
		EXPECT_EQ(key.u32(MOX_CAPTURE_VALUE_TYPE), row.type);
		EXPECT_EQ(key.bytes(MOX_CAPTURE_VALUE_DATA), row.value);
		// Without it the other rule decides, whose key has no value.
		ASSERT_EQ(one.release(), 0);
		drain();
		records();
		next_tick();
		hook_only(PACKET_LEV2_LOC, { .kind = row.kind }, row.frame);
		got = records();
		ASSERT_EQ(got.size(), 1u);
		EXPECT_EQ(got[0].u64(MOX_CAPTURE_TRACE_COOKIE), all.sk->cookie);
		EXPECT_EQ(got[0].nest(MOX_CAPTURE_TRACE_KEY).u32(MOX_CAPTURE_VALUE_TYPE),
			  u32{ PACKET_ALL });
		EXPECT_FALSE(got[0].nest(MOX_CAPTURE_TRACE_KEY).has(MOX_CAPTURE_VALUE_DATA));
		drain();
		records();
		next_tick();
	}
}

// ---- with a trace and without ------------------------------------------------------

// A scene of frames, sockets, failures and full queues, by its seed, as texts: every answer,
// queue, ledger, line and delivered buffer.
class Scene : public HookTrace {
protected:
	enum class Trace { kOff, kAll, kSome };

	Strings play(u32 seed, Trace trace);

	// Of a hook's record and its delivery.
	struct Place {
		u32 cpu, location;
		auto operator<=>(const Place &) const = default;
	};
	std::map<Place, std::deque<u32>> queued;
	uint64_t at_hooks = 0, at_delivery = 0;

private:
	void make_sockets(std::mt19937 &rng);
	static Strings ledgers();
	Strings outcome();
	void take_records(u32 answer, const HookTraits *h);
};

void Scene::make_sockets(std::mt19937 &rng)
{
	const u32 locations[] = { 1, 2, 3, 4, 7, 8 };
	for (int i = 0; i < 8; i++) {
		Sock &s = sock();
		ASSERT_EQ(s.create(rng() % 3 ? kRaw : kDgram), 0);
		switch (rng() % 4) {
		case 0:
			ASSERT_EQ(s.add(PACKET_DEST_MAC_EQUAL, 1,
					{ 2, 0, 0, 0, 0, static_cast<u8>(rng() % 3) }),
				  0);
			break;
		case 1:
			ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1,
					rng() % 2 ? ::Bytes{ 0x88, 0xcc } : ::Bytes{ 8, 0 }),
				  0);
			break;
		case 2:
			ASSERT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 1, { 17 }), 0);
			break;
		default:
			ASSERT_EQ(s.add(PACKET_ALL), 0);
		}
		ASSERT_EQ(s.set(PACKET_TREATMENT, 1 + rng() % 3), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, locations[rng() % 6]), 0);
		s.sk->rcvbuf = 2000 + static_cast<int>(rng() % 8000);
	}
}

// Totals of all CPUs and queues.
Strings Scene::ledgers()
{
	Strings out;
	for (int cpu = 0; cpu < kernel().cpu_ids; cpu++) {
		const hook_cpu &record = kernel().hook_cpus[cpu];
		std::string line = "CPU " + std::to_string(cpu) + ":";
		const auto add = [&](const auto &part) {
			const auto *word = reinterpret_cast<const mox_total *>(&part);
			for (size_t i = 0; i * sizeof(mox_total) < sizeof(part); i++)
				line += " " + std::to_string(fake::total(word[i]));
		};
		add(record.hooks);
		add(record.delivered);
		for (const efbuff_queue &queue : g_cpu_pkt_que[cpu])
			line += " q" + std::to_string(queue.count);
		out.push_back(line);
	}
	return out;
}

// What has been logged, without addresses, and what the sockets have.
Strings Scene::outcome()
{
	Strings out = ledgers();
	for (const fake::Line &line : kernel().log) {
		std::string text;
		for (size_t at = 0; at < line.text.size();) {
			size_t digits = 0;
			while (at + digits < line.text.size() && isxdigit(line.text[at + digits]))
				digits++;
			// Addresses have 8 digits; nothing else that is logged here has.
			if (digits == 8 || digits == 16) {
				text += "address";
			} else {
				digits = std::max<size_t>(digits, 1);
				text += line.text.substr(at, digits);
			}
			at += digits;
		}
		out.push_back(text);
	}
	kernel().log.clear();
	for (auto &s : socks) {
		std::string line = std::to_string(s->queued());
		for (u32 i = 0; i < MOX_CAPTURE_COUNTERS_SENDS; i++)
			line += " " + std::to_string(fake::total(s->po().ledger.totals[i]));
		for (size_t i = 0; i < s->queued(); i++) {
			const sk_buff &skb = s->buffer(i);
			line += " (" + std::to_string(skb.len) + " " +
				std::to_string(std::hash<std::string>()(
					std::string(skb.data(), skb.data() + skb.len))) +
				" " +
				std::to_string(std::hash<std::string>()(
					std::string(skb.cb, skb.cb + sizeof(skb.cb)))) +
				" " + std::to_string(skb.time) + ")";
		}
		out.push_back(line);
	}
	return out;
}

// The records since the last call: those of a hook when one was called, of delivery otherwise.
void Scene::take_records(u32 answer, const HookTraits *h)
{
	for (const capture::Message &record : records()) {
		ASSERT_EQ(record.u64(MOX_CAPTURE_TRACE_LOST), 0u);
		const u32 verdict = record.u32(MOX_CAPTURE_TRACE_VERDICT);
		const Place place{ record.u32(MOX_CAPTURE_TRACE_CPU),
				   record.u32(MOX_CAPTURE_TRACE_LOCATION) };
		if (h) {
			at_hooks++;
			EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_HOOK });
			EXPECT_EQ(place.location, h->location);
			const bool takes = verdict == MOX_CAPTURE_VERDICT_TAKEN;
			if (takes)
				EXPECT_EQ(answer, h->taken);
			if (verdict == MOX_CAPTURE_VERDICT_UNWANTED ||
			    verdict == MOX_CAPTURE_VERDICT_CLONED)
				EXPECT_EQ(answer, h->go_on);
			// The rule of the record is the one that decided.
			EXPECT_EQ(record.has(MOX_CAPTURE_TRACE_KEY),
				  verdict != MOX_CAPTURE_VERDICT_UNWANTED);
			if (verdict == MOX_CAPTURE_VERDICT_CLONED && h->location != 8)
				EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_TREATMENT),
					  u32{ PACKET_COPY });
			if (takes)
				EXPECT_NE(record.u32(MOX_CAPTURE_TRACE_TREATMENT),
					  u32{ PACKET_COPY });
			if (record.has(MOX_CAPTURE_TRACE_FRAME))
				queued[place].push_back(record.u32(MOX_CAPTURE_TRACE_FRAME));
			continue;
		}
		at_delivery++;
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_DELIVERY });
		auto &frames = queued[place];
		const u32 number = record.u32(MOX_CAPTURE_TRACE_FRAME);
		// Several sockets: several records of one frame. The hook came first.
		while (!frames.empty() && frames.front() != number)
			frames.pop_front();
		EXPECT_FALSE(frames.empty()) << "no hook has frame " << number;
	}
}

Strings Scene::play(u32 seed, Trace trace)
{
	std::mt19937 rng(seed);
	Strings out;
	socks.clear();
	drain();
	kernel().log.clear();
	queued.clear();
	// As after load: the ledgers and counts of the scene before are gone.
	mox_packet_sock_deinit();
	EXPECT_EQ(mox_packet_sock_init(), 0);
	fake::max_backlog = 12;
	make_sockets(rng);
	debug(seed % 2);
	kernel().at.watch(Point::kLock, [](const void *) { kernel().clock_ticks++; });
	if (trace != Trace::kOff)
		EXPECT_EQ(start(trace == Trace::kAll
					? ::Bytes{}
					: attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x0800)),
			  0);
	uint32_t clones = 0;
	kernel().fault = [&](Fail call) { return call == Fail::kClone && ++clones % 7 == 0; };
	for (int step = 0; step < 250; step++) {
		next_tick();
		const HookTraits &h = kHooks[rng() % std::size(kHooks)];
		const int cpu = static_cast<int>(rng() % 2);
		pkt_rnfp = rng() % 8 ? nullptr : drops;
		pkt_rnfp_wlan = rng() % 8 ? nullptr : drops;
		Meta meta;
		meta.source = port;
		meta.kind = rng() % 2 ? 1 : 2;
		meta.flags = rng() % 4 ? 0 : 0x4000;
		const ::Bytes bytes = rng() % 2 ? eth(0x88cc, rng() % 3) + ::Bytes(rng() % 100)
						: eth(0x0800, rng() % 3) + ipv4(rng() % 2 ? 17 : 89,
										{ 1, 2, 3, 4 },
										ports(1, 2, 30));
		void *e = make(meta, bytes);
		const u32 answer = hook(h.func, e, cpu);
		auto it = efmp().live.find(fake::word(e));
		const bool platforms = it != efmp().live.end() &&
				       it->second.owner == fake::Owner::kPlatform;
		if (platforms)
			efmp().drop(e);
		out.push_back(std::to_string(answer) + (platforms ? " left" : " taken") +
			      " wake-ups " + std::to_string(kernel().wakeups));
		if (trace != Trace::kOff)
			take_records(answer, &h);
		if (rng() % 9 == 0) {
			drain();
			take_records(0, nullptr);
		}
		const Strings more = outcome();
		out.insert(out.end(), more.begin(), more.end());
		if (rng() % 40 == 0)
			for (auto &s : socks)
				fake::read_all(s->sk);
	}
	drain();
	take_records(0, nullptr);
	kernel().fault = nullptr;
	kernel().at.erase(Point::kLock);
	const Strings more = outcome();
	out.insert(out.end(), more.begin(), more.end());
	if (trace != Trace::kOff)
		EXPECT_EQ(stop(), 0);
	debug(false);
	kernel().wakeups = 0;
	return out;
}

TEST_F(Scene, a_trace_changes_nothing)
{
	for (u32 seed = 1; seed <= 6; seed++) {
		SCOPED_TRACE(seed);
		const Strings plain = play(seed, Trace::kOff);
		for (Trace trace : { Trace::kAll, Trace::kSome }) {
			const Strings traced = play(seed, trace);
			ASSERT_EQ(traced.size(), plain.size());
			for (size_t i = 0; i < plain.size(); i++)
				ASSERT_EQ(traced[i], plain[i]) << "line " << i;
		}
	}
	EXPECT_GT(at_hooks, 1500u);
	EXPECT_GT(at_delivery, 500u);
}

} // namespace
