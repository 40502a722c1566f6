// SPDX-License-Identifier: GPL-2.0-only
// What closed sockets leave behind, by location.
#include "module_fixture.h"
#include "socket/closed.hpp"

namespace {

using namespace packets;

class Closed : public ModuleTest {
protected:
	static u64 of(const ClosedSockets &row, mox_capture_counters_attr which)
	{
		return row.totals[which - 1];
	}
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

TEST_F(Closed, add__at_the_location_of_the_moment)
{
	// The number that the option takes, and the row of it.
	const struct {
		u32 location, row;
	} rows[] = { { PACKET_LEV2_LOC, PACKET_LEV2_LOC },
		     { PACKET_WLAN_LOC, PACKET_WLAN_LOC },
		     { PACKET_LEV3_RESV_LOC, PACKET_LEV3_RESV_LOC },
		     { 0, 0 },
		     { 11, kLocationCount },
		     { 0xffffffff, kLocationCount } };
	for (const auto &row : rows) {
		SCOPED_TRACE(row.location);
		const u64 before = closed_read(row.row).sockets;
		Sock s;
		ASSERT_EQ(s.create(), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, row.location), 0);
		EXPECT_EQ(closed_read(row.row).sockets, before);
		ASSERT_EQ(s.release(), 0);
		EXPECT_EQ(closed_read(row.row).sockets, before + 1);
	}
}

TEST_F(Closed, add__every_counter)
{
	for (int round = 1; round <= 2; round++) {
		Sock s;
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
		for (int i = 0; i < 3; i++)
			frame(PACKET_LEV2_LOC, {}, lldp);
		ASSERT_EQ(s.queued(), 3u);
		s.sk->has_filter = true;
		s.sk->verdict = 0;
		frame(PACKET_LEV2_LOC, {}, lldp);
		// The send counters of a socket that was never used for sending.
		for (u32 number = MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS;
		     number <= MOX_CAPTURE_COUNTERS_SEND_PACKETS; number++)
			s.po().ledger.totals[number - 1] = { number, 1 };
		s.po().ledger.totals[MOX_CAPTURE_COUNTERS_SENDS - 1] = {
			5 + 6 + 7 + 8 + 9 + 10 + 11 + 12 + 13, 9
		};
		ASSERT_EQ(s.release(), 0);
		const ClosedSockets row = closed_read(PACKET_LEV2_LOC);
		const u64 times = static_cast<u64>(round);
		EXPECT_EQ(row.sockets, times);
		EXPECT_EQ(of(row, MOX_CAPTURE_COUNTERS_FILTER_DROPS), times);
		EXPECT_EQ(of(row, MOX_CAPTURE_COUNTERS_MATCHED), 4 * times);
		EXPECT_EQ(of(row, MOX_CAPTURE_COUNTERS_RECV_PACKETS), 3 * times);
		EXPECT_EQ(of(row, MOX_CAPTURE_COUNTERS_FREED_UNREAD), 3 * times);
		EXPECT_EQ(of(row, MOX_CAPTURE_COUNTERS_READ), 0u);
		for (u32 number = MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS;
		     number <= MOX_CAPTURE_COUNTERS_SEND_PACKETS; number++)
			EXPECT_EQ(row.totals[number - 1], (number + (u64{ 1 } << 32)) * times);
	}
}

} // namespace
