// SPDX-License-Identifier: GPL-2.0-only
// The sockets, as the family for reading has them.
#include "capture_fixture.h"

namespace {

using namespace packets;

class CaptureSockets : public CaptureTest {
protected:
	static Messages sockets(const Bytes &attributes = {}, size_t room = 8192)
	{
		return dump(MOX_CAPTURE_CMD_SOCKETS, attributes, room);
	}
	// The cookies of messages, in their order.
	static std::vector<u64> cookies(const Messages &messages)
	{
		std::vector<u64> all;
		for (const capture::Message &m : messages)
			all.push_back(m.u64(MOX_CAPTURE_SOCKET_COOKIE));
		return all;
	}
	// The message of the only socket.
	static capture::Message only()
	{
		const Messages all = sockets();
		EXPECT_EQ(all.size(), 1u);
		return all.empty() ? capture::Message{} : all[0];
	}
};

TEST_F(CaptureSockets, dump__a_fresh_socket)
{
	kernel().pid = 1234;
	kernel().comm = "fifteen-letters";
	Sock s;
	ASSERT_EQ(s.create(), 0);
	s.sk->uid = 1000;
	s.sk->inode = 4242;
	fake::init_net().inode = 4026531992;
	const capture::Message m = only();
	EXPECT_EQ(m.u64(MOX_CAPTURE_SOCKET_COOKIE), s.sk->cookie);
	EXPECT_GT(s.sk->cookie, 0xffffffffu) << "all 64 bits are shown";
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_INODE), 4242u);
	EXPECT_EQ(m.s32(MOX_CAPTURE_SOCKET_PID), 1234);
	EXPECT_EQ(m.text(MOX_CAPTURE_SOCKET_PROCESS), "fifteen-letters");
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_UID), 1000u);
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_NETNS), 4026531992u);
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_TYPE), 3u);
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_QUEUE_LIMIT), static_cast<u32>(s.sk->rcvbuf));
	for (int number :
	     { int{ MOX_CAPTURE_SOCKET_LOCATION }, int{ MOX_CAPTURE_SOCKET_TREATMENT },
	       int{ MOX_CAPTURE_SOCKET_IFINDEX }, int{ MOX_CAPTURE_SOCKET_QUEUE },
	       int{ MOX_CAPTURE_SOCKET_QUEUE_BYTES }, int{ MOX_CAPTURE_SOCKET_RULE_BYTES },
	       int{ MOX_CAPTURE_SOCKET_RULE_WORK } })
		EXPECT_EQ(m.u32(number), 0u) << number;
	EXPECT_EQ(m.number<u16>(MOX_CAPTURE_SOCKET_PROTOCOL), 0);
	for (int flag :
	     { int{ MOX_CAPTURE_SOCKET_RUNNING }, int{ MOX_CAPTURE_SOCKET_CTRL_INFO },
	       int{ MOX_CAPTURE_SOCKET_TIMESTAMPS }, int{ MOX_CAPTURE_SOCKET_FILTERED } })
		EXPECT_FALSE(m.has(flag)) << flag;
	const capture::Attributes &counters = m.nest(MOX_CAPTURE_SOCKET_COUNTERS);
#define ZERO(name, ...) EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_##name), 0u);
	MOX_CAPTURE_COUNTERS_TABLE(ZERO)
}

TEST_F(CaptureSockets, dump__what_calls_change)
{
	Sock s;
	ASSERT_EQ(s.create(kDgram), 0);
	const struct {
		const char *what;
		std::function<void()> act;
		std::function<void(const capture::Message &)> look;
	} rows[] = {
		{ "type", [] {}, [](auto &m) { EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_TYPE), 2u); } },
		{ "rule",
		  [&] {
			  EXPECT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 2, { 8, 0, 8, 6 }), 0);
		  },
		  [&](auto &m) {
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_RULE_BYTES), s.po().rule_bytes);
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_RULE_WORK), s.po().rule_work);
			  EXPECT_GT(s.po().rule_bytes, 0u);
		  } },
		{ "treatment", [&] { EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_TRAP), 0); },
		  [](auto &m) {
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_TREATMENT), u32{ PACKET_TRAP });
			  EXPECT_FALSE(m.has(MOX_CAPTURE_SOCKET_RUNNING)) << "at no location";
		  } },
		{ "location", [&] { EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_WLAN_LOC), 0); },
		  [](auto &m) {
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_LOCATION), u32{ PACKET_WLAN_LOC });
			  EXPECT_TRUE(m.has(MOX_CAPTURE_SOCKET_RUNNING));
		  } },
		{ "a location that is none",
		  [&] { EXPECT_EQ(s.set(PACKET_LOCATION, 0xffffffff), 0); },
		  [](auto &m) {
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_LOCATION), 0xffffffffu);
			  EXPECT_FALSE(m.has(MOX_CAPTURE_SOCKET_RUNNING));
		  } },
		{ "control records", [&] { EXPECT_EQ(s.set(PACKET_CTRL_INFO, 1), 0); },
		  [](auto &m) { EXPECT_TRUE(m.has(MOX_CAPTURE_SOCKET_CTRL_INFO)); } },
		{ "none again", [&] { EXPECT_EQ(s.set(PACKET_CTRL_INFO, 0), 0); },
		  [](auto &m) { EXPECT_FALSE(m.has(MOX_CAPTURE_SOCKET_CTRL_INFO)); } },
		{ "times", [&] { s.sk->stamped = true; },
		  [](auto &m) { EXPECT_TRUE(m.has(MOX_CAPTURE_SOCKET_TIMESTAMPS)); } },
		{ "filter", [&] { s.sk->has_filter = true; },
		  [](auto &m) { EXPECT_TRUE(m.has(MOX_CAPTURE_SOCKET_FILTERED)); } },
		{ "no filter", [&] { s.sk->has_filter = false; },
		  [](auto &m) { EXPECT_FALSE(m.has(MOX_CAPTURE_SOCKET_FILTERED)); } },
		{ "buffer", [&] { s.sk->rcvbuf = 4444; },
		  [](auto &m) { EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_QUEUE_LIMIT), 4444u); } },
		{ "bind", [&] { EXPECT_EQ(s.bind(7, 0x0608), 0); },
		  [](auto &m) {
			  EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_IFINDEX), 7u);
			  EXPECT_EQ(m.template number<u16>(MOX_CAPTURE_SOCKET_PROTOCOL), 0x0608);
		  } },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		row.act();
		row.look(only());
	}
}

TEST_F(CaptureSockets, dump__the_protocol_of_creation)
{
	Sock s;
	ASSERT_EQ(s.create(kRaw, 0x0608), 0);
	EXPECT_EQ(only().number<u16>(MOX_CAPTURE_SOCKET_PROTOCOL), 0x0608);
	EXPECT_FALSE(only().has(MOX_CAPTURE_SOCKET_RUNNING)) << "at no location yet";
}

TEST_F(CaptureSockets, dump__queue_and_ledger)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
	for (int i = 0; i < 3; i++)
		frame(PACKET_LEV2_LOC, {}, lldp);
	const capture::Message m = only();
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_QUEUE), 3u);
	EXPECT_EQ(m.u32(MOX_CAPTURE_SOCKET_QUEUE_BYTES), static_cast<u32>(s.sk->rmem));
	EXPECT_GT(s.sk->rmem, 0);
	const capture::Attributes &counters = m.nest(MOX_CAPTURE_SOCKET_COUNTERS);
	EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_MATCHED), 3u);
	EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_RECV_PACKETS), 3u);
	EXPECT_EQ(counters.u64(MOX_CAPTURE_COUNTERS_READ), 0u);
	// Every counter at its attribute, with all of its 64 bits.
	const socket_ledger kept = s.po().ledger;
	for (u32 number = 1; number <= MOX_SOCKET_TOTALS; number++)
		s.po().ledger.totals[number - 1] = { 7000 + number, 0x100 + number };
	const capture::Message all = only();
	const capture::Attributes &shown = all.nest(MOX_CAPTURE_SOCKET_COUNTERS);
#define EACH(name, number, kind, field)                                                       \
	EXPECT_EQ(shown.u64(number), (u64{ 0x100 + number } << 32) + 7000 + number) << #name; \
	EXPECT_EQ(&s.po().ledger.totals[number - 1],                                          \
		  &socket_total(&s.po(), MOX_CAPTURE_COUNTERS_##name));
	MOX_CAPTURE_COUNTERS_TABLE(EACH)
	s.po().ledger = kept;
}

// Each socket once, in the order of their opening, whatever their number and the buffers' size.
TEST_F(CaptureSockets, dump__any_number_in_buffers_of_any_size)
{
	std::deque<Sock> socks;
	for (size_t number : { 0, 1, 2, 63, 64, 65, 500 }) {
		while (socks.size() < number) {
			socks.emplace_back();
			// Names of all lengths, so that messages differ in size.
			kernel().comm = std::string(socks.size() % 16, 'n');
			ASSERT_EQ(socks.back().create(), 0);
		}
		size_t longest = 0;
		std::vector<u64> wanted;
		for (const capture::Message &m : sockets())
			longest = std::max(longest, m.size);
		for (Sock &s : socks)
			wanted.push_back(s.sk->cookie);
		for (size_t room : { longest, longest + 3, 4096ul, 8192ul, 16384ul, 1ul << 20 }) {
			SCOPED_TRACE(std::to_string(number) + " in " + std::to_string(room));
			EXPECT_EQ(cookies(sockets({}, room)), wanted);
		}
		// Buffers whose size changes from one to the next.
		if (number == 500) {
			Reader reader(MOX_CAPTURE_CMD_SOCKETS);
			Messages all;
			std::minstd_rand random(1);
			while (reader.fill(longest + random() % 8192) > 0)
				all.insert(all.end(), reader.last.begin(), reader.last.end());
			EXPECT_EQ(cookies(all), wanted);
		}
	}
}

TEST_F(CaptureSockets, dump__all_namespaces)
{
	Sock here, there;
	ASSERT_EQ(here.create(), 0);
	other_ns.inode = 4711;
	ASSERT_EQ(there.create(kRaw, 0, &other_ns), 0);
	const Messages all = sockets();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].u32(MOX_CAPTURE_SOCKET_NETNS), fake::init_net().inode);
	EXPECT_EQ(all[1].u32(MOX_CAPTURE_SOCKET_NETNS), 4711u);
}

TEST_F(CaptureSockets, filter__by_location_process_and_cookie)
{
	std::deque<Sock> socks(12);
	const u32 locations[] = { 0, PACKET_LEV2_LOC, PACKET_WLAN_LOC, 0xffffffff };
	for (size_t i = 0; i < socks.size(); i++) {
		kernel().pid = static_cast<s32>(100 + i % 3);
		ASSERT_EQ(socks[i].create(), 0);
		ASSERT_EQ(socks[i].set(PACKET_LOCATION, locations[i % 4]), 0);
	}
	sockets(); // gives each its cookie
	const u64 fifth = socks[5].sk->cookie;
	const auto location = [](u32 n) { return attribute(MOX_CAPTURE_REQUEST_LOCATION, n); };
	const auto pid = [](s32 n) { return attribute(MOX_CAPTURE_REQUEST_PID, n); };
	const auto cookie = [](u64 n) { return attribute(MOX_CAPTURE_REQUEST_COOKIE, n); };
	const struct {
		Bytes request;
		std::vector<size_t> found;
	} rows[] = {
		{ {}, { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11 } },
		{ location(0), { 0, 4, 8 } },
		{ location(PACKET_LEV2_LOC), { 1, 5, 9 } },
		{ location(0xffffffff), { 3, 7, 11 } },
		{ location(3), {} },
		{ pid(100), { 0, 3, 6, 9 } },
		{ pid(0), {} },
		{ pid(-1), {} },
		{ cookie(fifth), { 5 } },
		{ cookie(0), {} },
		// Not the lower half alone.
		{ cookie(fifth & 0xffffffff), {} },
		{ location(PACKET_LEV2_LOC) + pid(102), { 5 } },
		{ location(PACKET_LEV2_LOC) + pid(100), { 9 } },
		{ location(PACKET_LEV2_LOC) + pid(102) + cookie(fifth), { 5 } },
		{ location(PACKET_WLAN_LOC) + cookie(fifth), {} },
		{ pid(101) + cookie(fifth), {} },
	};
	for (size_t i = 0; i < std::size(rows); i++) {
		SCOPED_TRACE(i);
		std::vector<u64> wanted;
		for (size_t n : rows[i].found)
			wanted.push_back(socks[n].sk->cookie);
		EXPECT_EQ(cookies(sockets(rows[i].request)), wanted);
		// The rules are filtered by the same.
		std::vector<u64> rules;
		for (const capture::Message &m : dump(MOX_CAPTURE_CMD_RULES, rows[i].request))
			rules.push_back(m.u64(MOX_CAPTURE_RULE_COOKIE));
		EXPECT_EQ(rules, wanted);
	}
}

// Those that stay are listed once, whatever comes and goes between two buffers.
TEST_F(CaptureSockets, dump__while_sockets_come_and_go)
{
	std::minstd_rand random(11);
	for (int round = 0; round < 20; round++) {
		std::map<int, std::unique_ptr<Sock>> socks;
		std::map<int, u64> stay;
		int number = 0;
		const auto open = [&] {
			auto s = std::make_unique<Sock>();
			ASSERT_EQ(s->create(), 0);
			socks[number++] = std::move(s);
		};
		for (int i = 0; i < 100; i++)
			open();
		sockets(); // gives each its cookie
		for (auto &[id, s] : socks)
			if (random() % 2)
				stay[id] = s->sk->cookie;
		Reader reader(MOX_CAPTURE_CMD_SOCKETS);
		std::vector<u64> seen;
		u32 before = 0;
		while (reader.fill(600 + random() % 3000) > 0) {
			for (u64 cookie : cookies(reader.last))
				seen.push_back(cookie);
			if (before)
				EXPECT_NE(reader.sequence, before) << "sockets have changed";
			before = reader.sequence;
			open();
			for (u32 left = random() % 8; left; left--) {
				auto it = socks.lower_bound(random() % number);
				if (it != socks.end() && !stay.count(it->first))
					socks.erase(it);
			}
		}
		for (auto &[id, cookie] : stay)
			EXPECT_EQ(std::count(seen.begin(), seen.end(), cookie), 1) << id;
		EXPECT_EQ(std::set<u64>(seen.begin(), seen.end()).size(), seen.size());
	}
}

// A socket that is listed cannot go away meanwhile: its release waits for the registry.
TEST_F(CaptureSockets, dump__holds_off_releases)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	LockTrace trace;
	sockets();
	EXPECT_EQ(trace.steps, (Strings{ "+registry", "-registry" }));
	trace.steps.clear();
	s.release();
	EXPECT_EQ(std::count(trace.steps.begin(), trace.steps.end(), "+registry"), 1);
}

} // namespace
