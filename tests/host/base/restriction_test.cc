// SPDX-License-Identifier: GPL-2.0-only
// The restriction, and what it refuses.
#include "base/restriction.hpp"
#include "control_fixture.h"

namespace {

using Restriction = ControlTest;

TEST_F(Restriction, set__on_and_off)
{
	EXPECT_FALSE(restriction_on()) << "after a load";
	for (bool on : { true, true, false, false, true }) {
		restriction_set(on);
		EXPECT_EQ(restriction_on(), on);
	}
	// The next load starts without.
	mox_packet_exit();
	ASSERT_EQ(mox_packet_init(), 0);
	EXPECT_FALSE(restriction_on());
}

TEST_F(Restriction, create__needs_net_raw_while_it_is_in_force)
{
	debug();
	const struct {
		bool restricted, net_raw, net_admin;
		int type;
		int result;
	} rows[] = {
		{ false, false, false, kRaw, 0 },
		{ true, true, false, kRaw, 0 },
		{ true, false, true, kRaw, -EPERM },
		{ true, false, false, kDgram, -EPERM },
		// Before the type is looked at.
		{ true, false, true, 10, -EPERM },
		{ true, true, true, 10, -94 },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.type);
		restriction_set(row.restricted);
		kernel().net_raw = row.net_raw;
		kernel().net_admin = row.net_admin;
		const uint64_t allocations = kernel().calls(Fail::kSkAlloc);
		kernel().log.clear();
		Sock s;
		EXPECT_EQ(s.create(row.type), row.result);
		EXPECT_EQ(kernel().log.empty(), row.result == -EPERM) << "lines of a refusal";
		EXPECT_EQ(kernel().calls(Fail::kSkAlloc) - allocations, row.result == 0);
	}
}

// Sockets that are open stay as they are.
TEST_F(Restriction, create__an_open_socket_goes_on)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	restriction_set(true);
	kernel().net_raw = kernel().net_admin = false;
	EXPECT_EQ(s.add(PACKET_ALL), 0);
	EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.release(), 0);
}

TEST_F(Restriction, request__needs_net_admin_while_it_is_in_force)
{
	debug();
	const u32 received = g_packet_msg_recv;
	kernel().net_raw = true;
	// Nothing of the message is looked at, not even its length.
	restriction_set(true);
	for (u16 n = 0; n <= 3 * 18 + 2; n++) {
		const u16 type = n / 3;
		// A privileged program may have got the socket from a process that is not.
		kernel().net_admin = n % 3 == 1;
		kernel().opener_net_admin = n % 3 == 2;
		SCOPED_TRACE(n);
		const auto before = switches();
		const auto filter = filter_bytes();
		kernel().log.clear();
		EXPECT_EQ(receive(message(record(type, Bytes(72, 1)))), -EPERM);
		EXPECT_EQ(receive(message({}, 20)), -EPERM);
		EXPECT_EQ(said(), "");
		EXPECT_EQ(switches(), before);
		EXPECT_EQ(filter_bytes(), filter);
		EXPECT_TRUE(kernel().answers.empty());
		EXPECT_TRUE(kernel().disk.empty());
	}
	EXPECT_EQ(g_packet_msg_recv, received);
	kernel().net_admin = kernel().opener_net_admin = true;
	EXPECT_EQ(receive(message(record(17))), 0);
	kernel().net_admin = kernel().opener_net_admin = false;
	restriction_set(false);
	EXPECT_EQ(receive(message(record(17))), 0);
	EXPECT_EQ(g_packet_msg_recv, received + 2);
}

} // namespace
