// SPDX-License-Identifier: GPL-2.0-only
// Traces: how many there are, what a record has, and what becomes of records that cannot be sent.
#include "trace_frames.h"

namespace {

// ---- how many there are ------------------------------------------------------------

TEST_F(Tracer, traces__four_at_a_time)
{
	for (u32 reader = 1; reader <= MOX_CAPTURE_TRACES; reader++)
		EXPECT_EQ(tracer_start(reader, filter({})), 0);
	EXPECT_EQ(tracer_start(5, filter({})), -EBUSY);
	EXPECT_EQ(tracer_start(3, by_vlan(5)), 0) << "one that goes on gets another filter";
	EXPECT_EQ(tracer_stop(5), -ENOENT);
	EXPECT_EQ(tracer_stop(2), 0);
	EXPECT_EQ(tracer_stop(2), -ENOENT);
	EXPECT_EQ(tracer_start(5, filter({})), 0) << "a row is free again";
	EXPECT_EQ(tracer_start(6, filter({})), -EBUSY);
	for (u32 reader : { 1u, 3u, 4u, 5u }) {
		EXPECT_TRUE(tracer_on());
		EXPECT_EQ(tracer_stop(reader), 0);
	}
	EXPECT_FALSE(tracer_on());
}

TEST_F(Tracer, traces__hooks_look_while_there_is_one)
{
	const auto expect = [](bool on) {
		EXPECT_EQ(tracer_on(), on);
		for (int cpu = 0; cpu < kernel().cpu_ids; cpu++) {
			EXPECT_EQ(kernel().hook_cpus[cpu].tracing, u32{ on }) << cpu;
			EXPECT_EQ(arrivals_needed(&kernel().hook_cpus[cpu]), on) << cpu;
		}
	};
	expect(false);
	ASSERT_EQ(start({}, 1), 0);
	expect(true);
	ASSERT_EQ(start({}, 1), 0);
	ASSERT_EQ(start({}, 2), 0);
	ASSERT_EQ(stop(1), 0);
	expect(true);
	ASSERT_EQ(stop(2), 0);
	expect(false);
}

TEST_F(Tracer, traces__without_memory_for_times_none_begins)
{
	kernel().fail(Fail::kVzalloc);
	EXPECT_EQ(start(), -ENOMEM);
	EXPECT_FALSE(tracer_on());
	EXPECT_FALSE(arrivals_needed(&kernel().hook_cpus[0]));
	EXPECT_EQ(stop(), -ENOENT);
	EXPECT_EQ(start(), 0);
	EXPECT_EQ(stop(), 0);
	EXPECT_FALSE(arrivals_needed(&kernel().hook_cpus[0])) << "each need is given back";
}

TEST_F(Tracer, traces__a_restart_replaces_the_filter)
{
	ASSERT_EQ(tracer_start(kReader, by_vlan(100)), 0);
	EXPECT_TRUE(tracer_follows(udp4(), kLocation));
	EXPECT_FALSE(tracer_follows(arp(), kLocation));
	ASSERT_EQ(tracer_start(kReader, by_type(0x0806)), 0);
	EXPECT_FALSE(tracer_follows(udp4(), kLocation));
	EXPECT_TRUE(tracer_follows(arp(), kLocation));
	// Any of several traces is enough.
	ASSERT_EQ(tracer_start(2, by_vlan(100)), 0);
	EXPECT_TRUE(tracer_follows(udp4(), kLocation));
	EXPECT_TRUE(tracer_follows(arp(), kLocation));
	ASSERT_EQ(tracer_stop(kReader), 0);
	EXPECT_FALSE(tracer_follows(arp(), kLocation));
	ASSERT_EQ(tracer_stop(2), 0);
	EXPECT_FALSE(tracer_follows(udp4(), kLocation));
}

TEST_F(Tracer, deinit__ends_every_trace)
{
	for (u32 reader : { 1u, 2u, 3u })
		ASSERT_EQ(tracer_start(reader, filter({})), 0);
	tracer_deinit();
	EXPECT_FALSE(tracer_on());
	EXPECT_FALSE(arrivals_needed(&kernel().hook_cpus[0])) << "each need is given back";
	EXPECT_FALSE(tracer_follows(udp4(), kLocation));
	for (u32 reader : { 1u, 2u, 3u })
		EXPECT_EQ(tracer_stop(reader), -ENOENT);
	// Nothing of it is counted twice.
	ASSERT_EQ(start(), 0);
	EXPECT_TRUE(arrivals_needed(&kernel().hook_cpus[0]));
	ASSERT_EQ(stop(), 0);
	EXPECT_FALSE(arrivals_needed(&kernel().hook_cpus[0]));
}

TEST_F(Tracer, init__without_traces_whatever_was_there)
{
	ASSERT_EQ(tracer_start(1, filter({})), 0);
	tracer_init();
	EXPECT_FALSE(tracer_follows(udp4(), kLocation));
	ASSERT_EQ(tracer_start(1, filter({})), 0);
	ASSERT_EQ(tracer_stop(1), 0);
	EXPECT_FALSE(tracer_on()) << "the only one has ended";
	arrivals_release(); // of the one that init forgot
}

// ---- records -------------------------------------------------------------------------

TraceHop hook_hop()
{
	TraceHop hop{};
	hop.hop = MOX_CAPTURE_HOP_HOOK;
	hop.verdict = MOX_CAPTURE_VERDICT_UNWANTED;
	hop.cpu = 3;
	hop.location = kLocation;
	return hop;
}

TEST_F(Tracer, record__what_each_has_and_lacks)
{
	ASSERT_EQ(start(), 0);
	const std::set<int> always = { MOX_CAPTURE_TRACE_HOP,    MOX_CAPTURE_TRACE_VERDICT,
				       MOX_CAPTURE_TRACE_TIME,   MOX_CAPTURE_TRACE_CPU,
				       MOX_CAPTURE_TRACE_LENGTH, MOX_CAPTURE_TRACE_IFINDEX,
				       MOX_CAPTURE_TRACE_VLAN,   MOX_CAPTURE_TRACE_LOST };
	const struct {
		const char *name;
		FrameHeaders frame;
		void (*change)(TraceHop &hop);
		std::set<int> more;
	} rows[] = {
		{ "bare", bare(), [](TraceHop &) {}, { MOX_CAPTURE_TRACE_LOCATION } },
		{ "macs",
		  arp(),
		  [](TraceHop &) {},
		  { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_SRC_MAC,
		    MOX_CAPTURE_TRACE_DST_MAC, MOX_CAPTURE_TRACE_ETHER_TYPE } },
		{ "queued",
		  bare(),
		  [](TraceHop &hop) { hop.queued = true; },
		  { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_FRAME } },
		{ "since",
		  bare(),
		  [](TraceHop &hop) { hop.since = 1; },
		  { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_SINCE } },
		{ "key",
		  bare(),
		  [](TraceHop &hop) { hop.has_key = true; },
		  { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_KEY } },
		{ "socket",
		  bare(),
		  [](TraceHop &hop) { hop.has_socket = true; },
		  { MOX_CAPTURE_TRACE_LOCATION, MOX_CAPTURE_TRACE_COOKIE, MOX_CAPTURE_TRACE_PID,
		    MOX_CAPTURE_TRACE_PROCESS, MOX_CAPTURE_TRACE_TREATMENT } },
		{ "send",
		  bare(),
		  [](TraceHop &hop) {
			  hop.hop = MOX_CAPTURE_HOP_SEND;
			  hop.location = 0;
		  },
		  { MOX_CAPTURE_TRACE_ERROR } },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		TraceHop hop = hook_hop();
		row.change(hop);
		tracer_record(row.frame, hop);
		const Messages got = records();
		ASSERT_EQ(got.size(), 1u);
		for (int number = 1; number <= MOX_CAPTURE_TRACE_LOST; number++)
			EXPECT_EQ(got[0].has(number),
				  always.count(number) + row.more.count(number) != 0)
				<< number;
	}
}

TEST_F(Tracer, record__each_value)
{
	ASSERT_EQ(start(), 0);
	kernel().real_ns = 1712345678901234567;
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	TraceHop hop = hook_hop();
	hop.verdict = MOX_CAPTURE_VERDICT_TAKEN;
	hop.queued = true;
	hop.frame = 0xfffe;
	hop.since = 0x123456789a;
	hop.has_key = true;
	hop.key_type = PACKET_DEST_MAC_EQUAL;
	memcpy(hop.key, kDst.data(), 6);
	trace_socket(&hop, &s.po());
	tracer_record(udp4(), hop);
	Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	const capture::Message &record = got[0];
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_HOOK });
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_VERDICT), u32{ MOX_CAPTURE_VERDICT_TAKEN });
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_TIME), 1712345678901234567u);
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_SINCE), 0x123456789au);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_CPU), 3u);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LOCATION), kLocation);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_FRAME), 0xfffeu);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LENGTH), 60u);
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_IFINDEX), 7u);
	EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_VLAN), 100u);
	EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_SRC_MAC), kSrc);
	EXPECT_EQ(record.bytes(MOX_CAPTURE_TRACE_DST_MAC), kDst);
	EXPECT_EQ(record.number<u16>(MOX_CAPTURE_TRACE_ETHER_TYPE), 0x0800u);
	const capture::Attributes &key = record.nest(MOX_CAPTURE_TRACE_KEY);
	EXPECT_EQ(key.u32(MOX_CAPTURE_VALUE_TYPE), u32{ PACKET_DEST_MAC_EQUAL });
	EXPECT_EQ(key.bytes(MOX_CAPTURE_VALUE_DATA), kDst);
	EXPECT_FALSE(key.has(MOX_CAPTURE_VALUE_HITS));
	EXPECT_NE(s.sk->cookie, 0u) << "a cookie is made where it is first asked for";
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_COOKIE), s.sk->cookie);
	EXPECT_EQ(record.s32(MOX_CAPTURE_TRACE_PID), 4711);
	EXPECT_EQ(record.text(MOX_CAPTURE_TRACE_PROCESS), "captured");
	EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_TREATMENT), u32{ PACKET_TRAP });
	EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_LOST), 0u);

	TraceHop sent{};
	sent.hop = MOX_CAPTURE_HOP_SEND;
	sent.verdict = MOX_CAPTURE_VERDICT_REFUSED;
	sent.error = -101;
	tracer_record(udp4(), sent);
	got = records();
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].s32(MOX_CAPTURE_TRACE_ERROR), -101);
}

// A key of each type has as many bytes as values of the type.
TEST_F(Tracer, record__keys_of_every_type)
{
	ASSERT_EQ(start(), 0);
	for (u32 type = 0; type < contract::kTypes; type++) {
		SCOPED_TRACE(type);
		TraceHop hop = hook_hop();
		hop.has_key = true;
		hop.key_type = type;
		for (size_t i = 0; i < sizeof(hop.key); i++)
			hop.key[i] = static_cast<u8>(0x31 + i);
		next_tick();
		tracer_record(bare(), hop);
		const Messages got = records();
		ASSERT_EQ(got.size(), 1u);
		const capture::Attributes &key = got[0].nest(MOX_CAPTURE_TRACE_KEY);
		EXPECT_EQ(key.u32(MOX_CAPTURE_VALUE_TYPE), type);
		const unsigned width = contract::width(type);
		EXPECT_EQ(key.has(MOX_CAPTURE_VALUE_DATA), width != 0);
		if (width)
			EXPECT_EQ(key.bytes(MOX_CAPTURE_VALUE_DATA),
				  Bytes(hop.key, hop.key + width));
	}
}

// The longest record has room in its buffer.
TEST_F(Tracer, record__the_longest)
{
	ASSERT_EQ(start(), 0);
	TraceHop hop = hook_hop();
	hop.hop = MOX_CAPTURE_HOP_SEND;
	hop.queued = hop.has_key = hop.has_socket = true;
	hop.since = ~u64{ 0 };
	hop.key_type = PACKET_DEST_MAC_EQUAL;
	memset(hop.process, 'x', sizeof(hop.process));
	tracer_record(tcp6(), hop);
	const Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	for (int number = 1; number <= MOX_CAPTURE_TRACE_LOST; number++)
		EXPECT_TRUE(got[0].has(number)) << number;
	EXPECT_EQ(got[0].text(MOX_CAPTURE_TRACE_PROCESS).substr(0, 15), std::string(15, 'x'));
}

TEST_F(Tracer, record__goes_to_each_trace_that_follows_the_frame)
{
	ASSERT_EQ(tracer_start(1, by_vlan(100)), 0);
	ASSERT_EQ(tracer_start(2, by_location(PACKET_LOCAL_LOC)), 0);
	ASSERT_EQ(tracer_start(3, filter({})), 0);
	tracer_record(udp4(), hook_hop());
	tracer_record(arp(), hook_hop());
	EXPECT_EQ(records(1).size(), 1u);
	EXPECT_EQ(records(2).size(), 0u);
	EXPECT_EQ(records(3).size(), 2u);
	for (u32 reader : { 1u, 2u, 3u })
		ASSERT_EQ(tracer_stop(reader), 0);
	tracer_record(udp4(), hook_hop());
	EXPECT_TRUE(kernel().capture_answers.empty());
}

// ---- records that are lost --------------------------------------------------------

class Lost : public TraceTest {
protected:
	void record() { tracer_record(udp4(), hook_hop()); }
	// What the next record says is lost.
	u64 lost()
	{
		next_tick();
		record();
		const Messages got = records();
		EXPECT_EQ(got.size(), 1u);
		return got.size() == 1 ? got[0].u64(MOX_CAPTURE_TRACE_LOST) : ~u64{ 0 };
	}
};

TEST_F(Lost, counted__when_the_reader_has_no_room_or_there_is_no_memory)
{
	ASSERT_EQ(start(), 0);
	EXPECT_EQ(lost(), 0u);
	u64 so_far = 0;
	for (Fail call : { Fail::kCaptureReply, Fail::kCaptureAlloc })
		for (int i = 0; i < 3; i++) {
			kernel().fail(call);
			record();
			EXPECT_TRUE(records().empty());
			EXPECT_EQ(lost(), ++so_far);
		}
	// A restart begins at 0.
	ASSERT_EQ(start(), 0);
	EXPECT_EQ(lost(), 0u);
}

TEST_F(Lost, counted__for_each_trace_by_itself)
{
	ASSERT_EQ(start({}, 1), 0);
	ASSERT_EQ(start({}, 2), 0);
	kernel().fail(Fail::kCaptureReply, 2);
	record();
	EXPECT_EQ(records(1).size(), 1u);
	EXPECT_EQ(records(2).size(), 0u);
	record();
	EXPECT_EQ(records(1)[0].u64(MOX_CAPTURE_TRACE_LOST), 0u);
	EXPECT_EQ(records(2)[0].u64(MOX_CAPTURE_TRACE_LOST), 1u);
}

TEST_F(Lost, counted__beyond_the_allowance_of_a_cpu_and_tick)
{
	ASSERT_EQ(start(), 0);
	u64 so_far = 0;
	for (int round = 0; round < 3; round++) {
		next_tick();
		for (int cpu : { 0, 3, 1 }) {
			kernel().cpu = cpu;
			for (u32 i = 0; i < kRecordsOfTick + 10; i++)
				record();
			EXPECT_EQ(records().size(), kRecordsOfTick) << "CPU " << cpu;
			so_far += 10;
		}
		EXPECT_EQ(lost(), so_far);
	}
	kernel().cpu = 0;
}

// Only records use the allowance: what no trace follows leaves it to the others.
TEST_F(Lost, allowance__is_for_records)
{
	ASSERT_EQ(tracer_start(kReader, by_vlan(100)), 0);
	next_tick();
	for (u32 i = 0; i < 10 * kRecordsOfTick; i++)
		tracer_record(arp(), hook_hop());
	record();
	EXPECT_EQ(records().size(), 1u);
	EXPECT_EQ(lost(), 0u);
	ASSERT_EQ(tracer_stop(kReader), 0);
}

// A record that several readers get is one of the allowance.
TEST_F(Lost, allowance__counts_a_frame_once_for_all_readers)
{
	for (u32 reader : { 1u, 2u, 3u })
		ASSERT_EQ(start({}, reader), 0);
	next_tick();
	for (u32 i = 0; i < kRecordsOfTick + 1; i++)
		record();
	for (u32 reader : { 1u, 2u, 3u })
		EXPECT_EQ(records(reader).size(), kRecordsOfTick) << reader;
}

// In a hook nothing may sleep: the fakes complain of what does.
TEST_F(Lost, nothing_sleeps_in_a_hook)
{
	ASSERT_EQ(start(), 0);
	kernel().in_hook = true;
	kernel().bh_disabled++;
	EXPECT_TRUE(tracer_follows(udp4(), kLocation));
	for (u32 i = 0; i < kRecordsOfTick + 1; i++)
		record();
	kernel().fail(Fail::kCaptureAlloc);
	next_tick();
	record();
	kernel().bh_disabled--;
	kernel().in_hook = false;
	EXPECT_EQ(records().size(), kRecordsOfTick);
	EXPECT_EQ(lost(), 2u);
}

} // namespace
