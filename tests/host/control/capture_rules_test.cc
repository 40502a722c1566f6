// SPDX-License-Identifier: GPL-2.0-only
// The rules, as the family for reading has them: whole, in parts, and while they change.
#include "capture_fixture.h"
#include "rules/hits.hpp"

namespace {

using namespace packets;

// A value of a rule: its type, and its bytes; none for a type without values.
using TypeAndData = std::pair<u32, Bytes>;

// Values of one type as the module orders them: by their two words.
bool behind(const TypeAndData &a, const TypeAndData &b)
{
	const auto key = [](const TypeAndData &v) {
		u32 words[2] = {};
		if (!v.second.empty())
			memcpy(words, v.second.data(), std::min<size_t>(v.second.size(), 8));
		return std::tuple(words[0], words[1]);
	};
	return key(a) < key(b);
}

class CaptureRules : public CaptureTest {
protected:
	static Messages rules(const Bytes &attributes = {}, size_t room = 8192)
	{
		return dump(MOX_CAPTURE_CMD_RULES, attributes, room);
	}
	// The values of messages, in their order.
	static std::vector<TypeAndData> values(const Messages &messages)
	{
		std::vector<TypeAndData> all;
		for (const capture::Message &m : messages)
			for (const capture::Attributes &v : m.nests(MOX_CAPTURE_RULE_VALUE)) {
				EXPECT_TRUE(v.has(MOX_CAPTURE_VALUE_HITS));
				const u32 type = v.u32(MOX_CAPTURE_VALUE_TYPE);
				const bool has = v.has(MOX_CAPTURE_VALUE_DATA);
				EXPECT_EQ(has, contract::width(type) != 0);
				all.push_back(
					{ type, has ? v.bytes(MOX_CAPTURE_VALUE_DATA) : Bytes{} });
				EXPECT_EQ(all.back().second.size(), contract::width(type));
			}
		return all;
	}
	static std::vector<u64> hits(const Messages &messages)
	{
		std::vector<u64> all;
		for (const capture::Message &m : messages)
			for (const capture::Attributes &v : m.nests(MOX_CAPTURE_RULE_VALUE))
				all.push_back(v.u64(MOX_CAPTURE_VALUE_HITS));
		return all;
	}
	// What holds of the parts of one rule.
	static void check_parts(const Messages &parts)
	{
		for (size_t i = 0; i < parts.size(); i++) {
			EXPECT_EQ(parts[i].has(MOX_CAPTURE_RULE_MORE), i + 1 < parts.size()) << i;
			EXPECT_EQ(parts[i].u64(MOX_CAPTURE_RULE_COOKIE),
				  parts[0].u64(MOX_CAPTURE_RULE_COOKIE));
		}
		const std::vector<TypeAndData> all = values(parts);
		// Each type once, with its values in order.
		std::set<u32> types;
		for (size_t from = 0, to; from < all.size(); from = to) {
			for (to = from; to < all.size() && all[to].first == all[from].first;)
				to++;
			EXPECT_TRUE(types.insert(all[from].first).second) << all[from].first;
			EXPECT_TRUE(std::is_sorted(all.begin() + from, all.begin() + to, behind));
		}
		EXPECT_EQ(std::set<TypeAndData>(all.begin(), all.end()).size(), all.size());
	}
	// The number of a socket's values.
	static size_t values_of(::sock *sk)
	{
		size_t count = 0;
		for (regular_item *item :
		     items_of(&reinterpret_cast<mox_packet_sock *>(sk)->regular))
			count += item->count;
		return count;
	}
	static Bytes port_bytes(u32 n) { return { static_cast<u8>(n >> 8), static_cast<u8>(n) }; }
	// Add or delete the destination ports of a list, in records of at most 500.
	static void ports(Sock &s, bool add, const std::vector<u32> &numbers)
	{
		for (size_t at = 0; at < numbers.size(); at += 500) {
			const size_t count = std::min<size_t>(500, numbers.size() - at);
			Bytes elements;
			for (size_t i = 0; i < count; i++)
				elements = elements + port_bytes(numbers[at + i]);
			ASSERT_EQ(s.rule(add, PACKET_IPv4_DEST_PORT_EQUAL, static_cast<u16>(count),
					 elements),
				  0);
		}
	}
	static std::vector<u32> every(u32 first, u32 step, u32 end)
	{
		std::vector<u32> numbers;
		for (u32 n = first; n < end; n += step)
			numbers.push_back(n);
		return numbers;
	}
	static std::set<u32> port_numbers(const Messages &messages)
	{
		std::set<u32> numbers;
		for (const TypeAndData &v : values(messages))
			if (v.first == PACKET_IPv4_DEST_PORT_EQUAL)
				numbers.insert(v.second[0] << 8 | v.second[1]);
		return numbers;
	}
};

TEST_F(CaptureRules, dump__a_rule_whole)
{
	kernel().pid = 4321;
	kernel().comm = "fifteen-letters";
	Sock s;
	ASSERT_EQ(s.create(), 0);
	// The types come in this order, the values of each in their own.
	ASSERT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 2, { 17, 6 }), 0);
	ASSERT_EQ(s.add(PACKET_ARP_TYPE, 1, { 2, 0 }), 0);
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 3, { 0x88, 0xcc, 8, 6, 8, 0 }), 0);
	ASSERT_EQ(s.add(PACKET_SRC_INTF_EQUAL, 1, { 7, 0, 0, 0 }), 0);
	ASSERT_EQ(s.add(PACKET_IPv4_MCAST_TRAFFIC, 1), 0);
	ASSERT_EQ(s.add(PACKET_DEST_MAC_EQUAL, 2, { 2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 1 }), 0);
	ASSERT_EQ(s.add(PACKET_PACKET_CODE_EQUAL, 1, { 5, 6 }), 0);
	const std::vector<TypeAndData> wanted = {
		{ PACKET_IPv4_PROT_EQUAL, { 6 } },
		{ PACKET_IPv4_PROT_EQUAL, { 17 } },
		{ PACKET_ARP_TYPE, { 2, 0 } },
		{ PACKET_ETH_PROT_EQUAL, { 8, 0 } },
		{ PACKET_ETH_PROT_EQUAL, { 8, 6 } },
		{ PACKET_ETH_PROT_EQUAL, { 0x88, 0xcc } },
		{ PACKET_SRC_INTF_EQUAL, { 7, 0, 0, 0 } },
		{ PACKET_IPv4_MCAST_TRAFFIC, {} },
		{ PACKET_DEST_MAC_EQUAL, { 2, 0, 0, 0, 0, 1 } },
		{ PACKET_DEST_MAC_EQUAL, { 2, 0, 0, 0, 0, 9 } },
		{ PACKET_PACKET_CODE_EQUAL, { 5, 6 } },
	};
	const auto look = [&](u32 location, u32 treatment, bool running, bool placed) {
		const Messages all = rules();
		ASSERT_EQ(all.size(), 1u);
		const capture::Message &m = all[0];
		EXPECT_EQ(m.u64(MOX_CAPTURE_RULE_COOKIE), s.sk->cookie);
		EXPECT_EQ(m.s32(MOX_CAPTURE_RULE_PID), 4321);
		EXPECT_EQ(m.text(MOX_CAPTURE_RULE_PROCESS), "fifteen-letters");
		EXPECT_EQ(m.u32(MOX_CAPTURE_RULE_LOCATION), location);
		EXPECT_EQ(m.u32(MOX_CAPTURE_RULE_TREATMENT), treatment);
		EXPECT_EQ(m.has(MOX_CAPTURE_RULE_RUNNING), running);
		EXPECT_EQ(m.has(MOX_CAPTURE_RULE_PLACE), placed);
		EXPECT_FALSE(m.has(MOX_CAPTURE_RULE_MORE));
		EXPECT_EQ(values(all), wanted);
	};
	look(0, 0, false, false);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_FETCH), 0);
	look(PACKET_LEV2_LOC, PACKET_FETCH, true, true);
	// At a number that has no library the rule is not entered.
	ASSERT_EQ(s.set(PACKET_LOCATION, 77), 0);
	look(77, PACKET_FETCH, false, false);
	ASSERT_EQ(s.set(PACKET_LOCATION, 0), 0);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	look(0, PACKET_COPY, false, false);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV3_RESV_LOC), 0);
	look(PACKET_LEV3_RESV_LOC, PACKET_COPY, true, true);
}

TEST_F(CaptureRules, dump__rules_without_values)
{
	Sock s, all;
	ASSERT_EQ(s.create(), 0);
	all.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const Messages messages = rules();
	ASSERT_EQ(messages.size(), 2u);
	EXPECT_EQ(messages[0].count(MOX_CAPTURE_RULE_VALUE), 0u);
	EXPECT_EQ(values({ messages[1] }), (std::vector<TypeAndData>{ { PACKET_ALL, {} } }));
	EXPECT_EQ(s.refs(), 2u) << "the dump's reference is dropped";
}

// The places of a location's rules order them as delivery asks them.
TEST_F(CaptureRules, dump__places)
{
	const u32 treatments[] = { PACKET_COPY, PACKET_TRAP,  PACKET_FETCH, PACKET_COPY,
				   PACKET_TRAP, PACKET_FETCH, PACKET_COPY };
	std::deque<Sock> socks(std::size(treatments));
	for (size_t i = 0; i < socks.size(); i++)
		socks[i].capture(PACKET_LEV2_LOC, treatments[i]);
	std::map<Bytes, u64> by_place;
	for (const capture::Message &m : rules()) {
		EXPECT_EQ(m.bytes(MOX_CAPTURE_RULE_PLACE).size(), 16u);
		by_place[m.bytes(MOX_CAPTURE_RULE_PLACE)] = m.u64(MOX_CAPTURE_RULE_COOKIE);
	}
	std::vector<u64> wanted, found;
	for (const RuleView &rule : rules_in(&lib_of(PACKET_LEV2_LOC)->regulars))
		for (Sock &s : socks)
			if (rule.owner == &s.po())
				wanted.push_back(s.sk->cookie);
	for (auto &[place, cookie] : by_place)
		found.push_back(cookie);
	ASSERT_EQ(wanted.size(), socks.size());
	EXPECT_EQ(found, wanted);
}

TEST_F(CaptureRules, dump__hits)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 3, { 0x88, 0xcc, 8, 6, 8, 0 }), 0);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	for (u16 type : { 0x0806, 0x88cc, 0x0806, 0x0806, 0x8100 })
		frame(PACKET_LEV2_LOC, {}, eth(type) + ::Bytes(46));
	// 0x0800, 0x0806, 0x88cc
	EXPECT_EQ(hits(rules()), (std::vector<u64>{ 0, 3, 1 }));
	// All 64 bits.
	for (regular_item *item : items_of(&s.po().regular))
		for (regular_data *datum : datas_of(item))
			datum->hits = { 5, 6 };
	EXPECT_EQ(hits(rules()), std::vector<u64>(3, (u64{ 6 } << 32) + 5));
	Sock all;
	all.capture(PACKET_LEV2_LOC, PACKET_COPY);
	frame(PACKET_LEV2_LOC, {}, eth(0x1234) + ::Bytes(46));
	EXPECT_EQ(hits(rules(attribute(MOX_CAPTURE_REQUEST_COOKIE, u64{ all.sk->cookie }))),
		  std::vector<u64>{})
		<< "no cookie yet";
	EXPECT_EQ(hits(rules()).back(), 1u);
	ASSERT_NE(all.sk->cookie, 0u);
	EXPECT_EQ(hits(rules(attribute(MOX_CAPTURE_REQUEST_COOKIE, u64{ all.sk->cookie }))),
		  std::vector<u64>{ 1 });
}

// ---- in parts ------------------------------------------------------------------------------

TEST_F(CaptureRules, parts__in_buffers_of_any_size)
{
	Sock before, s, behind_it;
	before.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_ALL), 0);
	ASSERT_EQ(s.add(PACKET_IPv4_MCAST_TRAFFIC, 1), 0);
	ASSERT_EQ(s.add(PACKET_DEST_MAC_EQUAL, 2, { 2, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 1 }), 0);
	ports(s, true, every(0, 7, 200));
	behind_it.capture(PACKET_IPv4_LOC, PACKET_COPY);
	const std::vector<TypeAndData> wanted = values(rules());
	ASSERT_EQ(wanted.size(), 1u + 1 + 1 + 2 + 29 + 1);
	size_t fits = 0;
	for (size_t room = 100; room < 1500; room += room < 500 ? 1 : 13) {
		SCOPED_TRACE(room);
		Reader reader(MOX_CAPTURE_CMD_RULES);
		const int first = reader.fill(room);
		if (first == -EMSGSIZE) {
			EXPECT_EQ(fits, 0u) << "a smaller one has room";
			continue;
		}
		fits++;
		Messages all = reader.last;
		const Messages more = reader.rest(room);
		all.insert(all.end(), more.begin(), more.end());
		EXPECT_EQ(values(all), wanted);
		ASSERT_GE(all.size(), 3u);
		check_parts({ all.begin() + 1, all.end() - 1 });
		EXPECT_FALSE(all[0].has(MOX_CAPTURE_RULE_MORE));
		if (HasFailure())
			break;
	}
	EXPECT_GT(fits, 400u);
}

TEST_F(CaptureRules, parts__thirty_thousand_values)
{
	Sock s, other;
	ASSERT_EQ(s.create(), 0);
	ports(s, true, every(0, 2, 60000));
	other.capture(PACKET_LEV2_LOC, PACKET_COPY);
	for (size_t room : { 4096, 8192, 16384 }) {
		SCOPED_TRACE(room);
		Messages all = rules({}, room);
		ASSERT_GE(all.size(), 60u);
		EXPECT_FALSE(all.back().has(MOX_CAPTURE_RULE_MORE));
		EXPECT_EQ(all.back().u64(MOX_CAPTURE_RULE_COOKIE), other.sk->cookie);
		all.pop_back();
		check_parts(all);
		const std::vector<u32> wanted = every(0, 2, 60000);
		EXPECT_EQ(port_numbers(all), std::set<u32>(wanted.begin(), wanted.end()));
	}
}

// Values that stay come once each; those that come or go may or may not.
TEST_F(CaptureRules, parts__while_values_come_and_go)
{
	std::minstd_rand random(5);
	for (int round = 0; round < 6; round++) {
		SCOPED_TRACE(round);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 }), 0);
		ASSERT_EQ(s.add(PACKET_ARP_TYPE, 1, { 2, 0 }), 0);
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		// Even ports stay, odd ones come and go.
		std::vector<u32> stay = every(0, 2, 1000);
		ports(s, true, stay);
		ports(s, true, every(1, 4, 1000));
		Reader reader(MOX_CAPTURE_CMD_RULES);
		Messages all;
		while (reader.fill(500 + random() % 3000) > 0) {
			all.insert(all.end(), reader.last.begin(), reader.last.end());
			for (int i = 0; i < 20; i++)
				ports(s, random() % 2,
				      { 2 * (static_cast<u32>(random()) % 500) + 1 });
			// A type that goes, and one that comes in front and behind.
			const u32 type = random() % 2 ? PACKET_IPv4_SRC_PORT_EQUAL
						      : PACKET_SRC_MAC_EQUAL;
			const Bytes value(contract::width(type), 3);
			if (random() % 2)
				ASSERT_EQ(s.add(static_cast<u16>(type), 1, value), 0);
			else
				s.del(static_cast<u16>(type), 1, value);
		}
		check_parts(all);
		const std::set<u32> found = port_numbers(all);
		for (u32 n : stay)
			EXPECT_TRUE(found.count(n)) << n;
		for (const TypeAndData &v : { TypeAndData{ PACKET_ETH_PROT_EQUAL, { 8, 6 } },
					      { PACKET_ARP_TYPE, { 2, 0 } } }) {
			const auto seen = values(all);
			EXPECT_EQ(std::count(seen.begin(), seen.end(), v), 1) << v.first;
		}
	}
}

// The value and the type where a dump goes on are deleted, and all behind.
TEST_F(CaptureRules, parts__the_place_itself_goes)
{
	for (int what = 0; what < 4; what++) {
		SCOPED_TRACE(what);
		Sock s;
		ASSERT_EQ(s.create(), 0);
		ports(s, true, every(0, 1, 200));
		ASSERT_EQ(s.add(PACKET_ARP_TYPE, 1, { 2, 0 }), 0);
		Reader reader(MOX_CAPTURE_CMD_RULES);
		ASSERT_GT(reader.fill(1000), 0);
		Messages all = reader.last;
		ASSERT_EQ(all.size(), 1u);
		EXPECT_TRUE(all[0].has(MOX_CAPTURE_RULE_MORE));
		const std::set<u32> first = port_numbers(all);
		const u32 last = values(all).back().second[0] << 8 | values(all).back().second[1];
		ASSERT_LT(first.size(), 100u);
		std::set<u32> wanted;
		if (what == 0) {
			ports(s, false, { last });
			for (u32 n : every(0, 1, 200))
				wanted.insert(n);
		} else if (what == 1) {
			ports(s, false, every(0, 1, 200));
			wanted = first;
		} else if (what == 2) {
			// The same type again, with one value that was there.
			ports(s, false, every(0, 1, 200));
			ports(s, true, { *first.begin() });
			wanted = first;
		} else {
			for (u32 n : every(0, 1, 200))
				if (!first.count(n))
					ports(s, false, { n });
			wanted = first;
		}
		const Messages more = reader.rest(1000);
		all.insert(all.end(), more.begin(), more.end());
		check_parts(all);
		EXPECT_EQ(port_numbers(all), wanted);
		EXPECT_EQ(values(all).back().first, u32{ PACKET_ARP_TYPE });
	}
}

// ---- sockets that go meanwhile ------------------------------------------------------------------

// The dump holds the socket whose rule it is writing, and its namespace.
TEST_F(CaptureRules, closed__between_two_parts)
{
	for (bool done_early : { false, true })
		for (bool others : { false, true }) {
			SCOPED_TRACE(done_early * 2 + others);
			Sock s, next;
			ASSERT_EQ(s.create(kRaw, 0, &other_ns), 0);
			ports(s, true, every(0, 1, 500));
			ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
			ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
			if (others)
				next.capture(PACKET_LEV2_LOC, PACKET_COPY);
			Reader reader(MOX_CAPTURE_CMD_RULES);
			ASSERT_GT(reader.fill(2000), 0);
			EXPECT_TRUE(reader.last[0].has(MOX_CAPTURE_RULE_MORE));
			const u64 cookie = reader.last[0].u64(MOX_CAPTURE_RULE_COOKIE);
			::sock *const sk = s.sk;
			ASSERT_EQ(s.release(), 0);
			EXPECT_TRUE(kernel().socks.count(sk)) << "held";
			EXPECT_EQ(other_ns.refs, 2) << "held";
			if (!done_early) {
				const Messages more = reader.rest(2000);
				ASSERT_EQ(more.size(), others ? 2u : 1u);
				EXPECT_EQ(more[0].u64(MOX_CAPTURE_RULE_COOKIE), cookie);
				EXPECT_EQ(more[0].count(MOX_CAPTURE_RULE_VALUE), 0u);
				EXPECT_FALSE(more[0].has(MOX_CAPTURE_RULE_MORE));
				EXPECT_FALSE(more[0].has(MOX_CAPTURE_RULE_RUNNING));
				EXPECT_FALSE(kernel().socks.count(sk)) << "behind its last part";
			}
			reader.close();
			EXPECT_FALSE(kernel().socks.count(sk));
			EXPECT_EQ(other_ns.refs, 1);
		}
}

TEST_F(CaptureRules, closed__others_between_two_parts)
{
	std::deque<Sock> socks(5);
	for (Sock &s : socks) {
		ASSERT_EQ(s.create(), 0);
		ports(s, true, every(0, 1, 100));
	}
	Reader reader(MOX_CAPTURE_CMD_RULES);
	ASSERT_GT(reader.fill(2000), 0);
	const u64 first = socks[0].sk->cookie;
	const u64 last = (rules(), socks[4].sk->cookie);
	for (int i : { 3, 1, 2 })
		ASSERT_EQ(socks[i].release(), 0);
	std::set<u64> seen;
	for (const capture::Message &m : reader.rest(2000))
		seen.insert(m.u64(MOX_CAPTURE_RULE_COOKIE));
	EXPECT_EQ(seen, (std::set<u64>{ first, last }));
}

// A release on another CPU waits for the message that is being written: it frees the values.
TEST_F(CaptureRules, closed__release_takes_the_socket_lock_while_it_frees_the_rule)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ports(s, true, every(0, 1, 10));
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	::sock *const sk = s.sk;
	bool locked = false;
	size_t before = 99, behind = 99;
	LockTrace trace;
	trace.look = [&](const std::string &step) {
		if (step != "+sock")
			return;
		locked = true;
		EXPECT_EQ(kernel().held.back().first, &sk->lock);
		before = values_of(sk);
	};
	kernel().at.watch(Point::kUnlocking, [&](const void *lock) {
		if (lock == &sk->lock)
			behind = values_of(sk);
	});
	seam_sock_hold(sk);
	ASSERT_EQ(s.release(), 0);
	kernel().at.erase(Point::kUnlocking);
	seam_sock_put(sk);
	EXPECT_TRUE(locked);
	EXPECT_EQ(before, 10u);
	EXPECT_EQ(behind, 0u);
}

} // namespace
