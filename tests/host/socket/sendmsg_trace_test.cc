// SPDX-License-Identifier: GPL-2.0-only
// Sends while frames are traced: accepted, and each failure with its errno.
#include "send_fixture.h"
#include "trace_fixture.h"

namespace {

using SendTrace = Tracing<SendTest>;

// A frame with an Ethernet header.
Bytes lldp()
{
	return packets::eth(0x88cc) + Bytes(46, 0x5c);
}

TEST_F(SendTrace, accepted__whole_record)
{
	ASSERT_EQ(start(), 0);
	kernel().cpu = 1;
	EXPECT_EQ(send({ .data = lldp(), .name = address(7) }), 60);
	kernel().cpu = 0;
	const Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	const capture::Message &record = got[0];
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_SEND });
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_VERDICT), u32{ MOX_CAPTURE_VERDICT_ACCEPTED });
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_TIME), kernel().real_ns);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_CPU), 1u);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LENGTH), 60u);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_IFINDEX), 7u);
	EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_VLAN), 0u);
	EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_DST_MAC), (Bytes{ 2, 0, 0, 0, 0, 1 }));
	EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_SRC_MAC), (Bytes{ 2, 0, 0, 0, 0, 2 }));
	EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_ETHER_TYPE), 0x88ccu);
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_COOKIE), s.sk->cookie);
	EXPECT_EQ(record.s32(MOX_CAPTURE_TRACE_PID), 4711);
	EXPECT_EQ(record.text(MOX_CAPTURE_TRACE_PROCESS), "captured");
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_TREATMENT), 0u);
	EXPECT_EQ(record.s32(MOX_CAPTURE_TRACE_ERROR), 0);
	for (int which : { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_FRAME,
			   MOX_CAPTURE_TRACE_SINCE, MOX_CAPTURE_TRACE_KEY })
		EXPECT_FALSE(record.has(which)) << which;
}

// The header of a datagram is that which the module has built.
TEST_F(SendTrace, accepted__datagram_and_no_interface)
{
	ASSERT_EQ(start(), 0);
	open(kDgram);
	EXPECT_EQ(send({ .data = Bytes(60), .name = address(7, 0xcc88) }), 60);
	Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_LENGTH), 74u);
	EXPECT_EQ(got[0].bytes(MOX_CAPTURE_TRACE_DST_MAC), kPeerMac);
	EXPECT_EQ(got[0].bytes(MOX_CAPTURE_TRACE_SRC_MAC), kLocalMac);
	// The platform chooses.
	open(kRaw);
	EXPECT_EQ(send({ .data = lldp() }), 60);
	got = records();
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_IFINDEX), 0u);
}

TEST_F(SendTrace, refused__each_errno)
{
	const struct {
		const char *name;
		int type;
		Outgoing message;
		int error;
		bool complete; // the frame, so that the record has its headers
		std::function<void()> make, undo;
	} rows[] = {
		{ "control record too short",
		  kRaw,
		  { .data = lldp(), .control = Bytes(20) },
		  -EINVAL,
		  false,
		  [] {},
		  [] {} },
		{ "name too short",
		  kRaw,
		  { .data = lldp(), .name = Bytes(4) },
		  -EINVAL,
		  false,
		  [] {},
		  [] {} },
		{ "datagram without a name",
		  kDgram,
		  { .data = lldp() },
		  -EINVAL,
		  false,
		  [] {},
		  [] {} },
		{ "local MAC",
		  kDgram,
		  { .data = lldp(), .name = address(7) },
		  -EINVAL,
		  false,
		  [] { g_local_mac.result = 1; },
		  [] { g_local_mac.result = 0; } },
		{ "no such interface",
		  kRaw,
		  { .data = lldp(), .name = address(77) },
		  -ENXIO,
		  false,
		  [] {},
		  [] {} },
		{ "link down",
		  kRaw,
		  { .data = lldp(), .name = address(9) },
		  -ENETDOWN,
		  false,
		  [] {},
		  [] {} },
		{ "memory",
		  kRaw,
		  { .data = lldp() },
		  -ENOMEM,
		  false,
		  [] { kernel().fail(Fail::kEfbuffAlloc); },
		  [] {} },
		{ "data that cannot be read",
		  kRaw,
		  { .data = lldp(), .fault_at = 7 },
		  -EFAULT,
		  false,
		  [] {},
		  [] {} },
		{ "the platform",
		  kRaw,
		  { .data = lldp() },
		  -ENETUNREACH,
		  true,
		  [] { efmp().outcome = 1; },
		  [] { efmp().outcome = 0; } },
		{ "another vsd",
		  kRaw,
		  { .data = lldp() },
		  -EINVAL,
		  false,
		  [] { kernel().cwd = "/data/var/run/vsd/3"; },
		  [] { kernel().cwd = "/root"; } },
	};
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(start(attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88cc), 2), 0);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		open(row.type);
		row.make();
		EXPECT_EQ(send(row.message), row.error);
		row.undo();
		const Messages got = records();
		ASSERT_EQ(got.size(), 1u);
		EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_SEND });
		EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_VERDICT),
			  u32{ MOX_CAPTURE_VERDICT_REFUSED });
		EXPECT_EQ(got[0].s32(MOX_CAPTURE_TRACE_ERROR), row.error);
		EXPECT_EQ(got[0].u64(MOX_CAPTURE_TRACE_COOKIE), s.sk->cookie);
		EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_LENGTH), row.complete ? 60u : 0u);
		EXPECT_EQ(got[0].has(MOX_CAPTURE_TRACE_SRC_MAC), row.complete);
		// A criterion needs a frame that is complete.
		EXPECT_EQ(records(2).size(), row.complete ? 1u : 0u);
	}
}

TEST_F(SendTrace, criteria)
{
	const struct {
		const char *name;
		Bytes criteria;
		bool follows;
	} rows[] = {
		{ "interface", attribute<u32>(MOX_CAPTURE_REQUEST_IFINDEX, 7), true },
		{ "another", attribute<u32>(MOX_CAPTURE_REQUEST_IFINDEX, 8), false },
		{ "EtherType", attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88cc), true },
		{ "another type", attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88cd), false },
		{ "location", attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, PACKET_LEV2_LOC),
		  false },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		ASSERT_EQ(start(row.criteria), 0);
		EXPECT_EQ(send({ .data = lldp(), .name = address(7) }), 60);
		EXPECT_EQ(records().size(), row.follows ? 1u : 0u);
	}
	ASSERT_EQ(stop(), 0);
	EXPECT_EQ(send({ .data = lldp() }), 60);
	EXPECT_TRUE(records().empty());
}

// The trace begins, or ends, while a send goes on: the send is whole, and records nothing, or
// what is left of it.
TEST_F(SendTrace, starts_and_stops_in_the_middle_of_a_send)
{
	kernel().at[Point::kCopyFromMsg] = [&](const void *) { EXPECT_EQ(start(), 0); };
	EXPECT_EQ(send({ .data = lldp() }), 60);
	EXPECT_TRUE(records().empty());
	kernel().at[Point::kCopyFromMsg] = [&](const void *) { EXPECT_EQ(stop(), 0); };
	EXPECT_EQ(send({ .data = lldp() }), 60);
	kernel().at.erase(Point::kCopyFromMsg);
	EXPECT_TRUE(records().empty());
}

} // namespace
