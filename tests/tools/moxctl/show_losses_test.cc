// SPDX-License-Identifier: GPL-2.0-only
/* "moxctl show losses": where frames were lost, and why. */
#include "capture_reasons.h"
#include "show_fixture.h"

#include <set>

namespace {

TEST_F(Show, losses)
{
	EXPECT_EQ(show(Action::kShowLosses), moxctl::status_ok);
	for (const char *part :
	     { "location PACKET_LEV2_LOC:\n  12 copies_refused: Wanted, but no clone was made",
	       "\n      remedy: give the copy thread more CPU time", "  8 takes_refused: ",
	       "  5 unkept: ", "  1 unmatched: ", "closed sockets of PACKET_LEV2_LOC:\n",
	       "socket 17 of arpwatch (pid 412, lev2):\n  8 rcvbuf_full_drops: ",
	       "  2 memory_drops: ", "  1 intf_linkdown_fails: " })
		EXPECT_TRUE(has(part)) << part << "\nis missing in\n" << printed;
	for (const char *part : { "clone_failed", "in flight", "filter_drops", "unwanted" })
		EXPECT_FALSE(has(part)) << part;
	// The sums of the location alone: those of the CPUs are part of them.
	EXPECT_EQ(printed.find("location PACKET"), printed.rfind("location PACKET"));

	options.all = true;
	show(Action::kShowLosses);
	EXPECT_TRUE(has("  0 clone_failed: "));
	EXPECT_TRUE(has("  0 filter_drops: "));
}

TEST_F(Show, losses__of_closed_sockets_that_had_left_their_location)
{
	module.entries[MOX_CAPTURE_CMD_LOCATIONS] = {
		Attributes()
			.u32(MOX_CAPTURE_LOCATION_LOCATION, PACKET_NONE_LOC)
			.nest(MOX_CAPTURE_LOCATION_CLOSED, sample_counters())
	};
	show(Action::kShowLosses);
	EXPECT_TRUE(has("closed sockets without a location:\n  8 rcvbuf_full_drops: ")) << printed;
}

TEST_F(Show, losses__none)
{
	module.entries[MOX_CAPTURE_CMD_SOCKETS].clear();
	module.entries[MOX_CAPTURE_CMD_LOCATIONS].clear();
	show(Action::kShowLosses);
	EXPECT_EQ(printed, "no losses\n");
}

TEST_F(Show, losses__of_one_socket_have_no_locations)
{
	options.selection.pid = 412;
	show(Action::kShowLosses);
	EXPECT_FALSE(has("location PACKET"));
	EXPECT_TRUE(has("socket 17"));
	EXPECT_EQ(module.requests.size(), 1u);
}

TEST_F(Show, losses__of_a_reserved_location_are_its_own_and_those_of_its_hook)
{
	auto closed = [](std::uint32_t location) {
		return Attributes()
			.u32(MOX_CAPTURE_LOCATION_LOCATION, location)
			.nest(MOX_CAPTURE_LOCATION_CLOSED, sample_counters());
	};
	module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { sample_location(PACKET_LEV2_LOC),
						      sample_location(PACKET_RESV_LOC),
						      closed(PACKET_LEV2_RESV_LOC),
						      closed(PACKET_LEV3_RESV_LOC) };
	options.selection.location = PACKET_LEV3_RESV_LOC;
	show(Action::kShowLosses);
	EXPECT_TRUE(module.requests[0].attributes.empty());
	EXPECT_EQ(module.requests[1].attributes.at(MOX_CAPTURE_REQUEST_LOCATION),
		  payload_of<std::uint32_t>(PACKET_LEV3_RESV_LOC));
	EXPECT_TRUE(has("location PACKET_RESV_LOC:"));
	EXPECT_TRUE(has("closed sockets of PACKET_LEV3_RESV_LOC:"));
	EXPECT_FALSE(has("PACKET_LEV2"));
	EXPECT_FALSE(has("in flight")) << "a location without a hook has no sums";
}

/** Each sum of the header's comments, off by some frames. */
TEST_F(Show, losses__in_flight)
{
	struct {
		std::vector<unsigned> attributes;
		const char *sum;
		bool of_location;
	} const cases[] = {
		{ { MOX_CAPTURE_LOCATION_SEEN }, "seen", true },
		{ { MOX_CAPTURE_LOCATION_RNFP_DROPS }, "wanted", true },
		{ { MOX_CAPTURE_LOCATION_KEPT }, "cloned + taken", true },
		{ { MOX_CAPTURE_COUNTERS_MATCHED }, "matched", false },
		{ { MOX_CAPTURE_COUNTERS_READ }, "recv_packets", false },
		{ { MOX_CAPTURE_COUNTERS_SENDS }, "sends", false },
	};
	for (const auto &each : cases) {
		auto location = sample_location();
		auto counters = sample_counters();
		// The last one of an attribute counts.
		for (unsigned attribute : each.attributes)
			(each.of_location ? location : counters).u64(attribute, 5000);
		auto socket = sample_socket();
		socket.nest(MOX_CAPTURE_SOCKET_COUNTERS, counters);
		module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { location };
		module.entries[MOX_CAPTURE_CMD_SOCKETS] = { socket };
		options.json = false;
		show(Action::kShowLosses);
		EXPECT_TRUE(has(std::string("(of ") + each.sum + ")")) << each.sum << printed;
		json report = show_json(Action::kShowLosses);
		json subject = report[each.of_location ? "locations" : "sockets"][0];
		ASSERT_EQ(subject["in_flight"].size(), 1u) << each.sum;
		EXPECT_EQ(subject["in_flight"][0]["sum"], each.sum);
	}
}

/** The sum of two counters begins again at 0 as a counter does: 2^64 - 2 frames of which 2^64 - 5 are delivered. */
TEST_F(Show, losses__in_flight_where_counters_begin_again)
{
	auto location = sample_location();
	for (unsigned attribute : { MOX_CAPTURE_LOCATION_CLONED, MOX_CAPTURE_LOCATION_TAKEN })
		location.u64(attribute, INT64_MAX);
	for (unsigned attribute : { MOX_CAPTURE_LOCATION_UNKEPT, MOX_CAPTURE_LOCATION_UNMATCHED,
				    MOX_CAPTURE_LOCATION_FREED, MOX_CAPTURE_LOCATION_QUEUED })
		location.u64(attribute, 0);
	location.u64(MOX_CAPTURE_LOCATION_KEPT, UINT64_MAX - 4);
	module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { location };
	json report = show_json(Action::kShowLosses);
	bool found = false;
	for (const json &each : report["locations"][0]["in_flight"])
		if (each["sum"] == "cloned + taken") {
			EXPECT_EQ(each["frames"], 3);
			found = true;
		}
	EXPECT_TRUE(found) << report;
}

TEST_F(Show, reasons__every_verdict_and_every_counter_of_lost_frames_has_one)
{
	for (const moxctl::VerdictRow &verdict : moxctl::capture_verdicts())
		EXPECT_TRUE(moxctl::reason_of_verdict(verdict.number)) << verdict.name;
	// Counters that are no reason: sums, and what became of the other frames.
	const std::set<std::string> fine = {
		"seen",    "wanted", "cloned",         "taken",        "kept",
		"queued",  "offers", "closed_sockets", "recv_packets", "send_packets",
		"matched", "read",   "sends",
	};
	std::set<std::string> reasons;
	for (const moxctl::ReasonRow &row : moxctl::capture_reasons()) {
		EXPECT_FALSE(row.remedy.empty());
		EXPECT_FALSE(row.meaning().empty());
		EXPECT_TRUE(row.counter().empty() || reasons.insert(row.counter()).second)
			<< row.counter();
	}
	for (moxctl::Set set : { moxctl::Set::kLocation, moxctl::Set::kCounters })
		for (const moxctl::AttributeRow &row : moxctl::attributes_of(set)) {
			std::string name = moxctl::lower_name(row.name);
			if (row.kind == moxctl::Kind::kU64) {
				EXPECT_NE(fine.contains(name), reasons.contains(name)) << name;
			}
		}
}

} // namespace
