// SPDX-License-Identifier: GPL-2.0-only
// setsockopt: every option number, and the options with one word as argument.
// Rule records: rule_record_test.cc; the control hook: control_hook_test.cc.
#include "contract/sockets.h"
#include "socket_fixture.h"

namespace {

class Setsockopt : public CreatedSocketTest {
protected:
	void stopped(u32 location)
	{
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.refs(), 2u);
		for (u32 l = 1; l <= 8; l++)
			EXPECT_EQ(filed(l), 0u);
		EXPECT_EQ(s.po().regular.location, location);
	}
};

TEST_F(Setsockopt, option__every_number)
{
	// Argument: four zero bytes, which no rule record is.
	for (int option = 0; option <= 25; option++)
		EXPECT_EQ(s.set(option, 0), -contract::set_option_error(option))
			<< "option " << option;
	for (int option : { -1, -11, 256 + 17, 65536 + 17, 0x7fffffff })
		EXPECT_EQ(s.set(option, 0), -92) << "option " << option;
}

TEST_F(Setsockopt, option__refused_numbers_say_nothing_and_change_nothing)
{
	for (int option : { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 13, 14, 20, 21 })
		s.set(option, 1);
	EXPECT_EQ(lines(), Strings{});
	EXPECT_EQ(s.po().flags, 0);
	stopped(0);
}

TEST_F(Setsockopt, level__other_than_packet)
{
	for (int level : { 0, 1, 6, 262, 264, -1 })
		for (int option : { 11, 12, 15, 16, 17, 18, 19, 1 }) {
			EXPECT_EQ(s.setsockopt(option, u32_bytes(2), level), -92);
			EXPECT_EQ(lines(),
				  Strings{ "PACKET-SETSOCKOPT: level is not SOL_PACKET!\n" });
		}
	EXPECT_EQ(s.po().flags, 0);
	stopped(0);
}

TEST_F(Setsockopt, word__length_limits)
{
	struct {
		int option;
		const char *line;
	} const cases[] = {
		{ PACKET_TREATMENT, "SETSOCKOPT: PACKET_TREATMENT len error.\n" },
		{ PACKET_CTRL_INFO, "SETSOCKOPT: PACKET_CTRL_INFO len error\n" },
		{ PACKET_LOCATION, "SETSOCKOPT: PACKET_LOCATION len error\n" },
	};
	for (auto &c : cases) {
		for (int len : { 0, 1, 2, 3 }) {
			EXPECT_EQ(s.setsockopt(c.option, u32_bytes(2), MOX_SOL_PACKET, len), -22);
			EXPECT_EQ(lines(), Strings{ c.line });
		}
		EXPECT_EQ(s.po().flags, 0);
		// Exactly four bytes are read, whatever the option length is.
		EXPECT_EQ(s.setsockopt(c.option, Bytes{ 1, 0, 0, 0, 9, 9 }, MOX_SOL_PACKET, 600, 4),
			  0);
		lines();
		s.release();
		ASSERT_EQ(s.create(), 0);
		lines();
	}
}

TEST_F(Setsockopt, word__fault_while_copying)
{
	for (int option : { PACKET_TREATMENT, PACKET_CTRL_INFO, PACKET_LOCATION })
		for (size_t fault_at : { 0, 1, 3 }) {
			SCOPED_TRACE(testing::Message() << option << " at " << fault_at);
			EXPECT_EQ(s.setsockopt(option, u32_bytes(2), MOX_SOL_PACKET, 4, fault_at),
				  -14);
			EXPECT_EQ(lines(), Strings{ "SETSOCKOPT: copy from user failed\n" });
			EXPECT_EQ(s.po().flags, 0);
			stopped(0);
			EXPECT_EQ(s.po().regular.treatment, 0u);
		}
}

TEST_F(Setsockopt, word__without_debug_prints_nothing)
{
	debug(false);
	EXPECT_EQ(s.set(PACKET_TREATMENT, 6), -22);
	EXPECT_EQ(s.set(PACKET_LOCATION, 5), -22);
	EXPECT_EQ(s.setsockopt(PACKET_CTRL_INFO, Bytes(4), MOX_SOL_PACKET, 3), -22);
	EXPECT_EQ(s.setsockopt(PACKET_CTRL_INFO, Bytes(4), MOX_SOL_PACKET, 4, 0), -14);
	EXPECT_EQ(s.setsockopt(PACKET_CTRL_INFO, Bytes(4), 0), -92);
	EXPECT_EQ(s.rule(true, 30, 0, {}), -22);
	EXPECT_EQ(s.setsockopt(MOX_PACKET_ADD_RULE, Bytes(5)), -22);
	EXPECT_EQ(s.set(PACKET_TREATMENT, 1), 0);
	EXPECT_EQ(s.set(PACKET_LOCATION, 2), 0);
	EXPECT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	EXPECT_EQ(s.add(PACKET_ALL), 0);
	EXPECT_EQ(kernel().text(), "");
}

// ---- treatment --------------------------------------------------------------------

TEST_F(Setsockopt, treatment__every_value)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	lines();
	for (u32 value = 0; value < contract::kTreatments; value++) {
		EXPECT_EQ(s.set(PACKET_TREATMENT, value), 0);
		EXPECT_EQ(lines(), Strings{ std::string("SETSOCKOPT: process: ") +
					    contract::treatment_name(value) + "\n" });
		EXPECT_EQ(rules_in(&g_lev2_packet_regular_lib.regulars).at(0).treatment, value);
		EXPECT_EQ(s.refs(), 3u);
	}
	for (u32 value : { 6u, 7u, 11u, 256u, 0x80000000u, 0xffffffffu }) {
		EXPECT_EQ(s.set(PACKET_TREATMENT, value), -22);
		EXPECT_EQ(lines(), Strings{ "SETSOCKOPT: PACKET_TREATMENT type illegal.\n" });
		EXPECT_EQ(s.po().regular.treatment, 5u);
		EXPECT_TRUE(s.running());
	}
}

TEST_F(Setsockopt, treatment__at_location_0_makes_it_run_in_no_library)
{
	EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), 3u);
	for (u32 l = 1; l <= 8; l++)
		EXPECT_EQ(filed(l), 0u);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-HANDLE-REGULAR: location illegal!\n",
				     "SETSOCKOPT: process: PACKET_COPY\n" }));
	// Once more: withdrawn from nowhere, added nowhere.
	EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_TRAP), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), 3u);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-HANDLE-REGULAR: location illegal!\n",
				     "MOX-PACKET-HANDLE-REGULAR: location illegal!\n",
				     "SETSOCKOPT: process: PACKET_TRAP\n" }));
}

// The place among the library's rules follows the treatment.
TEST_F(Setsockopt, treatment__moves_the_rule_to_its_place)
{
	Sock copy, fetch;
	copy.capture(PACKET_LEV2_LOC, PACKET_COPY);
	fetch.capture(PACKET_LEV2_LOC, PACKET_FETCH);
	auto owners = [] {
		std::vector<const mox_packet_sock *> out;
		for (const RuleView &r : rules_in(&g_lev2_packet_regular_lib.regulars))
			out.push_back(r.owner);
		return out;
	};
	using Owners = std::vector<const mox_packet_sock *>;
	EXPECT_EQ(owners(), (Owners{ &fetch.po(), &copy.po() }));
	ASSERT_EQ(copy.set(PACKET_TREATMENT, PACKET_TRAP), 0);
	EXPECT_EQ(owners(), (Owners{ &copy.po(), &fetch.po() }));
	ASSERT_EQ(copy.set(PACKET_TREATMENT, PACKET_COPY_LOCAL), 0);
	EXPECT_EQ(owners(), (Owners{ &fetch.po(), &copy.po() }));
}

// ---- control records ----------------------------------------------------------------

TEST_F(Setsockopt, ctrl_info__any_number_but_0_is_on)
{
	struct {
		u32 value;
		bool on;
	} const cases[] = { { 1, true },          { 0, false }, { 0x100, true },
			    { 0xffffffff, true }, { 2, true },  { 0, false } };
	for (auto &c : cases) {
		EXPECT_EQ(s.set(PACKET_CTRL_INFO, c.value), 0);
		EXPECT_EQ(s.po().flags, c.on ? PO_CTRL_INFO : 0);
		EXPECT_EQ(lines(), Strings{ c.on ? "SETSOCKOPT: PACKET_CTRL_INFO require\n"
						 : "SETSOCKOPT: PACKET_CTRL_INFO unrequire\n" });
	}
}

TEST_F(Setsockopt, ctrl_info__takes_no_lock_and_leaves_running_alone)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	LockTrace trace;
	EXPECT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	EXPECT_EQ(s.po().flags, PO_CTRL_INFO | PO_RUNNING);
	EXPECT_EQ(s.set(PACKET_CTRL_INFO, 0), 0);
	EXPECT_EQ(s.po().flags, PO_RUNNING);
	EXPECT_EQ(trace.steps, Strings{});
}

TEST_F(Setsockopt, ctrl_info__survives_a_rule_change_on_another_cpu_at_any_point)
{
	u32 on = 0;
	interleave(
		s, [&] { on = !on; },
		[&] { EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0); },
		[&] { EXPECT_EQ(s.set(PACKET_CTRL_INFO, on), 0); },
		[&] { EXPECT_EQ(s.po().flags, PO_RUNNING | (on ? PO_CTRL_INFO : 0)); });
}

// ---- location -------------------------------------------------------------------------

TEST_F(Setsockopt, location__every_value)
{
	for (u32 value = 1; value < contract::kLocationCount; value++) {
		const contract::Location &location = contract::kLocations[value];
		if (!location.accepted)
			continue;
		SCOPED_TRACE(location.name);
		EXPECT_EQ(s.set(PACKET_LOCATION, value), 0);
		EXPECT_EQ(lines(), Strings{ std::string("SETSOCKOPT: PACKET_LOCATION ") +
					    location.name + "\n" });
		EXPECT_TRUE(s.running());
		EXPECT_EQ(s.refs(), 3u);
		EXPECT_EQ(filed(value), 1u);
		for (auto &[name, on] : efmp().registered) {
			bool wanted = false;
			for (const contract::Hook &hook : contract::hooks(value))
				wanted = wanted || hook.name == name;
			EXPECT_EQ(on, wanted) << name;
		}
	}
}

TEST_F(Setsockopt, location__5_and_6_are_refused_and_change_nothing)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	lines();
	for (u32 value : { 5u, 6u }) {
		EXPECT_EQ(s.set(PACKET_LOCATION, value), -22);
		EXPECT_EQ(lines(), Strings{ "SETSOCKOPT: PACKET_LOCATION location type " +
					    std::to_string(value) + " error\n" });
		EXPECT_EQ(s.po().regular.location, 2u);
		EXPECT_TRUE(s.running());
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	}
}

// Nothing else is refused: the rule is parked outside every library.
TEST_F(Setsockopt, location__beyond_the_last_is_unknown_and_runs_in_no_library)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	const std::string illegal = "MOX-PACKET-HANDLE-REGULAR: location illegal!\n";
	for (u32 value : { 11u, 255u, 0x80000002u, 0xffffffffu }) {
		lines();
		EXPECT_EQ(s.set(PACKET_LOCATION, value), 0);
		EXPECT_EQ(lines().back(), "SETSOCKOPT: PACKET_LOCATION Unknown\n");
		EXPECT_TRUE(s.running());
		EXPECT_EQ(s.refs(), 3u);
		EXPECT_EQ(s.po().regular.location, value);
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
	}
	EXPECT_EQ(s.set(PACKET_LOCATION, 11), 0);
	EXPECT_EQ(lines(), (Strings{ illegal, illegal, "SETSOCKOPT: PACKET_LOCATION Unknown\n" }));
	EXPECT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
}

TEST_F(Setsockopt, location__0_takes_it_out_of_every_library)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_IPv4_LOC), 0);
	lines();
	EXPECT_EQ(s.set(PACKET_LOCATION, 0), 0);
	EXPECT_EQ(lines(), Strings{ "SETSOCKOPT: PACKET_LOCATION PACKET_NONE_LOC\n" });
	stopped(0);
	EXPECT_FALSE(hooked("ipv4"));
	EXPECT_EQ(s.set(PACKET_LOCATION, 0), 0) << "on a stopped socket, too";
	stopped(0);
}

TEST_F(Setsockopt, location__0_stops_a_socket_that_runs_by_its_treatment_alone)
{
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_TRUE(s.running());
	EXPECT_EQ(s.set(PACKET_LOCATION, 0), 0);
	stopped(0);
}

TEST_F(Setsockopt, rule_change__withdrawn_and_filed_in_one_change_of_the_library)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	// The library lock is taken only where what hooks find changes.
	const Strings index{ "+lib", "-lib" };
	const Strings begin{ "+sock", "+change" }, hook{ "+hook", "-hook" },
		rule{ "+rule", "-rule" };
	const Strings move{ "-change", "+change" }, end{ "-change", "-sock" };
	struct {
		const char *what;
		std::function<int()> call;
		bool indexed_before, moves, indexed_after;
	} const cases[] = {
		{ "treatment", [&] { return s.set(PACKET_TREATMENT, PACKET_COPY); }, false, false,
		  false },
		{ "location", [&] { return s.set(PACKET_LOCATION, PACKET_IPv4_LOC); }, false, true,
		  false },
		{ "add", [&] { return s.add(PACKET_IPv4_PROT_EQUAL, 1, { 6 }); }, false, false,
		  true },
		{ "delete", [&] { return s.del(PACKET_IPv4_PROT_EQUAL, 1, { 6 }); }, true, false,
		  false },
		{ "all", [&] { return s.add(PACKET_ALL); }, false, false, true },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.what);
		Strings wanted;
		for (const Strings &part : { begin, c.indexed_before ? index : Strings{}, hook,
					     rule, rule, c.moves ? move : Strings{},
					     c.indexed_after ? index : Strings{}, hook, rule, end })
			wanted.insert(wanted.end(), part.begin(), part.end());
		LockTrace trace;
		EXPECT_EQ(c.call(), 0);
		EXPECT_EQ(trace.steps, wanted);
	}
}

// The flag goes before the reference that it stands for.
TEST_F(Setsockopt, rule_change__running_is_cleared_before_its_reference_is_dropped)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	kernel().at[Point::kSockPut] = [&](const void *sk) {
		EXPECT_EQ(sk, s.sk);
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.refs(), 3u) << "the reference is still there";
	};
	EXPECT_EQ(s.set(PACKET_LOCATION, 0), 0);
	kernel().at.clear();
	stopped(0);
}

// Two processes with one socket: neither loses nor doubles the rule.
TEST_F(Setsockopt, rule_change__two_at_once_leave_it_filed_once)
{
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	size_t waited = interleave(
		s, [] {},
		[&] {
			EXPECT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 2, { 6, 17 }), 0);
		},
		[&] { EXPECT_EQ(s.del(PACKET_IPv4_PROT_EQUAL, 1, { 6 }), 0); },
		[&] {
			EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
			EXPECT_EQ(s.refs(), 3u);
			verify_all();
		});
	EXPECT_GT(waited, 8u);
}

// ---- socket report -----------------------------------------------------------------------

TEST_F(Setsockopt, dump__prints_the_socket_whatever_the_argument_and_the_switches)
{
	debug(false);
	EXPECT_EQ(s.setsockopt(MOX_PACKET_DUMP_SOCKET, {}), 0);
	std::string report = kernel().text();
	EXPECT_EQ(report.find("\n------------ dump sock ------------\nprocess:       captured\n"),
		  0u);
	kernel().log.clear();
	EXPECT_EQ(s.setsockopt(MOX_PACKET_DUMP_SOCKET, Bytes(100), MOX_SOL_PACKET, 100, 0), 0);
	EXPECT_EQ(kernel().text(), report);
	kernel().log.clear();
	debug();
	EXPECT_EQ(s.setsockopt(MOX_PACKET_DUMP_SOCKET, {}), 0);
	EXPECT_EQ(kernel().text(), report) << "no debug lines besides";
}

TEST_F(Setsockopt, dump__holds_the_socket_lock_while_it_walks_the_rule)
{
	LockTrace trace;
	EXPECT_EQ(s.setsockopt(MOX_PACKET_DUMP_SOCKET, {}), 0);
	EXPECT_EQ(trace.steps, (Strings{ "+sock", "-sock" }));
}

} // namespace
