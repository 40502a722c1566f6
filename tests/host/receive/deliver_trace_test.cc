// SPDX-License-Identifier: GPL-2.0-only
// Delivery while it is watched: the record of each socket's outcome, and the time of arrival that
// buffers get.
#include "socket/stamps.hpp"
#include "offer_outcomes.h"
#include "trace_fixture.h"

namespace {

using namespace packets;

class DeliverTrace : public TraceTest {
protected:
	static constexpr u64 kWait = 5000000; // nanoseconds between hook and delivery

	// A frame of the location through its hook, later delivered. The records of delivery.
	Messages deliver(u32 location = PACKET_LEV2_LOC)
	{
		next_tick();
		hook_only(location, {}, lldp);
		const Messages hooks = records();
		EXPECT_EQ(hooks.size(), 1u);
		hook_frame = hooks.empty() || !hooks[0].has(MOX_CAPTURE_TRACE_FRAME)
				     ? ~0u
				     : hooks[0].u32(MOX_CAPTURE_TRACE_FRAME);
		pass(kWait);
		next_tick();
		drain();
		return records();
	}
	static void pass(u64 ns)
	{
		kernel().monotonic_ns += ns;
		kernel().real_ns += ns;
	}
	static u32 verdict(const capture::Message &record)
	{
		return record.u32(MOX_CAPTURE_TRACE_VERDICT);
	}
	// A socket that asks for times.
	static void stamp(Sock &s, bool on = true)
	{
		s.sk->stamped = on;
		mox_packet_poll(&s.socket);
	}

	u32 hook_frame = 0;
	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
};

// ---- records --------------------------------------------------------------------------

TEST_F(DeliverTrace, verdict__each_outcome_of_an_offer)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(start(), 0);
	for (const OfferOutcome &row : offer_outcomes(s)) {
		SCOPED_TRACE(row.verdict);
		row.make();
		const Messages got = deliver();
		row.undo();
		ASSERT_EQ(got.size(), 1u);
		const capture::Message &record = got[0];
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_HOP), u32{ MOX_CAPTURE_HOP_DELIVERY });
		EXPECT_EQ(verdict(record), u32{ row.verdict });
		EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_TIME), kernel().real_ns);
		EXPECT_NEAR(static_cast<double>(record.u64(MOX_CAPTURE_TRACE_SINCE)), kWait, 64);
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_CPU), 0u);
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LOCATION), u32{ PACKET_LEV2_LOC });
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_FRAME), hook_frame);
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_LENGTH), 60u);
		EXPECT_EQ(record.u64(MOX_CAPTURE_TRACE_COOKIE), s.sk->cookie);
		EXPECT_EQ(record.s32(MOX_CAPTURE_TRACE_PID), 4711);
		EXPECT_EQ(record.text(MOX_CAPTURE_TRACE_PROCESS), "captured");
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_TREATMENT), u32{ PACKET_COPY });
		EXPECT_FALSE(record.has(MOX_CAPTURE_TRACE_KEY));
		EXPECT_FALSE(record.has(MOX_CAPTURE_TRACE_ERROR));
	}
}

// The number of a frame counts on its queue: another CPU and location have their own.
TEST_F(DeliverTrace, place__of_each_location_and_cpu)
{
	ASSERT_EQ(start(), 0);
	for (u32 location : { 1u, 2u, 3u, 4u, 7u, 8u })
		for (int cpu : { 0, 1 }) {
			SCOPED_TRACE(location * 10 + static_cast<u32>(cpu));
			Sock s;
			s.capture(location, PACKET_COPY);
			next_tick();
			for (int i = 0; i < 3; i++)
				hook_only(location, {}, lldp, cpu);
			const Messages hooks = records();
			next_tick();
			drain();
			const Messages behind = records();
			ASSERT_EQ(hooks.size(), 3u);
			ASSERT_EQ(behind.size(), 3u);
			for (u32 i = 0; i < 3; i++)
				for (const Messages &list : { hooks, behind }) {
					EXPECT_EQ(list[i].u32(MOX_CAPTURE_TRACE_FRAME), i);
					EXPECT_EQ(list[i].u32(MOX_CAPTURE_TRACE_CPU),
						  static_cast<u32>(cpu));
					EXPECT_EQ(list[i].u32(MOX_CAPTURE_TRACE_LOCATION),
						  location);
				}
		}
}

TEST_F(DeliverTrace, sockets__one_record_each_in_the_order_of_offers)
{
	Sock one, full, trap, behind;
	one.capture(PACKET_LEV2_LOC, PACKET_COPY);
	full.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	full.sk->rcvbuf = 1;
	ASSERT_EQ(start(), 0);
	Messages got = deliver();
	std::map<u64, u32> verdicts;
	for (const auto &record : got)
		verdicts[record.u64(MOX_CAPTURE_TRACE_COOKIE)] = verdict(record);
	EXPECT_EQ(got.size(), 2u);
	EXPECT_EQ(verdicts,
		  (std::map<u64, u32>{ { one.sk->cookie, MOX_CAPTURE_VERDICT_PUT },
				       { full.sk->cookie, MOX_CAPTURE_VERDICT_BUFFER_FULL } }));
	// A trap ends the delivery: there are as many records as offers.
	trap.capture(PACKET_LEV2_LOC, PACKET_TRAP);
	behind.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const auto &offers = kernel().hook_cpus[0].delivered[kQueueLev2].offers;
	const uint64_t before = fake::total(offers);
	got = deliver();
	EXPECT_EQ(got.size(), fake::total(offers) - before);
	EXPECT_EQ(got.back().u32(MOX_CAPTURE_TRACE_TREATMENT), u32{ PACKET_TRAP });
}

// The rule has left between the hook and delivery.
TEST_F(DeliverTrace, unmatched)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	ASSERT_EQ(start(), 0);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	ASSERT_EQ(s.release(), 0);
	pass(kWait);
	records();
	drain();
	const Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(verdict(got[0]), u32{ MOX_CAPTURE_VERDICT_UNMATCHED });
	EXPECT_NEAR(static_cast<double>(got[0].u64(MOX_CAPTURE_TRACE_SINCE)), kWait, 64);
	EXPECT_EQ(got[0].u32(MOX_CAPTURE_TRACE_FRAME), 0u);
	for (int which : { MOX_CAPTURE_TRACE_COOKIE, MOX_CAPTURE_TRACE_PID,
			   MOX_CAPTURE_TRACE_PROCESS, MOX_CAPTURE_TRACE_TREATMENT })
		EXPECT_FALSE(got[0].has(which)) << which;
}

// A trace that begins while a frame is queued follows its delivery, without a time.
TEST_F(DeliverTrace, since__absent_when_the_hook_noted_no_time)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	ASSERT_EQ(start(), 0);
	pass(kWait);
	drain();
	const Messages got = records();
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(verdict(got[0]), u32{ MOX_CAPTURE_VERDICT_PUT });
	EXPECT_FALSE(got[0].has(MOX_CAPTURE_TRACE_SINCE));
}

TEST_F(DeliverTrace, frames_that_no_trace_follows_leave_no_record)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(start(attribute<u16>(MOX_CAPTURE_REQUEST_VLAN, 5)), 0);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	hook_only(PACKET_LEV2_LOC, { .outer_tci = 5 }, lldp);
	drain();
	const Messages got = records();
	ASSERT_EQ(got.size(), 2u);
	for (const auto &record : got)
		EXPECT_EQ(record.u32(MOX_CAPTURE_TRACE_FRAME), 1u);
	EXPECT_EQ(s.queued(), 2u);
}

// ---- times of arrival ---------------------------------------------------------------

class DeliverStamps : public DeliverTrace {
protected:
	// A frame through the hook, and delivered later; the time at the hook.
	u64 frame_later(u32 location = PACKET_LEV2_LOC)
	{
		const u64 at_hook = kernel().real_ns;
		hook_only(location, {}, lldp);
		pass(kWait);
		drain();
		return at_hook;
	}
	static void expect_time(const sk_buff &skb, u64 time)
	{
		EXPECT_NEAR(static_cast<double>(static_cast<int64_t>(skb.time - time)), 0, 64);
	}
};

TEST_F(DeliverStamps, only_sockets_that_asked)
{
	for (int type : { kRaw, kDgram })
		for (u32 sockets : { 1u, 2u, 4u }) {
			SCOPED_TRACE(sockets * 10 + static_cast<u32>(type));
			// Each alone, and several as clones of one master.
			for (u32 asked = 0; asked < 1u << sockets; asked++) {
				std::vector<std::unique_ptr<Sock>> all;
				for (u32 i = 0; i < sockets; i++) {
					all.push_back(std::make_unique<Sock>());
					all[i]->capture(PACKET_LEV2_LOC, PACKET_COPY, type);
					stamp(*all[i], asked >> i & 1);
				}
				const u64 at_hook = frame_later();
				for (u32 i = 0; i < sockets; i++) {
					ASSERT_EQ(all[i]->queued(), 1u);
					if (asked >> i & 1)
						expect_time(all[i]->buffer(), at_hook);
					else
						EXPECT_EQ(all[i]->buffer().time, 0u);
					EXPECT_EQ(all[i]->buffer().len, type == kDgram ? 46u : 60u);
				}
			}
		}
}

// A trace needs times, and sets none.
TEST_F(DeliverStamps, a_trace_alone_sets_none)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ASSERT_EQ(start(), 0);
	frame_later();
	EXPECT_EQ(s.buffer().time, 0u);
	stamp(s);
	const u64 at_hook = frame_later();
	expect_time(s.buffer(1), at_hook);
	ASSERT_EQ(stop(), 0);
	const u64 later = frame_later();
	expect_time(s.buffer(2), later);
}

// The wall clock that is set meanwhile: the frame is as long ago as the monotonic clock says.
TEST_F(DeliverStamps, real_time_that_is_set_between_hook_and_delivery)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	stamp(s);
	hook_only(PACKET_LEV2_LOC, {}, lldp);
	kernel().monotonic_ns += kWait;
	kernel().real_ns = 1234567890000000000;
	drain();
	expect_time(s.buffer(), 1234567890000000000 - kWait);
}

TEST_F(DeliverStamps, frames_of_before_have_none)
{
	Sock s;
	s.capture(PACKET_WLAN_LOC, PACKET_COPY);
	hook_only(PACKET_WLAN_LOC, {}, lldp);
	stamp(s);
	const u64 at_hook = frame_later(PACKET_WLAN_LOC);
	ASSERT_EQ(s.queued(), 2u);
	EXPECT_EQ(s.buffer(0).time, 0u);
	expect_time(s.buffer(1), at_hook);
	stamp(s, false);
	frame_later(PACKET_WLAN_LOC);
	EXPECT_EQ(s.buffer(2).time, 0u);
}

} // namespace
