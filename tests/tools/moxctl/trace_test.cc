// SPDX-License-Identifier: GPL-2.0-only
/* Traces as whole commands. */
#include "trace.h"

#include "commands_fixture.h"
#include "expect_error.h"
#include "fake_capture.h"

#include <nlohmann/json.hpp>

#include <cstdlib>

namespace {

using moxctl::Record;
using moxctl::Set;

class Trace : public Commands {
protected:
	FakeCapture module{ netlink };
	int rounds = 6; /**< looks at the signal until it is there */

	void SetUp() override
	{
		Commands::SetUp();
		setenv("TZ", "UTC", 1);
		options.action = Action::kTrace;
		stopped = [this] { return rounds-- <= 0; };
	}
	long lines() const { return std::count(printed.begin(), printed.end(), '\n'); }
};

Record record_of(const Attributes &attributes)
{
	return moxctl::decode_record(Set::kTrace, attributes.bytes());
}

TEST_F(Trace, lines)
{
	struct {
		Attributes attributes;
		std::string line;
	} const cases[] = {
		{ sample_trace(),
		  "22:13:20.123456 cpu1 lev2 hook 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff arp vlan 100 length 60 from port1 "
		  "frame 5: taken from the platform, and queued; key eth=arp; socket 17 of arpwatch (pid 412), trap" },
		{ Attributes()
			  .u32(MOX_CAPTURE_TRACE_HOP, MOX_CAPTURE_HOP_DELIVERY)
			  .u32(MOX_CAPTURE_TRACE_VERDICT, MOX_CAPTURE_VERDICT_BUFFER_FULL)
			  .u64(MOX_CAPTURE_TRACE_TIME, 1000)
			  .u64(MOX_CAPTURE_TRACE_SINCE, 1234567)
			  .u32(MOX_CAPTURE_TRACE_CPU, 0)
			  .u32(MOX_CAPTURE_TRACE_LOCATION, PACKET_WLAN_LOC)
			  .u16(MOX_CAPTURE_TRACE_ETHER_TYPE, 0x1234)
			  .u64(MOX_CAPTURE_TRACE_COOKIE, 3),
		  "00:00:00.000001 cpu0 wlan delivery 1234: dropped: the socket's receive buffer is full; socket 3; 1.235 "
		  "ms after the hook" },
		{ Attributes()
			  .u32(MOX_CAPTURE_TRACE_HOP, MOX_CAPTURE_HOP_SEND)
			  .u32(MOX_CAPTURE_TRACE_VERDICT, MOX_CAPTURE_VERDICT_REFUSED)
			  .s32(MOX_CAPTURE_TRACE_ERROR, -100)
			  .u32(MOX_CAPTURE_TRACE_IFINDEX, 9),
		  "00:00:00.000000 cpu0 send to 9: the send failed (Network is down)" },
		{ Attributes()
			  .u32(MOX_CAPTURE_TRACE_HOP, 8)
			  .u32(MOX_CAPTURE_TRACE_VERDICT, 99)
			  .text(MOX_CAPTURE_TRACE_PROCESS, "a\x1b[2J")
			  .u64(MOX_CAPTURE_TRACE_COOKIE, 1),
		  "00:00:00.000000 cpu0 8: verdict 99, which this moxctl has no words for; socket 1 of a\\x1b[2J" },
	};
	moxctl::InterfaceNames interfaces(
		[](std::uint32_t index) { return index == 7 ? std::string("port1") : ""; });
	for (const auto &each : cases)
		EXPECT_EQ(moxctl::trace_line(record_of(each.attributes), interfaces), each.line);
}

TEST_F(Trace, every_verdict_is_printed_in_words)
{
	moxctl::InterfaceNames interfaces(nullptr);
	for (const moxctl::VerdictRow &row : moxctl::capture_verdicts())
		EXPECT_NE(moxctl::trace_line(record_of(sample_trace(row.number)), interfaces)
				  .find(std::string(row.meaning)),
			  std::string::npos);
}

TEST_F(Trace, ends_at_a_signal)
{
	module.events = { sample_trace(), sample_trace(), sample_trace() };
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(lines(), 3);
	EXPECT_GT(flushes, 0u);
	EXPECT_EQ(complaints, "");
	EXPECT_EQ(module.last().command, MOX_CAPTURE_CMD_TRACE_START);
}

TEST_F(Trace, ends_at_the_count)
{
	module.events = std::vector<Attributes>(5, sample_trace());
	options.count = 2;
	stopped = nullptr;
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(lines(), 2);
}

TEST_F(Trace, ends_after_seconds)
{
	options.seconds = 3;
	unsigned looks = 0;
	stopped = [&] {
		now += std::chrono::milliseconds(1000);
		return ++looks > 100;
	};
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(looks, 3u);
}

TEST_F(Trace, the_request_has_the_criteria)
{
	options.trace.add(MOX_CAPTURE_REQUEST_PORT, 67);
	run();
	EXPECT_EQ(module.last().attributes,
		  (std::map<unsigned, Bytes>{
			  { MOX_CAPTURE_REQUEST_PORT, payload_of<std::uint16_t>(67) } }));
}

TEST_F(Trace, lost_records_are_reported_when_their_number_changes_and_at_the_end)
{
	auto losing = [](std::uint64_t lost) {
		return sample_trace().u64(MOX_CAPTURE_TRACE_LOST, lost);
	};
	module.events = { losing(0), losing(3), losing(3), losing(8) };
	rounds = 8;
	EXPECT_EQ(run(), moxctl::status_incomplete);
	std::string three = "3 records were lost: trace fewer frames, with more criteria\n";
	std::string eight = "8 records were lost: trace fewer frames, with more criteria\n";
	EXPECT_EQ(complaints, three + eight + eight);
}

TEST_F(Trace, records_that_the_kernel_dropped)
{
	netlink.overrun = true;
	module.events = { sample_trace() };
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_EQ(lines(), 1);
	EXPECT_NE(complaints.find("some records were lost"), std::string::npos) << complaints;
}

TEST_F(Trace, as_json)
{
	options.json = true;
	module.events = { sample_trace(), sample_trace(MOX_CAPTURE_VERDICT_UNWANTED) };
	run();
	ASSERT_EQ(lines(), 2);
	auto first = nlohmann::json::parse(printed.substr(0, printed.find('\n')));
	nlohmann::json expected = {
		{ "hop", "hook" },
		{ "verdict", "taken" },
		{ "time", 1700000000123456789ull },
		{ "cpu", 1 },
		{ "location", "PACKET_LEV2_LOC" },
		{ "frame", 5 },
		{ "length", 60 },
		{ "ifindex", 7 },
		{ "vlan", 100 },
		{ "src_mac", "02:00:00:00:00:01" },
		{ "dst_mac", "ff:ff:ff:ff:ff:ff" },
		{ "ether_type", "0806" },
		{ "key", { { "type", "PACKET_ETH_PROT_EQUAL" }, { "value", "0806" } } },
		{ "cookie", 17 },
		{ "pid", 412 },
		{ "process", "arpwatch" },
		{ "treatment", "PACKET_TRAP" },
	};
	EXPECT_EQ(first, expected);
}

TEST_F(Trace, a_broken_record_ends_it)
{
	module.events = { Attributes().u32(MOX_CAPTURE_TRACE_TIME, 1) };
	expect_error<Failure>([this] { run(); }, { "TIME", "TRACE" });
}

} // namespace
