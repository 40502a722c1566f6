/* SPDX-License-Identifier: GPL-2.0-only */
/* From options and frames to sends, in order, in time, and counted. */
#include "sender.h"

#include "expect_error.h"
#include "fake_calls.h"
#include "fake_clock.h"
#include "mox/error.h"

namespace {

using moxsend::Bytes;
using Frames = std::vector<Bytes>;

constexpr std::uint64_t ms = 1'000'000;
constexpr mox::MacAddress group = { 0x01, 0x80, 0xc2, 0, 0, 0x0e }, other = { 2, 0, 0, 0, 2, 2 };

Bytes lldp_frame_of(std::size_t length)
{
	Bytes frame = { 0x01, 0x80, 0xc2, 0, 0, 0x0e, 2, 0, 0, 0, 1, 1, 0x88, 0xcc };
	frame.resize(length, 0x55);
	return frame;
}

class Sender : public testing::Test {
protected:
	void SetUp() override { stop = 0; }

	/** Runs with a socket on the fake calls. */
	void run(moxsend::FrameSource &source)
	{
		mox::PacketSocket socket = moxsend::prepare_socket(options, calls);
		moxsend::run_send(
			source, options,
			[&](const mox::SendRequest &request) { socket.send(request); }, clock, stop,
			[&](const moxsend::Counters &now) {
				reported.push_back(now.sent + now.failed);
			},
			counters);
	}
	std::vector<Bytes> sent_bytes() const
	{
		std::vector<Bytes> all;
		for (const SentMessage &each : calls.sent)
			all.push_back(each.bytes);
		return all;
	}

	FakeCalls calls;
	FakeClock clock;
	moxsend::Options options;
	moxsend::Counters counters;
	std::vector<std::uint64_t> reported;
	volatile std::sig_atomic_t stop;
};

TEST_F(Sender, moxsend_prepare__a_raw_frame_is_sent_as_it_is)
{
	moxsend::Prepared prepared;
	for (std::size_t length : { 0, 1, 13, 14, 59, 60, 1514, 9000 }) {
		Bytes frame = lldp_frame_of(length);
		moxsend::prepare(frame, options, prepared);
		EXPECT_EQ(prepared.bytes, frame);
		EXPECT_EQ(prepared.request.bytes.data(), prepared.bytes.data());
		EXPECT_EQ(prepared.request.bytes.size(), length);
		EXPECT_FALSE(prepared.request.to) << "no interface, no address";
		EXPECT_FALSE(prepared.request.control);
	}
}

TEST_F(Sender, moxsend_prepare__interface_by_address_or_by_binding)
{
	moxsend::Prepared prepared;
	options.interface = 7;
	moxsend::prepare(lldp_frame_of(60), options, prepared);
	ASSERT_TRUE(prepared.request.to);
	EXPECT_EQ(prepared.request.to->ifindex, 7u);
	EXPECT_FALSE(prepared.request.to->mac);
	options.bind = true;
	moxsend::prepare(lldp_frame_of(60), options, prepared);
	EXPECT_FALSE(prepared.request.to);
}

TEST_F(Sender, moxsend_prepare__pads_with_zeroes)
{
	options.pad = true;
	moxsend::Prepared prepared;
	moxsend::prepare(lldp_frame_of(20), options, prepared);
	ASSERT_EQ(prepared.bytes.size(), 60u);
	EXPECT_EQ(prepared.bytes[19], 0x55);
	EXPECT_EQ(Bytes(prepared.bytes.begin() + 20, prepared.bytes.end()), Bytes(40));
	moxsend::prepare(lldp_frame_of(61), options, prepared);
	EXPECT_EQ(prepared.bytes.size(), 61u);
	options.kind = mox::SocketKind::kDatagram;
	moxsend::prepare(lldp_frame_of(20), options, prepared);
	EXPECT_EQ(prepared.bytes.size(), 46u) << "the header comes in front";
}

TEST_F(Sender, moxsend_prepare__a_datagram_gives_its_header_to_the_address)
{
	options.kind = mox::SocketKind::kDatagram;
	options.interface = 3;
	moxsend::Prepared prepared;
	moxsend::prepare(lldp_frame_of(17), options, prepared);
	EXPECT_EQ(prepared.bytes, Bytes(3, 0x55));
	ASSERT_TRUE(prepared.request.to);
	EXPECT_EQ(prepared.request.to->ifindex, 3u);
	EXPECT_EQ(prepared.request.to->ether_type, 0x88cc);
	EXPECT_EQ(prepared.request.to->mac, group);

	options.interface = 0; // needs its address all the same
	options.to = other;
	options.ether_type = 0x1234;
	moxsend::prepare(lldp_frame_of(14), options, prepared);
	EXPECT_EQ(prepared.bytes, Bytes());
	EXPECT_EQ(prepared.request.to->ifindex, 0u);
	EXPECT_EQ(prepared.request.to->ether_type, 0x1234);
	EXPECT_EQ(prepared.request.to->mac, other);
	expect_error<mox::UsageError>(
		[&] { moxsend::prepare(lldp_frame_of(13), options, prepared); },
		{ "13 bytes has no MAC header", "--datagram" });

	options.has_header = false;
	moxsend::prepare(lldp_frame_of(13), options, prepared);
	EXPECT_EQ(prepared.bytes, lldp_frame_of(13));
}

TEST_F(Sender, moxsend_prepare_socket__kind_and_binding)
{
	{
		mox::PacketSocket socket = moxsend::prepare_socket(options, calls);
		EXPECT_EQ(calls.type & 0xf, SOCK_RAW);
		EXPECT_EQ(calls.protocol, 0) << "a protocol would be a rule";
		EXPECT_TRUE(calls.bound_to.empty());
	}
	options.kind = mox::SocketKind::kDatagram;
	options.bind = true;
	options.interface = 7;
	mox::PacketSocket socket = moxsend::prepare_socket(options, calls);
	EXPECT_EQ(calls.type & 0xf, SOCK_DGRAM);
	ASSERT_EQ(calls.bound_to.size(), 20u);
	EXPECT_EQ(calls.bound_to[4], 7);
}

TEST_F(Sender, moxsend_run__everything_in_order_so_often)
{
	moxsend::ListSource source(Frames{ { 1 }, { 2, 2 }, { 3 } });
	options.count = 2;
	mox::SendControl control;
	control.vlan = 10;
	options.control = control.record();
	options.interface = 7;
	run(source);
	EXPECT_EQ(sent_bytes(),
		  (std::vector<Bytes>{ { 1 }, { 2, 2 }, { 3 }, { 1 }, { 2, 2 }, { 3 } }));
	for (const SentMessage &each : calls.sent) {
		EXPECT_EQ(each.name.at(4), 7);
		EXPECT_EQ(each.control.at(18), 10);
	}
	EXPECT_EQ(counters.sent, 6u);
	EXPECT_EQ(counters.bytes, 8u);
	EXPECT_EQ(counters.failed, 0u);
	EXPECT_TRUE(clock.waits.empty());
}

TEST_F(Sender, moxsend_run__in_time_also_when_waits_end_late)
{
	moxsend::ListSource source(Frames{ { 1 }, { 2 }, { 3 } });
	options.count = 2;
	options.rate = 100;
	clock.oversleep = 3 * ms;
	std::uint64_t begin = clock.time;
	std::vector<std::uint64_t> times;
	calls.on_send = [&] { times.push_back(clock.time - begin); };
	run(source);
	EXPECT_EQ(times,
		  (std::vector<std::uint64_t>{ 0, 13 * ms, 23 * ms, 33 * ms, 43 * ms, 53 * ms }));
	EXPECT_EQ(counters.elapsed, 53 * ms);
}

TEST_F(Sender, moxsend_run__a_wait_that_a_signal_cuts_short_goes_on)
{
	moxsend::ListSource source(Frames{ { 1 }, { 2 } });
	options.rate = 100;
	clock.interrupted = true;
	std::uint64_t begin = clock.time;
	run(source);
	EXPECT_EQ(clock.waits.size(), 2u);
	EXPECT_EQ(clock.time, begin + 10 * ms);
	EXPECT_EQ(counters.sent, 2u);
}

TEST_F(Sender, moxsend_run__a_signal_ends_it_and_the_counters_stand)
{
	moxsend::ListSource source(Frames{ { 1 } });
	options.count = 0;
	options.rate = 10;
	clock.on_wait = [&] {
		if (clock.waits.size() == 4)
			stop = 1;
	};
	run(source);
	EXPECT_EQ(counters.sent, 4u);
	EXPECT_EQ(calls.sent.size(), 4u);
}

TEST_F(Sender, moxsend_run__without_a_rate_signals_come_in_all_the_same)
{
	moxsend::ListSource source(Frames{ { 1 } });
	options.count = 0;
	clock.on_wait = [&] {
		if (clock.waits.size() == 3)
			stop = 1;
	};
	run(source);
	EXPECT_EQ(counters.sent, 3u * 64 - 1);
	EXPECT_EQ(clock.waits, (std::vector<std::uint64_t>{ 0, 0, 0 }));
}

TEST_F(Sender, moxsend_run__the_first_failure_ends_it)
{
	moxsend::ListSource source(Frames{ { 1 }, { 2 }, { 3 } });
	calls.send_errors = { 0, ENETDOWN };
	options.interface = 7;
	expect_error<mox::SocketError>([&] { run(source); }, { "link of interface 7 is down" });
	EXPECT_EQ(calls.sent.size(), 2u);
	EXPECT_EQ(counters.sent, 1u);
	EXPECT_EQ(counters.failed, 1u);
}

TEST_F(Sender, moxsend_run__or_is_counted_by_errno_and_passed_over)
{
	moxsend::ListSource source(Frames{ Bytes(1), Bytes(2), Bytes(3), Bytes(4), Bytes(5) });
	calls.send_errors = { ENETUNREACH, 0, ENETDOWN, ENETUNREACH, 0 };
	options.interface = 7;
	options.continue_on_error = true;
	run(source);
	EXPECT_EQ(counters.sent, 2u);
	EXPECT_EQ(counters.bytes, 7u);
	EXPECT_EQ(counters.failed, 3u);
	ASSERT_EQ(counters.failures.size(), 2u);
	EXPECT_EQ(counters.failures[ENETUNREACH].count, 2u);
	EXPECT_NE(counters.failures[ENETUNREACH].first.find("cannot send 1 byte"),
		  std::string::npos);
	EXPECT_EQ(counters.failures[ENETDOWN].count, 1u);
}

class DefectSource : public moxsend::ListSource {
public:
	using ListSource::ListSource;
	std::optional<moxsend::SourceFrame> next() override
	{
		auto frame = ListSource::next();
		if (frame && ++number_ == 2)
			frame->defect = "frame 2 was cut";
		return frame;
	}

private:
	int number_ = 0;
};

TEST_F(Sender, moxsend_run__a_defect_is_a_failure_that_never_comes_to_a_send)
{
	options.continue_on_error = true;
	{
		DefectSource source(Frames{ { 1 }, { 2 }, { 3 } });
		run(source);
	}
	EXPECT_EQ(sent_bytes(), (std::vector<Bytes>{ { 1 }, { 3 } }));
	EXPECT_EQ(counters.failures[0].first, "frame 2 was cut");
	options.continue_on_error = false;
	DefectSource source(Frames{ { 1 }, { 2 }, { 3 } });
	expect_error<mox::UsageError>([&] { run(source); }, { "frame 2 was cut" });
}

TEST_F(Sender, moxsend_run__progress_about_once_a_second)
{
	moxsend::ListSource source(Frames{ { 1 } });
	options.rate = 4;
	options.count = 10;
	run(source);
	EXPECT_EQ(reported, (std::vector<std::uint64_t>{ 5, 9 }));
}

TEST_F(Sender, moxsend_run__a_source_without_frames_does_not_run_for_ever)
{
	moxsend::ListSource source(Frames{});
	options.count = 0;
	expect_error<moxsend::FileError>([&] { run(source); },
					 { "the list of frames holds no frame" });
}

TEST_F(Sender, moxsend_run__stopped_before_it_began_sends_nothing)
{
	moxsend::ListSource source(Frames{ { 1 } });
	stop = 1;
	run(source);
	EXPECT_TRUE(calls.sent.empty());
}

} // namespace
