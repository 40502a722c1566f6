// SPDX-License-Identifier: GPL-2.0-only
// The reports on locations, filter lists, queues and processes, word by word. Tests of their
// own: single lines (base/report_test.cc), long reports (reports_long_test.cc), memory
// (memory_report_test.cc) and the report on one socket (socket/dump_test.cc).
#include "contract/reports.h"
#include "control_fixture.h"

namespace {

class Report : public ControlTest {
protected:
	void TearDown() override
	{
		rules.clear();
		ControlTest::TearDown();
	}
	// A rule of a process, at any location, without a socket behind it.
	Rule &rule(u32 location, u32 treatment, const char *process)
	{
		rules.push_back(std::make_unique<Rule>(location, treatment));
		Rule &r = *rules.back();
		strncpy(r.regular().owner->process, process, 15);
		return r;
	}
	static std::string sock_dump(Sock &s)
	{
		return printed([&] { mox_packet_sock_dump(&s.po()); });
	}
	static std::string queues(u32 location)
	{
		return contract::joined(contract::queue_pieces(location, 2));
	}

	std::vector<std::unique_ptr<Rule>> rules;
};

// ---- a location ----------------------------------------------------------------------------

TEST_F(Report, show_regular__illegal_index_is_printed_while_debugging)
{
	for (u32 index : { 8u, 9u, 255u, 0xffffffffu }) {
		debug(false);
		EXPECT_EQ(printed([&] { mox_packet_show_regular(index); }), "");
		debug();
		EXPECT_EQ(printed([&] { mox_packet_show_regular(index); }),
			  tagged("MOX-PACKET-SHOW_REGULAR: illegal show_type!\n"));
	}
}

TEST_F(Report, show_regular__each_location_empty)
{
	for (u32 index = 0; index < 8; index++)
		EXPECT_EQ(printed([&] { mox_packet_show_regular(index); }),
			  contract::joined(contract::location_pieces(index + 1, 2)));
}

TEST_F(Report, show_regular__queues_sockets_and_filter_list)
{
	Sock copy, trap;
	kernel().comm = "dhcpd";
	ASSERT_EQ(copy.create(), 0);
	ASSERT_EQ(copy.add(3, 1, { 0x08, 0x00 }), 0);
	ASSERT_EQ(copy.add(7, 2, { 0, 67, 0, 68 }), 0);
	ASSERT_EQ(copy.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(copy.set(PACKET_LOCATION, PACKET_IPv4_LOC), 0);
	kernel().comm = "firewall";
	ASSERT_EQ(trap.create(), 0);
	ASSERT_EQ(trap.add(3, 1, { 0x08, 0x00 }), 0);
	ASSERT_EQ(trap.set(PACKET_TREATMENT, PACKET_TRAP), 0);
	ASSERT_EQ(trap.set(PACKET_LOCATION, PACKET_IPv4_LOC), 0);
	const std::string one = sock_dump(trap), two = sock_dump(copy);
	EXPECT_EQ(printed([] { mox_packet_show_regular(2); }),
		  queues(PACKET_IPv4_LOC) + one + two +
			  "\n"
			  "filter regular list cnt: 1\n"
			  "regular type:  PACKET_ETH_PROT_EQUAL\n"
			  "regular data:  0800  \n"
			  "  match regulars:\n"
			  "    process:      firewall\n"
			  "    PACKET TREATMENT:   PACKET_TRAP\n"
			  "    process:      dhcpd\n"
			  "    PACKET TREATMENT:   PACKET_COPY\n"
			  "    regular type:  PACKET_IPv4_DEST_PORT_EQUAL\n"
			  "    regular data:  67  \n"
			  "    regular data:  68  \n"
			  "\n");
}

// The reserved locations live in RESV's library, and in its report.
TEST_F(Report, show_regular__reserved_locations_are_reported_with_resv)
{
	Sock a, b;
	a.capture(PACKET_LEV3_RESV_LOC, PACKET_COPY);
	b.capture(PACKET_LEV2_RESV_LOC, PACKET_FETCH);
	const std::string one = sock_dump(b), two = sock_dump(a);
	EXPECT_NE(one.find("PACKET_LEV2_RESV_LOC"), std::string::npos);
	std::string text = printed([] { mox_packet_show_regular(6); });
	EXPECT_NE(text.find(one + two), std::string::npos);
}

// ---- the filter list -----------------------------------------------------------------------

TEST_F(Report, filter_list__keys_in_type_order_with_the_rules_that_share_them)
{
	rule(2, PACKET_COPY, "lldpd").data(3, { 0x88, 0xcc }).add();
	rule(2, PACKET_COPY_LOCAL, "watch-copy").data(3, { 0x88, 0xcc }).add();
	rule(2, PACKET_FETCH_LOCAL, "watch-fetch").data(3, { 0x88, 0xcc }).add();
	rule(2, PACKET_TRAP, "trapper")
		.data(3, { 0x88, 0xcc })
		.data(10, { 7, 0, 0, 0 })
		.item(PACKET_ALL)
		.add();
	rule(2, PACKET_FETCH, "eapd")
		.data(17, { 9, 0, 0, 0 })
		.data(1, { 1, 0x80, 0xc2, 0, 0, 3 })
		.add();
	rule(2, PACKET_COPY, "all").item(PACKET_ALL).add();
	EXPECT_EQ(printed([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); }),
		  "filter regular list cnt: 3\n"
		  "regular type:  PACKET_DEST_MAC_EQUAL\n"
		  "regular data:  01:80:c2:00:00:03  \n"
		  "  match regulars:\n"
		  "    process:      eapd\n"
		  "    PACKET TREATMENT:   PACKET_FETCH\n"
		  "    regular type:  PACKET_PID_T\n"
		  "    regular data:  9  \n"
		  "\n"
		  "regular type:  PACKET_ETH_PROT_EQUAL\n"
		  "regular data:  88cc  \n"
		  "  match regulars:\n"
		  "    process:      trapper\n"
		  "    PACKET TREATMENT:   PACKET_TRAP\n"
		  "    regular type:  PACKET_SRC_INTF_EQUAL\n"
		  "    regular data:  7  \n"
		  "    regular type:  PACKET_ALL\n"
		  "    regular data:  \n"
		  "    process:      lldpd\n"
		  "    PACKET TREATMENT:   PACKET_COPY\n"
		  "    process:      watch-fetch\n"
		  "    PACKET TREATMENT:   PACKET_FETCH_LOCAL\n"
		  "    process:      watch-copy\n"
		  "    PACKET TREATMENT:   PACKET_COPY_LOCAL\n"
		  "\n"
		  "regular type:  PACKET_ALL\n"
		  "regular data:  \n"
		  "  match regulars:\n"
		  "    process:      all\n"
		  "    PACKET TREATMENT:   PACKET_COPY\n"
		  "\n");
}

// ---- queues -----------------------------------------------------------------------------------

TEST_F(Report, cpu_queue__every_present_cpu_ascending_and_no_other)
{
	kernel().present_cpus = { 0, 2, 3 };
	auto fill = [](int cpu, CpuQueue queue, int count) {
		while (count--)
			packets::enqueue(&g_cpu_pkt_que[cpu][queue],
					 efmp().efbuff(Bytes(512), fake::Owner::kModule));
	};
	fill(0, kQueueWlan, 3);
	fill(1, kQueueWlan, 5); // not present
	fill(3, kQueueWlan, 11);
	fill(2, kQueueLev2, 2);
	EXPECT_EQ(printed([] { mox_packet_show_cpu_queue(PACKET_WLAN_LOC); }),
		  "location: PACKET_WLAN_LOC\n"
		  "cpu 0 efbuff cnt:      3\n"
		  "cpu 2 efbuff cnt:      0\n"
		  "cpu 3 efbuff cnt:      11\n"
		  "\n");
	EXPECT_EQ(printed([] { mox_packet_show_cpu_queue(PACKET_LEV2_LOC); }),
		  "location: PACKET_LEV2_LOC\n"
		  "cpu 0 efbuff cnt:      0\n"
		  "cpu 2 efbuff cnt:      2\n"
		  "cpu 3 efbuff cnt:      0\n"
		  "\n");
}

// The location's own queue, whose number is not the location's.
TEST_F(Report, cpu_queue__of_each_location)
{
	for (const HookTraits &h : kHooks) {
		packets::enqueue(&g_cpu_pkt_que[1][h.queue],
				 efmp().efbuff(Bytes(512), fake::Owner::kModule));
		for (u32 location = 1; location <= 8; location++) {
			std::string text = printed([&] { mox_packet_show_cpu_queue(location); });
			EXPECT_EQ(text.find("cpu 1 efbuff cnt:      1\n") != std::string::npos,
				  location == h.location);
		}
		mox_packet_efbuff_queue_deinit(&g_cpu_pkt_que[1][h.queue]);
	}
}

TEST_F(Report, cpu_queue__illegal_location_is_printed_while_debugging)
{
	for (int location : { 0, 9, 10, 255, -1 }) {
		debug(false);
		EXPECT_EQ(printed([&] { mox_packet_show_cpu_queue(location); }), "");
		debug();
		EXPECT_EQ(printed([&] { mox_packet_show_cpu_queue(location); }),
			  tagged("MOX-PACKET-SHOW-CPU-QUEUE: illegal loc " +
				 std::to_string(location) + "!\n"));
	}
}

// ---- processes ------------------------------------------------------------------------------------

TEST_F(Report, spec__by_name_and_by_pid)
{
	Sock a, b, c;
	kernel().comm = "dhcpd";
	kernel().pid = 7;
	a.capture(PACKET_LEV2_LOC, PACKET_COPY);
	b.capture(PACKET_LEV2_LOC, PACKET_COPY);
	kernel().comm = "dhcpd6";
	c.capture(PACKET_LEV2_LOC, PACKET_COPY);
	const std::string one = sock_dump(a), two = sock_dump(b), three = sock_dump(c);
	auto spec = [](u32 kind, u32 location, const char *name, s32 pid) {
		return printed([&] { mox_packet_show_regular_spec(kind, location, name, pid); });
	};
	EXPECT_EQ(spec(11, 2, "dhcpd", 0), one + two);
	EXPECT_EQ(spec(11, 2, "dhcpd6", 0), three);
	EXPECT_EQ(spec(11, 2, "dhcp", 0), "");
	EXPECT_EQ(spec(11, 2, "", 0), "");
	EXPECT_EQ(spec(11, 3, "dhcpd", 0), "") << "another location";
	EXPECT_EQ(spec(12, 2, nullptr, 7), one + two + three);
	EXPECT_EQ(spec(12, 2, "dhcpd", 8), "") << "the name does not count";
	EXPECT_EQ(spec(13, 2, "dhcpd", 7), "") << "no such kind";
}

TEST_F(Report, spec__what_is_illegal_is_printed_while_debugging)
{
	const struct {
		u32 kind, location;
		const char *name;
		s32 pid;
		const char *line;
	} cases[] = {
		{ 12, 2, nullptr, 0, "pid is <= 0!\n" },
		{ 12, 2, nullptr, -7, "pid is <= 0!\n" },
		{ 12, 99, nullptr, 0, "pid is <= 0!\n" },
		{ 11, 2, nullptr, 7, "name is NULL!\n" },
		{ 11, 0, nullptr, 7, "name is NULL!\n" },
		{ 11, 0, "x", 0, "illegal loc!\n" },
		{ 11, 9, "x", 0, "illegal loc!\n" },
		{ 12, 0xffffffff, nullptr, 7, "illegal loc!\n" },
	};
	for (auto &c : cases) {
		auto call = [&] {
			mox_packet_show_regular_spec(c.kind, c.location, c.name, c.pid);
		};
		debug(false);
		EXPECT_EQ(printed(call), "");
		debug();
		EXPECT_EQ(printed(call),
			  tagged(std::string("MOX-PACKET-SHOW-REGULAR-SPEC: ") + c.line));
	}
}

// ---- locks ----------------------------------------------------------------------------------------------

TEST_F(Report, locks__one_at_a_time)
{
	Sock s;
	s.capture(PACKET_WLAN_LOC, PACKET_COPY);
	LockTrace trace;
	mox_packet_show_regular(7);
	EXPECT_EQ(trace.steps, (Strings{ "+queue", "-queue", "+queue", "-queue", "+change",
					 "-change", "+change", "-change" }));
	trace.steps.clear();
	mox_packet_show_regular_spec(12, 8, nullptr, 4711);
	EXPECT_EQ(trace.steps, (Strings{ "+change", "-change" }));
	trace.steps.clear();
	mox_packet_dump_mem();
	mox_packet_dump_thread();
	EXPECT_EQ(trace.steps, Strings{});
}

} // namespace
