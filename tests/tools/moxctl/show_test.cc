// SPDX-License-Identifier: GPL-2.0-only
/* Reports read from "mox_capture" as whole commands. */
#include "show_fixture.h"

namespace {

TEST_F(Show, sockets)
{
	EXPECT_EQ(show(Action::kShowSockets), moxctl::status_ok);
	EXPECT_EQ(
		printed,
		"PROCESS   PID  COOKIE  LOCATION  TREATMENT  STATE    INTERFACE  MATCHED  RECEIVED  DROPPED  READ  "
		"QUEUED  SENT\n"
		"arpwatch  412      17  lev2      copy       running  port1          100        90       10    87       "
		"3     5\n");
}

TEST_F(Show, sockets__as_json)
{
	json socket = show_json(Action::kShowSockets)["sockets"][0];
	json expected = {
		{ "cookie", 17 },
		{ "inode", 4242 },
		{ "pid", 412 },
		{ "process", "arpwatch" },
		{ "uid", 0 },
		{ "netns", 0xf0000098 },
		{ "type", "raw" },
		{ "location", "PACKET_LEV2_LOC" },
		{ "treatment", "PACKET_COPY" },
		{ "running", true },
		{ "ctrl_info", true },
		{ "timestamps", false },
		{ "filtered", false },
		{ "ifindex", 7 },
		{ "protocol", "0806" },
		{ "queue", 3 },
		{ "queue_bytes", 2304 },
		{ "queue_limit", 212992 },
		{ "rule_bytes", 1024 },
		{ "rule_work", 30 },
	};
	json counters = socket["counters"];
	socket.erase("counters");
	EXPECT_EQ(socket, expected);
	EXPECT_EQ(counters["matched"], 100);
	EXPECT_EQ(counters["rcvbuf_full_drops"], 8);
	EXPECT_EQ(counters.size(), 19u);
}

TEST_F(Show, a_selection_is_sent)
{
	options.selection = { .location = 9, .pid = 412, .cookie = 17 };
	for (Action action : { Action::kShowSockets, Action::kShowRules, Action::kShowLosses }) {
		show(action);
		auto attributes = module.last().attributes;
		EXPECT_EQ(attributes.size(), 3u);
		EXPECT_EQ(attributes[MOX_CAPTURE_REQUEST_LOCATION], payload_of<std::uint32_t>(9));
		EXPECT_EQ(attributes[MOX_CAPTURE_REQUEST_PID], payload_of<std::uint32_t>(412));
		EXPECT_EQ(attributes[MOX_CAPTURE_REQUEST_COOKIE], payload_of<std::uint64_t>(17));
	}
}

TEST_F(Show, rules)
{
	auto trap = sample_rule_head(18, "dhcpd", 0);
	trap.nest(MOX_CAPTURE_RULE_VALUE, sample_value(PACKET_ALL, {}, 7));
	auto stopped = Attributes();
	stopped.u64(MOX_CAPTURE_RULE_COOKIE, 19)
		.text(MOX_CAPTURE_RULE_PROCESS, "idle")
		.u32(MOX_CAPTURE_RULE_LOCATION, PACKET_LEV2_LOC);
	auto reserved = sample_rule_head(20, "lldpd", 1, PACKET_LEV2_RESV_LOC);
	reserved.nest(MOX_CAPTURE_RULE_VALUE,
		      sample_value(PACKET_DEST_MAC_EQUAL, { 1, 0x80, 0xc2, 0, 0, 14 }, 1));
	module.entries[MOX_CAPTURE_CMD_RULES] = { stopped, sample_rule(), trap, reserved };
	EXPECT_EQ(show(Action::kShowRules), moxctl::status_ok);
	EXPECT_EQ(printed,
		  "PACKET_LEV2_LOC:\n"
		  "  PROCESS   PID  COOKIE  TREATMENT  STATE    HITS  VALUE\n"
		  "  dhcpd     412      18  copy       running     7  all\n"
		  "  arpwatch  412      17  copy       running    60  eth=arp\n"
		  "                                               40  eth=lldp\n"
		  "                                               60  arp=request\n"
		  "  idle        0      19  none       stopped        (none: matches no frame)\n"
		  "\n"
		  "PACKET_RESV_LOC:\n"
		  "  PROCESS  PID  COOKIE  TREATMENT  STATE    HITS  VALUE\n"
		  "  lldpd    412      20  copy       running     1  dmac=01:80:c2:00:00:0e\n");
	options.selection.location = PACKET_RESV_LOC;
	show(Action::kShowRules);
	EXPECT_EQ(printed.find("arpwatch"), std::string::npos);
	EXPECT_TRUE(has("lldpd"));
}

/** The values of every form, as text and as JSON. */
TEST_F(Show, rules__values)
{
	struct {
		std::uint32_t type;
		Bytes data;
		const char *text;
		json value;
	} const cases[] = {
		{ PACKET_PACKET_CODE_EQUAL,
		  { 7, 1 },
		  "code=7.1",
		  { { "code", 7 }, { "subcode", 1 } } },
		{ PACKET_SRC_MAC_EQUAL,
		  { 2, 0, 0, 0, 0, 1 },
		  "smac=02:00:00:00:00:01",
		  "02:00:00:00:00:01" },
		{ PACKET_ETH_PROT_EQUAL, { 0x12, 0x34 }, "eth=1234", "1234" },
		{ PACKET_ETH_PROT_EQUAL, { 0, 3 }, "eth=any", "0003" },
		{ PACKET_IPv4_PROT_EQUAL, { 17 }, "ipproto=udp", 17 },
		{ PACKET_IPv4_PROT_EQUAL, { 200 }, "ipproto=200", 200 },
		{ PACKET_IPv4_DEST_PORT_EQUAL, { 0, 67 }, "dport=67", 67 },
		{ PACKET_SRC_INTF_EQUAL, payload_of<std::uint32_t>(7), "intf=7", 7 },
		{ PACKET_ICMPV6_TYPE_EQUAL, { 135 }, "icmp6=ns", 135 },
		{ PACKET_EAPOL_TYPE_EQUAL, { 3 }, "eapol=key", 3 },
		{ PACKET_PID_T, payload_of<std::uint32_t>(0xffffffff), "not-attr=any", 0xffffffff },
		{ PACKET_PID_T, payload_of<std::uint32_t>(5), "not-attr=5", 5 },
		{ PACKET_ARP_TYPE, { 0, 2 }, "arp=reply", 2 },
		{ PACKET_ARP_TYPE, { 1 }, "arp=01", "01" },
		{ PACKET_IPv4_MCAST_TRAFFIC, {}, "mcast", nullptr },
		{ PACKET_ALL, {}, "all", nullptr },
		{ 77, { 0xab, 0xcd }, "type77=abcd", "abcd" },
	};
	for (const auto &each : cases) {
		auto rule = sample_rule_head();
		rule.nest(MOX_CAPTURE_RULE_VALUE, sample_value(each.type, each.data, 3));
		module.entries[MOX_CAPTURE_CMD_RULES] = { rule };
		options.json = false;
		show(Action::kShowRules);
		EXPECT_TRUE(has(std::string("  ") + each.text + "\n")) << printed;
		json values = show_json(
			Action::kShowRules)["locations"][1]["sockets"][0]["rules"][0];
		EXPECT_EQ(values["values"],
			  each.value == nullptr ? json::array() : json::array({ each.value }));
		EXPECT_EQ(values["hits"], json::array({ 3 }));
	}
}

/** The keys that scripts use, from the report in the kernel log on. */
TEST_F(Show, rules__as_json_has_the_keys_of_the_report_in_the_log)
{
	json by_family = show_json(Action::kShowRules);
	FakeNetlink older;
	options.log = true;
	will_print(all_reports());
	json by_log = show_json(Action::kShowRules);

	auto keys = [](const json &object) {
		std::set<std::string> names;
		for (const auto &[name, value] : object.items())
			names.insert(name);
		return names;
	};
	auto expect_all = [&](const json &from_log, const json &from_family, const char *what) {
		EXPECT_FALSE(from_log.empty()) << what;
		for (const std::string &name : keys(from_log))
			EXPECT_TRUE(from_family.contains(name)) << what << ": " << name;
	};
	ASSERT_EQ(by_family["locations"].size(), by_log["locations"].size());
	for (std::size_t i = 0; i < by_log["locations"].size(); ++i)
		EXPECT_EQ(by_family["locations"][i]["location"],
			  by_log["locations"][i]["location"]);
	const json &log = by_log["locations"][1], &family = by_family["locations"][1];
	expect_all(by_log, by_family, "report");
	expect_all(log, family, "location");
	expect_all(log["queues"][0], family["queues"][0], "queue");
	expect_all(log["sockets"][0], family["sockets"][0], "socket");
	expect_all(log["sockets"][0]["counters"], family["sockets"][0]["counters"], "counters");
	expect_all(log["sockets"][0]["rules"][0], family["sockets"][0]["rules"][0], "rule");
	expect_all(log["filter_list"][0], family["filter_list"][0], "entry");
	expect_all(log["filter_list"][0]["matches"][0], family["filter_list"][0]["matches"][0],
		   "match");
	// The same socket, in both.
	json rules = family["sockets"][0]["rules"];
	for (json &each : rules)
		each.erase("hits");
	EXPECT_EQ(rules, log["sockets"][0]["rules"]);
	for (const char *name : { "process", "pid", "vsd", "running", "control_data", "ifindex",
				  "location", "treatment" })
		EXPECT_EQ(family["sockets"][0][name], log["sockets"][0][name]) << name;
	EXPECT_EQ(family["filter_list"][0]["type"], log["filter_list"][0]["type"]);
	EXPECT_EQ(family["filter_list"][0]["values"], log["filter_list"][0]["values"]);
}

TEST_F(Show, rules__as_json_a_filter_list)
{
	auto exclusion = sample_rule_head(18, "other", 0);
	exclusion
		.nest(MOX_CAPTURE_RULE_VALUE,
		      sample_value(PACKET_PID_T, payload_of<std::uint32_t>(5), 0))
		.nest(MOX_CAPTURE_RULE_VALUE,
		      sample_value(PACKET_ETH_PROT_EQUAL, { 0x88, 0xcc }, 2));
	module.entries[MOX_CAPTURE_CMD_RULES] = { sample_rule(), exclusion };
	json list = show_json(Action::kShowRules)["locations"][1]["filter_list"];
	ASSERT_EQ(list.size(), 2u);
	EXPECT_EQ(list[0]["values"], json::array({ "88cc" }));
	EXPECT_EQ(list[1]["values"], json::array({ "0806" }));
	// The one that is asked first has the exclusion as its further condition.
	ASSERT_EQ(list[0]["matches"].size(), 2u);
	EXPECT_EQ(list[0]["matches"][0]["process"], "other");
	EXPECT_EQ(list[0]["matches"][0]["rules"][0]["type"], "PACKET_PID_T");
	EXPECT_EQ(list[0]["matches"][1]["process"], "arpwatch");
	EXPECT_EQ(list[0]["matches"][1]["rules"][0]["type"], "PACKET_ARP_TYPE");
}

TEST_F(Show, queues_memory_thread_info)
{
	show(Action::kShowQueues);
	EXPECT_EQ(printed, "LOCATION  CPU  QUEUED  HELD  CLONES  LIMIT  CPU HELD  CPU LIMIT\n"
			   "lev2        0       3     4       2   1000         5       2048\n"
			   "lev2        1       3     4       2   1000         5       2048\n");
	show(Action::kShowMemory);
	EXPECT_EQ(printed,
		  "OBJECTS  IN USE  FAILED\n"
		  "values       31       1\n"
		  "\n"
		  "BUDGET       UNIT   USED    LIMIT  UNPRIVILEGED  PER SOCKET  REFUSED\n"
		  "rule memory  bytes  2048  8388608       4194304     1048576        2\n");
	show(Action::kShowThread);
	EXPECT_EQ(printed, "name                packet-copy\n"
			   "pid                 88\n"
			   "state               draining queues\n"
			   "pending locations   lev2 wlan\n"
			   "scheduled           1712\n"
			   "alloc skb failed    2\n");
	show(Action::kInfo);
	EXPECT_EQ(printed,
		  "module              mox_ef_socket\n"
		  "version             1.2\n"
		  "interface           1\n"
		  "restricted          yes\n"
		  "feature             ledger: counters of locations and sockets that balance\n"
		  "feature             levitation\n");
}

TEST_F(Show, queues_memory_thread_info__as_json)
{
	json queue = show_json(Action::kShowQueues)["locations"][0];
	EXPECT_EQ(queue["location"], "PACKET_LEV2_LOC");
	EXPECT_EQ(queue["queues"][1]["efbuffs"], 3);
	EXPECT_EQ(queue["queues"][1]["cpu"], 1);
	json memory = show_json(Action::kShowMemory)["memory"];
	EXPECT_EQ(memory["objects"][0],
		  (json{ { "name", "values" }, { "objects", 31 }, { "failed", 1 } }));
	EXPECT_EQ(memory["budgets"][0]["socket_limit"], 1048576);
	json thread = show_json(Action::kShowThread)["thread"];
	EXPECT_EQ(thread["scheduled"], 1712);
	EXPECT_EQ(thread["alloc_skb_failed"], 2);
	EXPECT_EQ(thread["pending"], json::array({ "PACKET_LEV2_LOC", "PACKET_WLAN_LOC" }));
	json info = show_json(Action::kInfo)["info"];
	EXPECT_EQ(info["feature"], json::array({ "ledger", "levitation" }));
}

TEST_F(Show, an_older_module__the_kernel_log_has_the_report)
{
	netlink.on_capture = nullptr;
	struct {
		Action action;
		std::string text;
	} const cases[] = { { Action::kShowRules, all_reports() },
			    { Action::kShowQueues, queues_report() },
			    { Action::kShowMemory, memory_report() },
			    { Action::kShowThread, thread_report() } };
	for (const auto &each : cases) {
		will_print(each.text);
		EXPECT_EQ(show(each.action), moxctl::status_ok) << complaints;
		EXPECT_EQ(printed, each.text);
	}
	for (Action action :
	     { Action::kShowSockets, Action::kShowLosses, Action::kWatch, Action::kMetrics,
	       Action::kTrace, Action::kRestrict, Action::kRestrictStatus, Action::kInfo }) {
		options.action = action;
		expect_error<Failure>([this] { run(); },
				      { "mox_capture", "moxctl show rules", "nsenter" });
	}
	options.action = Action::kShowRules;
	options.selection.pid = 412;
	expect_error<Failure>([this] { run(); }, { "mox_capture" });
}

TEST_F(Show, with_log__the_family_is_not_used)
{
	options.log = true;
	will_print(thread_report());
	EXPECT_EQ(show(Action::kShowThread), moxctl::status_ok);
	EXPECT_EQ(printed, thread_report());
	EXPECT_EQ(netlink.capture_look_ups, 0u);
	options.log = false;
	will_print("show process arpwatch regular:\n" + arpwatch_socket());
	EXPECT_EQ(show(Action::kShowProcess), moxctl::status_ok);
	EXPECT_EQ(netlink.capture_look_ups, 0u);
}

TEST_F(Show, without_the_right)
{
	module.error = EPERM;
	for (Action action : { Action::kShowRules, Action::kShowSockets, Action::kShowThread }) {
		options.action = action;
		expect_error<Failure>([this] { run(); }, { "CAP_NET_ADMIN", "root" });
	}
}

TEST_F(Show, what_changes_all_the_time_is_called_incomplete)
{
	for (Action action : { Action::kShowSockets, Action::kShowRules, Action::kShowLosses,
			       Action::kShowQueues, Action::kShowMemory }) {
		module.interrupted = 5;
		options.json = false;
		EXPECT_EQ(show(action), moxctl::status_incomplete);
		EXPECT_NE(complaints.find("changed while they were read, 5 times"),
			  std::string::npos);
		module.interrupted = 5;
		options.json = true;
		EXPECT_EQ(show(action), moxctl::status_incomplete);
		json report = json::parse(printed);
		EXPECT_EQ(report["complete"], false);
		EXPECT_EQ(report["problems"].size(), 1u);
	}
}

TEST_F(Show, a_terminal_gets_no_control_characters_and_no_wide_columns)
{
	module.entries[MOX_CAPTURE_CMD_SOCKETS] = { sample_socket(1, "a\x1b[2J"),
						    sample_socket(2, std::string(200, 'x')) };
	show(Action::kShowSockets);
	EXPECT_TRUE(has("a\\x1b[2J"));
	EXPECT_TRUE(has("\n" + std::string(31, 'x') + "+  412"));
	show(Action::kShowLosses);
	EXPECT_TRUE(has("a\\x1b[2J"));
	// JSON has any name, and is valid whatever its bytes are.
	module.entries[MOX_CAPTURE_CMD_SOCKETS] = { sample_socket(1, "\"\\\n\xff\x80") };
	EXPECT_EQ(show_json(Action::kShowSockets)["sockets"][0]["process"],
		  "\"\\\n\xef\xbf\xbd\xef\xbf\xbd");
}

TEST_F(Show, ten_thousand_sockets)
{
	module.entries[MOX_CAPTURE_CMD_SOCKETS].clear();
	module.entries[MOX_CAPTURE_CMD_RULES].clear();
	module.per_datagram = 40;
	for (std::uint64_t i = 0; i < 10000; ++i) {
		module.entries[MOX_CAPTURE_CMD_SOCKETS].push_back(sample_socket(i));
		module.entries[MOX_CAPTURE_CMD_RULES].push_back(sample_rule_head(i).nest(
			MOX_CAPTURE_RULE_VALUE,
			sample_value(PACKET_ETH_PROT_EQUAL, { 0x08, static_cast<std::uint8_t>(i) },
				     i)));
	}
	show(Action::kShowSockets);
	EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 10001);
	EXPECT_EQ(name_look_ups, 1u);
	EXPECT_EQ(show_json(Action::kShowRules)["locations"][1]["sockets"].size(), 10000u);
}

TEST_F(Show, restrict)
{
	struct {
		Action action;
		std::uint8_t value;
	} const cases[] = { { Action::kRestrict, 1 }, { Action::kLiftRestriction, 0 } };
	for (const auto &each : cases) {
		EXPECT_EQ(show(each.action), moxctl::status_ok);
		EXPECT_EQ(module.last().command, MOX_CAPTURE_CMD_RESTRICT);
		EXPECT_EQ(module.last().attributes,
			  (std::map<unsigned, Bytes>{
				  { MOX_CAPTURE_REQUEST_RESTRICT, { each.value } } }));
		EXPECT_EQ(printed, "");
	}
	show(Action::kRestrictStatus);
	EXPECT_EQ(printed, "on\n");
	module.entries[MOX_CAPTURE_CMD_INFO] = { sample_info().u8(MOX_CAPTURE_INFO_RESTRICTED, 0) };
	show(Action::kRestrictStatus);
	EXPECT_EQ(printed, "off\n");
	module.entries[MOX_CAPTURE_CMD_INFO] = { Attributes().text(MOX_CAPTURE_INFO_MODULE, "m") };
	options.action = Action::kRestrictStatus;
	expect_error<Failure>([this] { run(); }, { "does not report" });
}

} // namespace
