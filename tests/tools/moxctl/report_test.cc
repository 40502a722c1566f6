/* SPDX-License-Identifier: GPL-2.0-only */
/* Report texts taken apart, and as JSON. */
#include "json.h"
#include "report.h"
#include "report_lines.h"
#include "report_texts.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>

namespace {

using Json = nlohmann::json;
using moxctl::Report;

Report parse(const std::string &text, unsigned kind, std::size_t locations = 0)
{
	return moxctl::parse_report(lines_of_text(text), kind, locations);
}

std::string all_problems(const Report &report)
{
	std::string text;
	for (const std::string &problem : report.problems)
		text += problem + "\n";
	return text;
}

void expect_problem(const Report &report, const std::string &part)
{
	EXPECT_NE(all_problems(report).find(part), std::string::npos)
		<< "\"" << part << "\" is missing in:\n"
		<< all_problems(report);
}

TEST(ctl_report, lines__kinds_and_values)
{
	auto line = moxctl::scan_line("cpu 3 efbuff cnt:      17", moxctl::report_queues);
	ASSERT_TRUE(line);
	EXPECT_EQ(line->form->line, moxctl::Line::kQueueCpu);
	EXPECT_EQ(line->values[0], "3");
	EXPECT_EQ(line->values[1], "17");

	auto process = moxctl::scan_line("show process a regular: b regular:",
					 moxctl::report_process);
	ASSERT_TRUE(process);
	EXPECT_EQ(process->values[0], "a regular: b");

	EXPECT_FALSE(moxctl::scan_line("cpu 3 efbuff cnt:      17", moxctl::report_memory));
	EXPECT_FALSE(moxctl::scan_line("cpu 3 efbuff cnt:      17 ", moxctl::report_queues));
	EXPECT_FALSE(moxctl::scan_line("cpu x efbuff cnt:      17", moxctl::report_queues));
	EXPECT_FALSE(moxctl::scan_line("cpu 3 efbuff cnt:      ", moxctl::report_queues));
	EXPECT_FALSE(moxctl::scan_line("cpu ", moxctl::report_queues));
}

TEST(ctl_report, lines__rule_values)
{
	for (const char *value :
	     { "", "code: 1, subcode: 2  ", "01:80:c2:00:00:0e  ", "0806  ", "88cc  ", "17  ",
	       "-1  ", "4294967295  ", "illegal regular type!" })
		EXPECT_TRUE(moxctl::scan_line(std::string("regular data:  ") + value,
					      moxctl::report_rules))
			<< value;
	for (const char *value :
	     { "17", "17 ", "17   ", "code: 1  ", "code: x, subcode: 2  ",
	       "code: 1, subcode:   ", "01:80:c2:00:00  ", "01-80-c2-00-00-0e  ",
	       "01:80:c2:00:00:0g  ", "xyz  ", "-  ", " " })
		EXPECT_FALSE(moxctl::scan_line(std::string("regular data:  ") + value,
					       moxctl::report_rules))
			<< value;
}

TEST(ctl_report, rules_of_one_location)
{
	Report report = parse(lev2_report(), moxctl::report_rules, 1);
	EXPECT_EQ(all_problems(report), "");
	ASSERT_EQ(report.locations.size(), 1u);
	const moxctl::LocationReport &location = report.locations[0];
	EXPECT_EQ(location.name, "PACKET_LEV2_LOC");
	ASSERT_EQ(location.queues.size(), 2u);
	EXPECT_EQ(location.queues[1].cpu, 3);
	EXPECT_EQ(location.queues[1].count, 6u);

	ASSERT_EQ(location.sockets.size(), 2u);
	const moxctl::Socket &arpwatch = location.sockets[0];
	EXPECT_EQ(arpwatch.process, "arpwatch");
	EXPECT_EQ(arpwatch.vsd, 0u);
	EXPECT_EQ(arpwatch.pid, 412);
	EXPECT_TRUE(arpwatch.running);
	EXPECT_TRUE(arpwatch.control_data);
	EXPECT_EQ(arpwatch.interface, 7u);
	EXPECT_EQ(arpwatch.location, "PACKET_LEV2_LOC");
	EXPECT_EQ(arpwatch.treatment, "PACKET_COPY");
	ASSERT_EQ(arpwatch.rules.size(), 2u);
	EXPECT_EQ(arpwatch.rules[0].type, "PACKET_ETH_PROT_EQUAL");
	EXPECT_EQ(arpwatch.rules[0].values, (std::vector<std::string>{ "0806", "88cc" }));
	ASSERT_EQ(arpwatch.counters.size(), 16u);
	for (std::size_t i = 0; i < 16; ++i)
		EXPECT_EQ(arpwatch.counters[i].second, static_cast<std::int64_t>(100 + i))
			<< arpwatch.counters[i].first;

	const moxctl::Socket &everything = location.sockets[1];
	EXPECT_EQ(everything.process, "all kinds: x");
	EXPECT_EQ(everything.vsd, 3u);
	EXPECT_FALSE(everything.running);
	EXPECT_FALSE(everything.control_data);
	EXPECT_EQ(everything.location, "Unknown");
	ASSERT_EQ(everything.rules.size(), 7u);
	EXPECT_EQ(everything.rules[3].values, std::vector<std::string>());
	EXPECT_EQ(everything.rules[5].values, std::vector<std::string>{ "-1" });

	EXPECT_EQ(location.filter_count, 2);
	ASSERT_EQ(location.filters.size(), 2u);
	EXPECT_EQ(location.filters[0].rule.values, std::vector<std::string>{ "0806" });
	ASSERT_EQ(location.filters[0].matches.size(), 2u);
	EXPECT_EQ(location.filters[0].matches[1].process, "other");
	EXPECT_EQ(location.filters[0].matches[1].treatment, "PACKET_TRAP");
	ASSERT_EQ(location.filters[0].matches[1].rules.size(), 1u);
	EXPECT_EQ(location.filters[0].matches[1].rules[0].type, "PACKET_SRC_INTF_EQUAL");
	EXPECT_EQ(location.filters[0].matches[1].rules[0].values, std::vector<std::string>{ "7" });
	EXPECT_EQ(location.filters[1].rule.type, "PACKET_ALL");
	EXPECT_TRUE(location.filters[1].matches.empty());
}

TEST(ctl_report, whole_reports_have_no_problems)
{
	EXPECT_EQ(all_problems(parse(all_reports(), moxctl::report_rules, 8)), "");
	EXPECT_EQ(all_problems(parse(queues_report(), moxctl::report_queues, 8)), "");
	EXPECT_EQ(all_problems(parse(memory_report(), moxctl::report_memory)), "");
	EXPECT_EQ(all_problems(parse(thread_report(), moxctl::report_thread)), "");
	EXPECT_EQ(all_problems(parse("show process x regular:\n", moxctl::report_process)), "");
	Report tech = parse(dump_file_text(), moxctl::report_tech, 8);
	EXPECT_EQ(all_problems(tech), "");
	EXPECT_EQ(tech.locations.size(), 8u);
	EXPECT_EQ(tech.memory.size(), 4u);
}

TEST(ctl_report, a_process_has_sockets_without_a_location)
{
	Report report = parse("show process x regular:\n" + arpwatch_socket() + everything_socket(),
			      moxctl::report_process);
	EXPECT_EQ(all_problems(report), "");
	EXPECT_EQ(report.sockets.size(), 2u);
	EXPECT_TRUE(report.locations.empty());
}

TEST(ctl_report, a_report_cut_anywhere_before_its_last_word_is_not_whole)
{
	struct {
		std::string text;
		unsigned kind;
		std::size_t locations;
	} const cases[] = {
		{ lev2_report(), moxctl::report_rules, 1 },
		{ all_reports(), moxctl::report_rules, 8 },
		{ queues_report(), moxctl::report_queues, 8 },
		{ memory_report(), moxctl::report_memory, 0 },
		{ thread_report(), moxctl::report_thread, 0 },
		{ dump_file_text(), moxctl::report_tech, 8 },
	};
	// Lines at the end that say nothing that could be missed.
	auto says_nothing = [](const std::string &line) {
		return line.empty() || line.starts_with("*****") || line.starts_with("cpu 3 ") ||
		       line == "  match regulars:" || line == "regular data:  ";
	};
	for (const auto &each : cases) {
		auto lines = lines_of_text(each.text);
		while (!lines.empty()) {
			std::string last = lines.back();
			lines.pop_back();
			if (says_nothing(last))
				continue;
			Report report = moxctl::parse_report(lines, each.kind, each.locations);
			bool match_line = last.starts_with("    ") && !last.starts_with("     ");
			if (!match_line) {
				EXPECT_FALSE(report.problems.empty())
					<< "whole without its end from \"" << last << "\" on";
			}
		}
	}
}

TEST(ctl_report, missing_lines_are_named)
{
	expect_problem(parse("", moxctl::report_rules, 8), "0 locations instead of 8");
	expect_problem(parse(arpwatch_socket(), moxctl::report_rules, 1),
		       "the beginning is missing");
	expect_problem(parse(queue_lines("PACKET_LEV2_LOC"), moxctl::report_rules, 1),
		       "PACKET_LEV2_LOC: the filter list is missing");
	expect_problem(parse("location: PACKET_LEV2_LOC\n\nfilter regular list cnt: 0\n",
			     moxctl::report_rules, 1),
		       "PACKET_LEV2_LOC: the queues are missing");
	expect_problem(parse(queue_lines("PACKET_LEV2_LOC") +
				     "\nfilter regular list cnt: 3\nregular type:  PACKET_ALL\n",
			     moxctl::report_rules, 1),
		       "1 of 3 entries");
	expect_problem(parse("process:       x\n", moxctl::report_process), "belongs to no socket");
	expect_problem(parse("regular data:  17  \n", moxctl::report_process),
		       "belongs to no entry");
	expect_problem(parse("regular type:  PACKET_ALL\n", moxctl::report_process),
		       "belongs to no socket");
	expect_problem(
		parse("------------ dump sock ------------\nprocess:       x\npid:           7\n",
		      moxctl::report_process),
		"a socket of process \"x\" (pid 7) is not complete");
	expect_problem(parse("------------ dump sock ------------\nregular data:  17  \n",
			     moxctl::report_process),
		       "has no type");
	expect_problem(parse(queue_lines("PACKET_LEV2_LOC") +
				     "filter regular list cnt: 1\nregular type:  PACKET_ALL\n"
				     "    PACKET TREATMENT:   PACKET_COPY\n",
			     moxctl::report_rules, 1),
		       "a match has no process");
	expect_problem(parse("PACKET_CODE:  1\n", moxctl::report_memory), "before the sections");
	expect_problem(parse("", moxctl::report_memory), "items has 0 of 21");
	expect_problem(parse("scheduled:          1\n", moxctl::report_thread),
		       "copy thread are missing");
	expect_problem(parse("what is this\n", moxctl::report_thread),
		       "\"what is this\" is no line");
}

TEST(ctl_report, lines_in_any_order_are_taken_without_harm)
{
	// The sanitizers watch.
	auto lines = lines_of_text(dump_file_text());
	std::mt19937 random(20261121);
	for (int round = 0; round < 200; ++round) {
		std::shuffle(lines.begin(), lines.end(), random);
		Report report = moxctl::parse_report(lines, moxctl::report_tech, 8);
		EXPECT_FALSE(report.problems.empty());
		EXPECT_FALSE(moxctl::to_json(report, moxctl::report_rules | moxctl::report_memory)
				     .empty());
	}
}

Json json(const std::string &text, unsigned kind, std::size_t locations = 0)
{
	std::string printed = moxctl::to_json(parse(text, kind, locations), kind);
	EXPECT_TRUE(printed.ends_with("}\n"));
	return Json::parse(printed);
}

TEST(ctl_json, rules)
{
	Json report = json(lev2_report(), moxctl::report_rules, 1);
	EXPECT_EQ(report["complete"], true);
	EXPECT_EQ(report["problems"], Json::array());
	ASSERT_EQ(report["locations"].size(), 1u);
	const Json &location = report["locations"][0];
	EXPECT_EQ(location["location"], "PACKET_LEV2_LOC");
	EXPECT_EQ(location["queues"],
		  Json::parse(R"([{"cpu":0,"efbuffs":5},{"cpu":3,"efbuffs":6}])"));
	EXPECT_EQ(location["sockets"][0], Json::parse(R"({
        "process": "arpwatch", "pid": 412, "vsd": 0, "running": true, "control_data": true, "ifindex": 7,
        "location": "PACKET_LEV2_LOC", "treatment": "PACKET_COPY",
        "rules": [
            {"type": "PACKET_ETH_PROT_EQUAL", "values": ["0806", "88cc"]},
            {"type": "PACKET_ARP_TYPE", "values": [1]}],
        "counters": {
            "recv_packets": 100, "filter_drops": 101, "rcvbuf_full_drops": 102, "trim_fail_drops": 103,
            "send_packets": 104, "sendmsg_ill_fails": 105, "macfunc_ill_fails": 106, "dstintf_ill_fails": 107,
            "srcintf_ill_fails": 108, "intf_linkdown_fails": 109, "alloc_efbuff_fails": 110, "pkt_copy_fails": 111,
            "ef_send_fails": 112, "skbs_to_be_recv": 113, "skbs_to_be_send": 114, "refcnt": 115}})"));
	EXPECT_EQ(location["sockets"][1]["rules"], Json::parse(R"([
        {"type": "PACKET_PACKET_CODE_EQUAL", "values": [{"code": 1, "subcode": 2}]},
        {"type": "PACKET_DEST_MAC_EQUAL", "values": ["01:80:c2:00:00:0e", "ff:ff:ff:ff:ff:ff"]},
        {"type": "PACKET_SRC_INTF_EQUAL", "values": [4294967295]},
        {"type": "PACKET_IPv4_MCAST_TRAFFIC", "values": []},
        {"type": "PACKET_ALL", "values": []},
        {"type": "PACKET_PID_T", "values": [4294967295]},
        {"type": "illegal regular type!", "values": ["illegal regular type!"]}])"));
	EXPECT_EQ(location["filter_list"], Json::parse(R"([
        {"type": "PACKET_ETH_PROT_EQUAL", "values": ["0806"], "matches": [
            {"process": "arpwatch", "treatment": "PACKET_COPY",
             "rules": [{"type": "PACKET_ARP_TYPE", "values": [1]}]},
            {"process": "other", "treatment": "PACKET_TRAP",
             "rules": [{"type": "PACKET_SRC_INTF_EQUAL", "values": [7]}]}]},
        {"type": "PACKET_ALL", "values": [], "matches": []}])"));
}

TEST(ctl_json, queues__have_no_sockets)
{
	Json report = json(queues_report(), moxctl::report_queues, 8);
	ASSERT_EQ(report["locations"].size(), 8u);
	EXPECT_EQ(
		report["locations"][7],
		Json::parse(
			R"({"location":"PACKET_WLAN_LOC","queues":[{"cpu":0,"efbuffs":10},{"cpu":3,"efbuffs":11}]})"));
}

TEST(ctl_json, memory)
{
	Json memory = json(memory_report(), moxctl::report_memory)["memory"];
	EXPECT_EQ(memory["rule_data"], Json::parse(R"({"alloc":12,"free":4})"));
	EXPECT_EQ(memory["skbs"], Json::parse(R"({"alloc":50,"free":51})"));
	ASSERT_EQ(memory["items"].size(), 21u);
	EXPECT_EQ(memory["items"]["packet_code"], 1);
	EXPECT_EQ(memory["items"]["ipv6_dst_port"], 11);
	EXPECT_EQ(memory["items"]["alloc_failed"], 21);
	ASSERT_EQ(memory["data"].size(), 19u);
	EXPECT_EQ(memory["data"]["filter_list"], 47);
	EXPECT_EQ(memory["data"]["eapol_wps_type"], 46);
}

TEST(ctl_json, thread_and_process)
{
	EXPECT_EQ(json(thread_report(), moxctl::report_thread)["thread"],
		  Json::parse(R"({"scheduled":17,"alloc_skb_failed":2})"));
	Json process = json("show process x regular:\n" + arpwatch_socket(),
			    moxctl::report_process);
	ASSERT_EQ(process["sockets"].size(), 1u);
	EXPECT_EQ(process["sockets"][0]["pid"], 412);
	EXPECT_FALSE(process.contains("locations"));
}

TEST(ctl_json, what_is_missing_is_said)
{
	Json report = json("scheduled:          1\n", moxctl::report_thread);
	EXPECT_EQ(report["complete"], false);
	EXPECT_EQ(report["problems"].size(), 1u);
}

TEST(ctl_json, names_with_any_bytes_stay_json)
{
	std::string text = arpwatch_socket();
	text.replace(text.find("arpwatch"), 8, "a\"\\\xff\x01");
	Json report = json(text, moxctl::report_process);
	EXPECT_EQ(report["sockets"][0]["process"], "a\"\\\xef\xbf\xbd\x01");
}

TEST(ctl_json, names_control_no_terminal)
{
	std::string text = arpwatch_socket();
	text.replace(text.find("arpwatch"), 8,
		     "\xc2\x9b"
		     "2J\x7f\xc3\xa9");
	std::string printed = moxctl::to_json(parse(text, moxctl::report_process, 0),
					      moxctl::report_process);
	EXPECT_NE(printed.find("\"\\u009b2J\\u007f\\u00e9\""), std::string::npos) << printed;
}

} // namespace
