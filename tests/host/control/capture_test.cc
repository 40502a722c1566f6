// SPDX-License-Identifier: GPL-2.0-only
// The family for reading: its life, its commands, and what holds for every dump.
#include "capture_fixture.h"
#include "base/restriction.hpp"

namespace {

using Capture = CaptureTest;

const u8 kDumps[] = { MOX_CAPTURE_CMD_LOCATIONS, MOX_CAPTURE_CMD_SOCKETS, MOX_CAPTURE_CMD_RULES,
		      MOX_CAPTURE_CMD_QUEUES, MOX_CAPTURE_CMD_MEMORY };
const u8 kAnswers[] = { MOX_CAPTURE_CMD_INFO, MOX_CAPTURE_CMD_THREAD };

// A right payload for each attribute of a request, and for PREFIX the address as well.
Bytes good(u16 number)
{
	switch (number) {
	case MOX_CAPTURE_REQUEST_LOCATION:
	case MOX_CAPTURE_REQUEST_PID:
	case MOX_CAPTURE_REQUEST_IFINDEX:
		return attribute<u32>(number, 2);
	case MOX_CAPTURE_REQUEST_COOKIE:
		return attribute<u64>(number, 2);
	case MOX_CAPTURE_REQUEST_MAC:
		return attribute(number, Bytes(6, 2));
	case MOX_CAPTURE_REQUEST_VLAN:
	case MOX_CAPTURE_REQUEST_ETHER_TYPE:
	case MOX_CAPTURE_REQUEST_PORT:
		return attribute<u16>(number, 2);
	case MOX_CAPTURE_REQUEST_ADDRESS:
		return attribute(number, Bytes(4, 2));
	case MOX_CAPTURE_REQUEST_PREFIX:
		return good(MOX_CAPTURE_REQUEST_ADDRESS) + attribute<u8>(number, 2);
	default:
		return attribute<u8>(number, 1);
	}
}

// ---- the family's life ------------------------------------------------------------

TEST_F(Capture, init__registers_once)
{
	EXPECT_EQ(mox_capture_inited, 1);
	EXPECT_EQ(mox_capture_init(), 0);
	EXPECT_EQ(kernel().calls(Fail::kCaptureRegister), 1u);
	mox_capture_deinit();
	EXPECT_EQ(mox_capture_inited, 0);
	mox_capture_deinit();
	EXPECT_EQ(kernel().journal, Strings{ "capture-" });
	EXPECT_EQ(mox_capture_init(), 0);
	EXPECT_EQ(kernel().calls(Fail::kCaptureRegister), 2u);
	EXPECT_EQ(kernel().journal, (Strings{ "capture-", "capture+" }));
}

TEST_F(Capture, init__failure_is_printed_and_passed_back)
{
	mox_capture_deinit();
	for (int error : { -17, -12, -1 }) {
		kernel().error[Fail::kCaptureRegister] = error;
		kernel().fail(Fail::kCaptureRegister);
		EXPECT_EQ(mox_capture_init(), error);
		EXPECT_EQ(said(), "Failed to register generic netlink family mox_capture, errno " +
					  std::to_string(error) + "\n");
		EXPECT_EQ(mox_capture_inited, 0);
	}
	EXPECT_EQ(mox_capture_init(), 0);
}

// ---- requests ------------------------------------------------------------------------

TEST_F(Capture, requests__commands_that_are_none)
{
	for (u8 command : { 0, 2, 3, 4, 5, 6, 11, 12, 127, 255 }) {
		SCOPED_TRACE(int{ command });
		EXPECT_EQ(ask_one(command), -EOPNOTSUPP);
		EXPECT_TRUE(answers.empty());
	}
	for (u8 command : { 0, 1, 7, 8, 11, 12, 127, 255 }) {
		SCOPED_TRACE(int{ command });
		Reader reader(command);
		EXPECT_EQ(reader.started, -EOPNOTSUPP);
	}
}

TEST_F(Capture, requests__the_attributes_that_each_command_takes)
{
	using Taken = std::set<u16>;
	const Taken filters = { MOX_CAPTURE_REQUEST_LOCATION, MOX_CAPTURE_REQUEST_PID,
				MOX_CAPTURE_REQUEST_COOKIE };
	const struct {
		u8 command;
		Taken taken;
	} rows[] = {
		{ MOX_CAPTURE_CMD_INFO, {} },
		{ MOX_CAPTURE_CMD_LOCATIONS, { MOX_CAPTURE_REQUEST_LOCATION } },
		{ MOX_CAPTURE_CMD_SOCKETS, filters },
		{ MOX_CAPTURE_CMD_RULES, filters },
		{ MOX_CAPTURE_CMD_QUEUES, { MOX_CAPTURE_REQUEST_LOCATION } },
		{ MOX_CAPTURE_CMD_MEMORY, {} },
		{ MOX_CAPTURE_CMD_THREAD, {} },
		{ MOX_CAPTURE_CMD_RESTRICT, { MOX_CAPTURE_REQUEST_RESTRICT } },
	};
	for (const auto &row : rows)
		for (u16 number = 1; number <= MOX_CAPTURE_REQUEST_MAX; number++) {
			SCOPED_TRACE(int{ row.command } * 100 + number);
			const Bytes bytes = good(number);
			const int wanted = row.taken.count(number) ? 0 : -EINVAL;
			if (std::count(std::begin(kDumps), std::end(kDumps), row.command)) {
				Reader reader(row.command, bytes);
				EXPECT_EQ(reader.started, wanted);
				reason = reader.reason;
			} else {
				EXPECT_EQ(ask_one(row.command, bytes), wanted);
			}
			EXPECT_EQ(reason,
				  wanted ? "an attribute that this command does not take" : "");
		}
}

TEST_F(Capture, requests__attributes_that_are_wrong)
{
	const struct {
		Bytes bytes;
		int error;
		const char *reason;
	} rows[] = {
		{ attribute<u16>(MOX_CAPTURE_REQUEST_LOCATION, 2), -ERANGE,
		  "location: not 4 bytes" },
		{ attribute<u32>(13, 2), -EINVAL, "an attribute that this module does not know" },
		{ Bytes(2), -EINVAL, "bytes behind the last attribute" },
		{ Bytes(4), -EINVAL, "an attribute reaches beyond the request" },
	};
	for (const auto &row : rows) {
		for (u8 command : kDumps) {
			Reader reader(command, row.bytes);
			EXPECT_EQ(reader.started, row.error);
			EXPECT_EQ(reader.reason, row.reason);
		}
		for (u8 command : { u8{ MOX_CAPTURE_CMD_INFO }, u8{ MOX_CAPTURE_CMD_RESTRICT } }) {
			EXPECT_EQ(ask_one(command, row.bytes), row.error);
			EXPECT_EQ(reason, row.reason);
			EXPECT_TRUE(answers.empty());
		}
	}
	// Nowhere to put an explanation.
	const seam_request request{ &fake::init_net(), kClient, 1, 0, nullptr };
	const Bytes bytes(2);
	EXPECT_EQ(mox_capture_do(MOX_CAPTURE_CMD_INFO, bytes.data(), 2, &request), -EINVAL);
}

TEST_F(Capture, requests__whatever_the_bytes_are)
{
	const char *seed_of = getenv("SEED");
	const unsigned seed = seed_of ? strtoul(seed_of, nullptr, 0) : std::random_device{}();
	std::mt19937 random(seed);
	SCOPED_TRACE("SEED=" + std::to_string(seed));
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	int accepted = 0;
	for (int round = 0; round < 20000 && !HasFailure(); round++) {
		Bytes bytes;
		for (u32 left = random() % 3; left; left--)
			bytes = bytes + good(static_cast<u16>(1 + random() % 4));
		if (!bytes.empty() && random() % 2)
			bytes[random() % bytes.size()] = static_cast<u8>(random());
		if (!bytes.empty() && random() % 4 == 0)
			bytes.resize(random() % bytes.size());
		const u8 command = static_cast<u8>(random() % 9);
		if (random() % 2) {
			accepted += ask_one(command, bytes) == 0;
		} else {
			Reader reader(command, bytes);
			if (reader.started == 0) {
				accepted++;
				reader.fill(random() % 2000);
			}
		}
	}
	EXPECT_GT(accepted, 500);
}

TEST_F(Capture, restrict__on_off_and_absent)
{
	for (u8 on : { 1, 1, 0, 0, 1 }) {
		EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_RESTRICT,
				  attribute(MOX_CAPTURE_REQUEST_RESTRICT, Bytes{ on })),
			  0);
		EXPECT_TRUE(answers.empty());
		EXPECT_EQ(restriction_on(), on != 0);
	}
	EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_RESTRICT), -EINVAL);
	EXPECT_EQ(reason, "restrict: absent");
	EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_RESTRICT,
			  attribute(MOX_CAPTURE_REQUEST_RESTRICT, Bytes{ 2 })),
		  -EINVAL);
	EXPECT_TRUE(restriction_on());
}

// ---- failures --------------------------------------------------------------------------

TEST_F(Capture, answers__each_failure)
{
	for (u8 command : kAnswers) {
		kernel().fail(Fail::kCaptureAlloc);
		EXPECT_EQ(ask_one(command), -ENOMEM);
		for (int error : { -ECONNREFUSED, -EAGAIN }) {
			kernel().error[Fail::kCaptureReply] = error;
			kernel().fail(Fail::kCaptureReply);
			EXPECT_EQ(ask_one(command), error);
		}
		EXPECT_TRUE(answers.empty());
		EXPECT_TRUE(kernel().skbs.empty()) << "the buffer is freed";
		EXPECT_EQ(ask_one(command), 0);
		EXPECT_EQ(answers.size(), 1u);
	}
}

TEST_F(Capture, dumps__without_memory_for_their_state)
{
	for (u8 command : kDumps) {
		kernel().fail(Fail::kKmalloc);
		Reader reader(command);
		EXPECT_EQ(reader.started, -ENOMEM);
	}
	EXPECT_TRUE(kernel().blocks.empty());
}

// A buffer with less room than the first message: an error at once, and again.
TEST_F(Capture, dumps__a_buffer_without_room_for_one_message)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	for (u8 command : kDumps) {
		SCOPED_TRACE(int{ command });
		Reader whole(command);
		ASSERT_GT(whole.fill(8192), 0);
		const size_t size = whole.last[0].size;
		Reader reader(command);
		for (size_t room = 0; room < size; room++)
			ASSERT_EQ(reader.fill(room), -EMSGSIZE) << room;
		// Nothing is lost by it.
		if (command == MOX_CAPTURE_CMD_RULES)
			EXPECT_GT(reader.fill(8192), 0);
		else
			EXPECT_EQ(reader.fill(size), static_cast<int>(size));
		reader.rest(8192);
	}
}

// Readers close their sockets at any time.
TEST_F(Capture, dumps__end_at_any_time)
{
	Sock s, t;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	t.capture(PACKET_IPv4_LOC, PACKET_COPY);
	const u32 refs = s.refs();
	for (u8 command : kDumps) {
		Reader whole(command);
		whole.rest(700);
		ASSERT_GT(whole.fills, 1);
		EXPECT_EQ(whole.fill(700), 0) << "behind the end";
		whole.close();
		for (int fills = 0; fills <= whole.fills; fills++) {
			Reader reader(command);
			for (int i = 0; i < fills; i++)
				reader.fill(700);
			reader.close();
			EXPECT_TRUE(kernel().blocks.empty());
			EXPECT_EQ(s.refs(), refs);
			EXPECT_EQ(t.refs(), refs);
		}
	}
	mox_capture_dump_done(nullptr);
}

// A reader that is being killed does not hold the module up.
TEST_F(Capture, dumps__a_killed_reader_goes_no_further)
{
	std::deque<Sock> socks(600);
	for (Sock &s : socks)
		ASSERT_EQ(s.create(), 0);
	const Bytes none = attribute<s32>(MOX_CAPTURE_REQUEST_PID, 1);
	for (u8 command : { u8{ MOX_CAPTURE_CMD_SOCKETS }, u8{ MOX_CAPTURE_CMD_RULES } }) {
		SCOPED_TRACE(int{ command });
		LockTrace trace;
		Reader reader(command, none);
		EXPECT_EQ(reader.fill(4096), 0);
		const size_t whole = std::count(trace.steps.begin(), trace.steps.end(),
						"+registry");
		EXPECT_GT(whole, 2u);
		trace.steps.clear();
		Reader killed(command, none);
		kernel().killed = true;
		killed.fill(4096);
		kernel().killed = false;
		EXPECT_EQ(std::count(trace.steps.begin(), trace.steps.end(), "+registry"), 1);
	}
}

// Others may run between the messages of a long dump.
TEST_F(Capture, dumps__offer_the_cpu)
{
	std::deque<Sock> socks(600);
	for (Sock &s : socks)
		ASSERT_EQ(s.create(), 0);
	const Bytes none = attribute<s32>(MOX_CAPTURE_REQUEST_PID, 1);
	for (u8 command : { u8{ MOX_CAPTURE_CMD_SOCKETS }, u8{ MOX_CAPTURE_CMD_RULES } }) {
		const int before = kernel().cond_rescheds;
		Reader reader(command, none);
		EXPECT_EQ(reader.fill(4096), 0);
		EXPECT_GE(kernel().cond_rescheds - before, 2);
	}
}

// ---- locks -------------------------------------------------------------------------------

TEST_F(Capture, dumps__the_locks_of_each)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const struct {
		u8 command;
		std::set<std::string> locks;
	} rows[] = {
		{ MOX_CAPTURE_CMD_LOCATIONS, { "+closed" } },
		{ MOX_CAPTURE_CMD_SOCKETS, { "+registry" } },
		{ MOX_CAPTURE_CMD_RULES, { "+registry", "+sock" } },
		{ MOX_CAPTURE_CMD_QUEUES, { "+queue" } },
		{ MOX_CAPTURE_CMD_MEMORY, {} },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(int{ row.command });
		std::set<std::string> taken;
		LockTrace trace;
		trace.look = [&](const std::string &step) {
			if (step[0] != '+')
				return;
			taken.insert(step);
			EXPECT_EQ(kernel().held.size(), 1u) << step << " under another lock";
		};
		Reader reader(row.command);
		reader.rest(8192);
		EXPECT_EQ(taken, row.locks);
	}
	LockTrace trace;
	EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
	EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_THREAD), 0);
	EXPECT_EQ(ask_one(MOX_CAPTURE_CMD_RESTRICT,
			  attribute(MOX_CAPTURE_REQUEST_RESTRICT, Bytes{ 0 })),
		  0);
	EXPECT_EQ(trace.steps, Strings{});
}

// ---- the sequence number ---------------------------------------------------------------------

TEST_F(Capture, sequence__changes_with_sockets_and_rules_and_nothing_else)
{
	Sock s, other;
	ASSERT_EQ(s.create(), 0);
	const ::Bytes arp = { 8, 6 };
	const struct {
		const char *what;
		std::function<void()> act;
		bool changes;
	} rows[] = {
		{ "nothing", [] {}, false },
		{ "a socket comes", [&] { EXPECT_EQ(other.create(), 0); }, true },
		{ "a value comes", [&] { EXPECT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, arp), 0); },
		  true },
		{ "a treatment", [&] { EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0); },
		  true },
		{ "a location", [&] { EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0); },
		  true },
		{ "control records", [&] { EXPECT_EQ(s.set(PACKET_CTRL_INFO, 1), 0); }, false },
		{ "a refused location",
		  [&] { EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_MPLS_LOC), -EINVAL); }, false },
		{ "a frame",
		  [&] { frame(PACKET_LEV2_LOC, {}, packets::eth(0x0806) + ::Bytes(46)); }, false },
		{ "a bind", [&] { EXPECT_EQ(other.bind(7, 0x0608), 0); }, true },
		{ "a value goes", [&] { EXPECT_EQ(s.del(PACKET_ETH_PROT_EQUAL, 1, arp), 0); },
		  true },
		{ "another reader", [&] { dump(MOX_CAPTURE_CMD_RULES); }, false },
		{ "a socket goes", [&] { EXPECT_EQ(other.release(), 0); }, true },
	};
	for (u8 command : { u8{ MOX_CAPTURE_CMD_SOCKETS }, u8{ MOX_CAPTURE_CMD_RULES } })
		for (const auto &row : rows) {
			SCOPED_TRACE(row.what);
			Reader reader(command);
			reader.fill(8192);
			const u32 before = reader.sequence;
			row.act();
			// The last call, which adds nothing, has the number of its time, too.
			reader.fill(8192);
			EXPECT_EQ(reader.sequence != before, row.changes);
		}
}

// A list that was written in the middle of a change is of neither state of the rule: the change
// counts once more when it is over.
TEST_F(Capture, sequence__of_a_change_that_is_under_way)
{
	const struct {
		const char *name;
		fake::LockKind lock; // held where the rule changes
		std::function<int(Sock &)> change;
	} rows[] = {
		{ "location", fake::LockKind::kRule,
		  [](Sock &s) { return s.set(PACKET_LOCATION, PACKET_WLAN_LOC); } },
		{ "treatment", fake::LockKind::kRule,
		  [](Sock &s) { return s.set(PACKET_TREATMENT, PACKET_TRAP); } },
		{ "value", fake::LockKind::kRule,
		  [](Sock &s) {
			  return s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 });
		  } },
		{ "bind", fake::LockKind::kBind, [](Sock &s) { return s.bind(7, 0x0608); } },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		Sock s;
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
		Reader reader(MOX_CAPTURE_CMD_SOCKETS);
		u32 during = 0;
		kernel().at[Point::kLock] = [&](const void *) {
			if (during || kernel().held.back().second != row.lock || s.running())
				return;
			on_other_cpu([&] { EXPECT_GT(reader.fill(8192), 0); });
			EXPECT_FALSE(reader.last[0].has(MOX_CAPTURE_SOCKET_RUNNING));
			during = reader.sequence;
		};
		EXPECT_EQ(row.change(s), 0);
		kernel().at.clear();
		ASSERT_NE(during, 0u);
		EXPECT_EQ(reader.fill(8192), 0);
		EXPECT_NE(reader.sequence, during);
	}
}

// One that is over before the change is. A release takes the rule out long before the socket.
TEST_F(Capture, sequence__of_a_dump_within_a_change)
{
	const struct {
		const char *name;
		Point point;
		std::function<int(Sock &)> change;
	} rows[] = {
		{ "location", Point::kLock,
		  [](Sock &s) { return s.set(PACKET_LOCATION, PACKET_WLAN_LOC); } },
		{ "value", Point::kLock,
		  [](Sock &s) {
			  return s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 });
		  } },
		{ "bind", Point::kLock, [](Sock &s) { return s.bind(7, 0x0608); } },
		{ "release", Point::kOrphan, [](Sock &s) { return s.release(); } },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		Sock s;
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
		Reader reader(MOX_CAPTURE_CMD_SOCKETS);
		u32 first = 0;
		kernel().at[row.point] = [&](const void *) {
			if (first || s.running())
				return;
			on_other_cpu([&] {
				EXPECT_GT(reader.fill(8192), 0);
				EXPECT_FALSE(reader.last[0].has(MOX_CAPTURE_SOCKET_RUNNING));
				first = reader.sequence;
				EXPECT_EQ(reader.fill(8192), 0);
			});
		};
		EXPECT_EQ(row.change(s), 0);
		kernel().at.clear();
		ASSERT_NE(first, 0u);
		EXPECT_NE(reader.sequence, first);
		// At rest the number stays.
		const u32 rest = registry_changes();
		EXPECT_EQ(registry_changes(), rest);
	}
}

} // namespace
