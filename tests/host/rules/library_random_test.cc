// SPDX-License-Identifier: GPL-2.0-only
// The module against the naive reference: random rules, edits and frames over tiny
// value ranges, so that rules collide. After each step every list of a library is
// recounted and compared, entry by entry and copy by copy, with what the reference
// holds; every counter, hook call, answer and delivery as well.
//
// SEED=n replays a run, STEPS=n changes its length.
#include <random>

#include "module_fixture.h"
#include "oracle/sockets.h"

namespace {

using namespace packets;

constexpr int kSockets = 7;

class Random : public ModuleTest {
protected:
	void SetUp() override
	{
		ModuleTest::SetUp();
		const char *given = getenv("SEED");
		seed = given ? strtoull(given, nullptr, 0) : std::random_device{}();
		steps = getenv("STEPS") ? atoi(getenv("STEPS")) : 20000;
		rng.seed(seed);
		reference.truesize = fake::truesize;
		reference.world.lev2_block = fake::word(efmp().interfaces[4094]);
		reference.world.lev3_block = fake::word(efmp().interfaces[4095]);
		const u8 mac[6] = { 2, 0, 0, 0, 0, 8 };
		other_port = fake::word(efmp().add_interface(8, "eth8", mac));
	}

	u32 below(u32 n) { return rng() % n; }
	u32 pick(std::initializer_list<u32> of) { return *(of.begin() + below(of.size())); }
	// A location where rules may stand; crowded ones more often.
	u32 location()
	{
		return pick({ 2, 2, 2, 2, 3, 3, 4, 4, 7, 7, 7, 8, 8, 8, 1, 9, 10,
			      below(2) ? 0u : 11u });
	}

	Bytes element(u32 type)
	{
		switch (contract::width(type)) {
		case 0:
			return {};
		case 1:
			if (type == PACKET_IPv4_PROT_EQUAL || type == PACKET_IPv6_PROT_EQUAL)
				return { u8(pick({ 6, 17, 58 })) };
			if (type == PACKET_ICMPV6_TYPE_EQUAL)
				return { u8(pick({ 0, 130, 135 })) };
			return { u8(below(3)) };
		case 2:
			if (type == PACKET_ETH_PROT_EQUAL)
				return be16(pick({ 0x0800, 0x86dd, 0x888e, 0x0806, 3 }));
			if (type == PACKET_ARP_TYPE)
				return be16(pick({ 1, 2, 0x100 }));
			if (type == PACKET_PACKET_CODE_EQUAL)
				return { u8(below(2)), u8(below(2)) };
			if (type == PACKET_SNAP_ETH_TYPE_EQUAL)
				return be16(pick({ 3, 0x2004 }));
			return be16(1 + below(2));
		case 4:
			return u32_bytes(type == PACKET_PID_T ? pick({ 0, 1, 0xffffffff })
							      : 7 + below(2));
		default:
			return { 2, 0, 0, 0, 0, u8(1 + below(2)) };
		}
	}
	u32 rule_type()
	{
		// The types that anything at all matches, more often.
		return pick({ 0,  1,  1,  2,  2,  3,  3,  3,  3,  4,  5,  5,  6,  7,  8,  9,  10,
			      10, 10, 11, 12, 13, 14, 14, 15, 16, 16, 16, 17, 17, 18, 18, 19, 20 });
	}

	Bytes layer3(Meta &m)
	{
		if (m.kind == 1) {
			Bytes dst = below(2) ? Bytes{ 10, 0, 0, 1 } : Bytes{ 239, 1, 1, 1 };
			return ipv4(pick({ 2, 6, 17, 17 }), dst,
				    ports(1 + below(2), 1 + below(2), pick({ 8, 9, 20 })));
		}
		Bytes dst = below(2) ? addr6(0x20, 1, 1) : addr6(0xff, pick({ 2, 5 }), 1);
		switch (below(3)) {
		case 0:
			return ipv6(17, dst, ports(1 + below(2), 1 + below(2)));
		case 1:
			return ipv6(58, dst, { u8(pick({ 0, 130, 135 })), 0, 0, 0 });
		default:
			return ipv6(pick({ 0, 44 }), dst,
				    fragment(6, pick({ 0, 8 })) + ports(1, 2, 20));
		}
	}
	Meta meta()
	{
		Meta m;
		m.kind = pick({ 1, 2, 27 });
		m.l2_len = m.kind != 2 && below(4) == 0 ? 0 : 14;
		m.wlan_flags = pick({ 0, 0, 0, 0x40000, 0x48000 });
		m.attr = below(2);
		m.code = below(2);
		m.sub_code = below(2);
		m.source = below(2) ? port : other_port;
		m.dest = pick({ 0, port, reference.world.lev2_block, reference.world.lev3_block });
		return m;
	}
	Bytes frame_bytes(Meta &m)
	{
		u16 type = m.kind == 1    ? 0x0800
			   : m.kind == 27 ? 0x86dd
					  : pick({ 0x888e, 0x0806, 0x0800, 40 });
		Bytes header = m.l2_len ? eth(type, 1 + below(2), 1 + below(2)) : Bytes{};
		if (m.kind != 2)
			return header + layer3(m);
		switch (type) {
		case 0x888e:
			return header + Bytes{ 1, u8(below(3)) } +
			       Bytes{ 0, 0, 0, 0, 0, 0, u8(pick({ 0, 0xfe })) } +
			       Bytes{ 0, 0, 0, 0, 0, 0, u8(below(2)) } + Bytes(30, 0);
		case 0x0806:
			return header + Bytes{ 0, 1, 8, 0, 6, 4, 0, u8(below(3)) } + Bytes(20, 0);
		case 40:
			return header + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, u8(4 + below(2)) };
		default:
			return header + Bytes(46, 0);
		}
	}

	// ---- one step each: the same to both sides

	void create(int id)
	{
		int type = below(2) ? kRaw : kDgram;
		u16 protocol = below(3) ? 0 : __builtin_bswap16(0x0800);
		socks[id] = std::make_unique<Sock>();
		int got = socks[id]->create(type, protocol);
		EXPECT_EQ(got, reference.create(id, type, protocol));
		if (got) {
			socks[id].reset();
			return;
		}
		if (below(4) == 0) {
			bool deaf = below(2);
			socks[id]->sk->has_filter = reference.at(id).has_filter = true;
			socks[id]->sk->verdict = reference.at(id).verdict = deaf ? 0 : -1;
		}
		if (below(4) == 0)
			socks[id]->sk->rcvbuf = reference.at(id).rcvbuf = 3000;
		// No process opens a socket inside a vsd; delivery and filters look all the same.
		if (below(8) == 0)
			socks[id]->po().vsd = reference.at(id).vsd = 1;
		if (below(4)) {
			u32 t = 1 + below(5), l = location();
			EXPECT_EQ(socks[id]->set(PACKET_TREATMENT, t),
				  reference.set_treatment(id, t));
			EXPECT_EQ(socks[id]->set(PACKET_LOCATION, l),
				  reference.set_location(id, l));
		}
	}
	void release(int id)
	{
		u32 before = g_free_skb_num;
		size_t queued = reference.at(id).queue.size();
		EXPECT_EQ(socks[id]->release(), 0);
		socks[id].reset();
		reference.release(id);
		EXPECT_EQ(g_free_skb_num, before + queued);
	}
	void edit(int id)
	{
		// Few conditions a rule, or no frame would ever satisfy them all.
		const oracle::Regular &rule = reference.at(id).regular;
		if (rule.items.size() > below(3)) {
			const oracle::Item &item = rule.items[below(rule.items.size())];
			u32 stride = contract::width(item.type);
			Bytes all;
			for (const oracle::Value &v : item.datas)
				all.insert(all.end(), v.begin(), v.begin() + stride);
			u32 count = item.datas.size(), type = item.type;
			EXPECT_EQ(socks[id]->rule(false, type, count, all, 0),
				  reference.del_rule(id, type, count, all));
			return;
		}
		bool add = below(5) != 0;
		u32 type = rule_type();
		u32 count = below(8) ? 1 + below(2) : below(4);
		Bytes elements;
		for (u32 i = 0; i < count; i++)
			elements = elements + element(type);
		int got = socks[id]->rule(add, type, count, elements, 0);
		EXPECT_EQ(got, add ? reference.add_rule(id, type, count, elements)
				   : reference.del_rule(id, type, count, elements));
	}
	void bind(int id)
	{
		u32 ifindex = pick({ 0, 7, 8 });
		u16 protocol = below(3) ? 0 : __builtin_bswap16(pick({ 0x0800, 0x86dd }));
		EXPECT_EQ(socks[id]->bind(ifindex, protocol),
			  reference.bind(id, ifindex, protocol));
		EXPECT_EQ(socks[id]->po().ifindex, reference.at(id).ifindex);
		EXPECT_EQ(socks[id]->po().protocol, reference.at(id).protocol);
	}
	void read(int id)
	{
		oracle::Socket &s = reference.at(id);
		if (s.queue.empty())
			return;
		oracle::Received want = s.queue.front();
		s.queue.pop_front();
		s.rmem -= want.truesize;
		msghdr msg;
		u8 name[128];
		msg.name = name;
		EXPECT_EQ(mox_packet_recvmsg(&socks[id]->socket, &msg, 65536, 0), int(want.length));
		u32 ifindex;
		memcpy(&ifindex, name + 4, 4);
		EXPECT_EQ(ifindex, want.ifindex);
	}
	// One frame through a location: answer, queueing, delivery.
	void packet()
	{
		u32 index = below(9);
		int id = below(kSockets);
		// Mostly where a socket listens.
		if (below(5) && socks.count(id) && socks[id] &&
		    reference.model.library(reference.at(id).regular.location))
			index = std::min(reference.at(id).regular.location,
					 7u + (reference.at(id).regular.location == 8)) -
				1;
		const HookTraits &h = kHooks[index];
		Meta m = meta();
		Bytes bytes = frame_bytes(m);
		void *e = make(m, bytes);
		Packet p = packets::read(e);
		WlanPacket w = packets::read_wlan(e);
		oracle::Library *lib = reference.model.library(h.location);
		bool wlan = h.location == 8;
		u32 treatment = wlan ? wlan_fast_filter(w, *lib, reference.world)
				     : fast_filter(p, *lib, reference.world);
		bool taken = treatment == PACKET_FETCH || (treatment == PACKET_TRAP && !wlan);
		bool copied = treatment != 0 && !taken;
		u64 clones = efmp().clones;

		EXPECT_EQ(hook(h.func, e, below(2)), taken ? h.taken : h.go_on);
		EXPECT_EQ(efmp().clones - clones, copied ? 1u : 0u);
		if (!taken)
			efmp().drop(e);
		std::vector<int> offered;
		if (taken || copied) {
			u32 total = m.total >= 0 ? m.total : bytes.size();
			offered = wlan ? reference.deliver_wlan(w, total, m.l2_len)
				       : reference.deliver(h.location, p, total, m.l2_len);
			hits++;
		}
		deliveries += offered.size();
		drain();
		EXPECT_TRUE(efmp().live.empty());
	}

	// ---- comparison

	static oracle::Value value_of(const oracle::Entry &e)
	{
		return e.value.value_or(oracle::Value{});
	}
	RuleView view_of(const oracle::Regular &r)
	{
		RuleView v{ &socks[r.owner]->po(), r.treatment, r.location, {} };
		for (const oracle::Item &item : r.items)
			v.items.push_back({ item.type, item.datas });
		return v;
	}
	std::vector<RuleView> views_of(const std::vector<oracle::Regular> &list)
	{
		std::vector<RuleView> out;
		for (const oracle::Regular &r : list)
			out.push_back(view_of(r));
		return out;
	}
	void compare()
	{
		for (u32 location = 1; location <= 8; location++) {
			const oracle::Library &want = *reference.model.library(location);
			const packet_regular_lib *got = lib_of(location);
			ASSERT_EQ(got->regular_count, want.regulars.size())
				<< "location " << location;
			ASSERT_EQ(got->filter_count, want.filter_list.size())
				<< "location " << location;
			verify(got);
			std::vector<RuleView> regulars;
			for (const oracle::Regular *r : want.regulars)
				regulars.push_back(view_of(*r));
			EXPECT_EQ(rules_in(&got->regulars), regulars)
				<< "rules at location " << location;
			std::vector<EntryView> entries;
			for (const oracle::Entry &e : want.filter_list)
				entries.push_back({ e.type, value_of(e), views_of(e.match_list),
						    views_of(e.local_match_list) });
			EXPECT_EQ(entries_in(got), entries) << "keys at location " << location;
		}
		EXPECT_EQ(counters(), reference.model.counters);
		EXPECT_EQ(g_alloc_skb_num, reference.in_flight);
		EXPECT_EQ(g_packet_thread_debug.alloc_skb_failed, reference.skb_failures);
		for (auto &[id, sock] : socks) {
			if (!sock)
				continue;
			const oracle::Socket &want = reference.at(id);
			mox_packet_sock &po = sock->po();
			EXPECT_EQ(sock->running(), want.running) << "socket " << id;
			EXPECT_EQ(sock->refs(), want.running ? 3u : 2u) << "socket " << id;
			EXPECT_EQ(view(po.regular), view_of(want.regular)) << "socket " << id;
			EXPECT_EQ((oracle::SocketCounters{ po.filter_drops, po.rcvbuf_full_drops,
							   po.trim_fail_drops, po.recv_packets }),
				  want.counters)
				<< "socket " << id;
			EXPECT_EQ(u32(sock->sk->rmem), want.rmem) << "socket " << id;
			ASSERT_EQ(sock->queued(), want.queue.size()) << "socket " << id;
			if (!want.queue.empty())
				EXPECT_EQ(sock->buffer(want.queue.size() - 1).len,
					  want.queue.back().length);
		}
		std::vector<std::string> calls;
		for (const oracle::HookCall &c : reference.model.calls)
			calls.push_back(c.call + " " + c.target);
		EXPECT_EQ(efmp().registrations, calls);
		efmp().registrations.clear();
		reference.model.calls.clear();
	}

	void step()
	{
		int id = below(kSockets);
		bool there = socks.count(id) && socks[id];
		u32 what = below(100);
		if (!there)
			return what < 70 ? create(id) : packet();
		if (what < 2)
			release(id);
		else if (what < 20)
			edit(id);
		else if (what < 27) {
			u32 t = below(12) ? 1 + below(5) : pick({ 0, 6 });
			EXPECT_EQ(socks[id]->set(PACKET_TREATMENT, t),
				  reference.set_treatment(id, t));
		} else if (what < 35) {
			u32 l = below(12) ? location() : pick({ 5, 6 });
			EXPECT_EQ(socks[id]->set(PACKET_LOCATION, l),
				  reference.set_location(id, l));
		} else if (what < 38)
			bind(id);
		else if (what < 45)
			read(id);
		else
			packet();
	}
	void run(const char *name)
	{
		printf("SEED=%llu STEPS=%d Random.%s\n", static_cast<unsigned long long>(seed),
		       steps, name);
		for (int i = 0; i < steps; i++) {
			SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(i));
			step();
			compare();
			if (HasFailure())
				break;
		}
		// A run in which hardly anything matched would prove nothing.
		EXPECT_GT(hits, steps / 40);
		EXPECT_GT(deliveries, steps / 40);
		kernel().fault = nullptr;
		reference.model.allocation = [](oracle::Cache) { return true; };
		socks.clear();
	}

	uint64_t seed = 0;
	int steps = 0, hits = 0, deliveries = 0;
	std::mt19937_64 rng;
	oracle::Sockets reference;
	std::map<int, std::unique_ptr<Sock>> socks;
	u32 other_port = 0;

	using u64 = uint64_t;
};

TEST_F(Random, module_and_reference_agree)
{
	run("module_and_reference_agree");
}

// The same with every thirtieth allocation of each cache, and every tenth of a socket
// buffer, failing: what is left out must be the same on both sides.
TEST_F(Random, module_and_reference_agree_without_memory)
{
	steps /= 2;
	std::map<Fail, u32> taken, asked;
	auto fails = [](std::map<Fail, u32> &count, Fail call) {
		bool buffer = call == Fail::kSkbAlloc || call == Fail::kSkbClone;
		return ++count[call] % (buffer ? 10 : 30) == 0;
	};
	kernel().fault = [&](Fail call) {
		return (call == Fail::kSkbAlloc || call == Fail::kSkbClone ||
			call <= Fail::kCopyAlloc) &&
		       fails(taken, call);
	};
	reference.model.allocation = [&](oracle::Cache c) {
		return !fails(asked, fake::alloc_of(c));
	};
	reference.skb_allocation = [&] { return !fails(asked, Fail::kSkbAlloc); };
	reference.skb_clone = [&] { return !fails(asked, Fail::kSkbClone); };
	run("module_and_reference_agree_without_memory");
	EXPECT_GT(reference.model.counters.data_failures, 0u);
	EXPECT_GT(reference.skb_failures, 0u);
}

// And with a platform that refuses every third registration of a module record.
TEST_F(Random, module_and_reference_agree_with_a_refusing_platform)
{
	steps /= 4;
	u32 asked = 0, answered = 0;
	kernel().fault = [&](Fail call) { return call == Fail::kRegModule && ++asked % 3 == 0; };
	reference.model.reg_module = [&](const std::string &) {
		return ++answered % 3 == 0 ? -5 : 0;
	};
	run("module_and_reference_agree_with_a_refusing_platform");
	EXPECT_GT(asked, 3u);
}

} // namespace
