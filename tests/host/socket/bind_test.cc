// SPDX-License-Identifier: GPL-2.0-only
// bind: the address, the interface, one more protocol, and its locks.
#include "socket_fixture.h"

namespace {

const u16 kArp = 0x0608, kIpv4 = 0x0008; // network order

class Bind : public SocketTest {
protected:
	void SetUp() override
	{
		SocketTest::SetUp();
		debug();
	}
	void create(Sock &s, int protocol = 0)
	{
		ASSERT_EQ(s.create(kRaw, protocol), 0);
		lines();
	}
	// A socket in the layer-2 library.
	void running(Sock &s)
	{
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
		lines();
	}
	static oracle::Value eth(u16 protocol) { return oracle::int_value(protocol); }
};

TEST_F(Bind, address__length_and_family)
{
	struct {
		int len;
		u16 family;
		int result;
		Strings lines;
	} const cases[] = {
		{ -1, 17, -22, { "MOX-PACKET-BIND: Addr_len illegal\n" } },
		{ 0, 17, -22, { "MOX-PACKET-BIND: Addr_len illegal\n" } },
		{ 18, 17, -22, { "MOX-PACKET-BIND: Addr_len illegal\n" } },
		{ 19, 17, -22, { "MOX-PACKET-BIND: Addr_len illegal\n" } },
		{ 20, 17, 0, {} },
		{ 28, 17, 0, {} },
		{ 20, 2, -22, { "MOX-PACKET-BIND: Sock family illegal\n" } },
		{ 20, 0, -22, { "MOX-PACKET-BIND: Sock family illegal\n" } },
		{ 20, 0x1700, -22, { "MOX-PACKET-BIND: Sock family illegal\n" } },
		// The length is looked at first.
		{ 19, 2, -22, { "MOX-PACKET-BIND: Addr_len illegal\n" } },
	};
	Sock s;
	create(s);
	s.po().ifindex = 5;
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.len << " " << c.family);
		s.po().ifindex = 5;
		EXPECT_EQ(s.bind(7, kArp, c.family, c.len), c.result);
		Strings wanted{ "MOX-PACKET-BIND\n" };
		wanted.insert(wanted.end(), c.lines.begin(), c.lines.end());
		EXPECT_EQ(lines(), wanted);
		EXPECT_EQ(s.po().ifindex, c.result ? 5u : 7u);
	}
}

TEST_F(Bind, address__without_debug_prints_nothing)
{
	Sock s;
	create(s);
	debug(false);
	EXPECT_EQ(s.bind(7, 0, 17, 19), -22);
	EXPECT_EQ(s.bind(7, 0, 16), -22);
	EXPECT_EQ(s.bind(99), -19);
	kernel().cwd = "/data/var/run/vsd/3";
	EXPECT_EQ(s.bind(7), -22);
	kernel().fail(Fail::kDataAlloc);
	EXPECT_EQ(s.bind(0, kArp), -12);
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Bind, interface__unknown_leaves_the_socket_as_it_was)
{
	Sock s;
	running(s);
	u32 refs = s.refs();
	EXPECT_EQ(s.bind(8, kArp), -19);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-BIND\n",
				     "MOX-PACKET-BIND: Interface 8 had not created\n" }));
	EXPECT_EQ(s.po().ifindex, 0u);
	EXPECT_EQ(s.po().protocol, 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), refs);
	EXPECT_EQ(items(s).size(), 1u);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
}

TEST_F(Bind, interface__big_index_is_printed_signed)
{
	Sock s;
	create(s);
	EXPECT_EQ(s.bind(0xffffffff), -19);
	EXPECT_EQ(lines().back(), "MOX-PACKET-BIND: Interface -1 had not created\n");
}

// The index is the control block's own, whatever the caller asked for.
TEST_F(Bind, interface__index_comes_from_its_control_block)
{
	Sock s;
	create(s);
	efmp().interfaces[70] = fake::pointer(port);
	EXPECT_EQ(s.bind(70), 0);
	EXPECT_EQ(s.po().ifindex, 7u);
}

// Index 0 is every interface: neither the vsd nor the interface is asked about.
TEST_F(Bind, interface__index_0_skips_both_checks)
{
	Sock s;
	create(s);
	ASSERT_EQ(s.bind(7), 0);
	lines();
	kernel().cwd = "/data/var/run/vsd/3";
	const uint64_t before = kernel().calls(Fail::kKmalloc);
	EXPECT_EQ(s.bind(0), 0);
	EXPECT_EQ(kernel().calls(Fail::kKmalloc), before) << "no path was asked for";
	EXPECT_EQ(s.po().ifindex, 0u);
	EXPECT_EQ(lines(), Strings{ "MOX-PACKET-BIND\n" });
}

TEST_F(Bind, vsd__other_than_0_is_refused_before_the_interface_is_looked_up)
{
	Sock s;
	running(s);
	struct {
		const char *cwd;
		int result;
		Strings lines;
	} const cases[] = {
		{ "/data/var/run/vsd/3", -22, { "MOX-PACKET-BIND: get vsd id 3 fail.\n" } },
		{ "/data/var/run/vsd/3/further/path",
		  -22,
		  { "MOX-PACKET-BIND: get vsd id 3 fail.\n" } },
		{ "/data/var/run/vsd/2147483647",
		  -22,
		  { "MOX-PACKET-BIND: get vsd id 2147483647 fail.\n" } },
		{ "/data/var/run/vsd/2147483648",
		  -19,
		  { "MOX-PACKET-BIND: Interface 99 had not created\n" } },
		{ "/data/var/run/vsd/0",
		  -19,
		  { "MOX-PACKET-BIND: Interface 99 had not created\n" } },
		{ "/data/var/run/vsd/-1",
		  -19,
		  { "MOX-PACKET-BIND: Interface 99 had not created\n" } },
		{ "/", -19, { "MOX-PACKET-BIND: Interface 99 had not created\n" } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cwd);
		kernel().cwd = c.cwd;
		EXPECT_EQ(s.bind(99, kArp), c.result);
		Strings wanted{ "MOX-PACKET-BIND\n" };
		wanted.insert(wanted.end(), c.lines.begin(), c.lines.end());
		EXPECT_EQ(lines(), wanted);
		EXPECT_TRUE(s.running());
		EXPECT_EQ(items(s).size(), 1u);
	}
}

TEST_F(Bind, vsd__without_memory_for_the_path_the_check_is_skipped)
{
	Sock s;
	create(s);
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().fail(Fail::kKmalloc);
	EXPECT_EQ(s.bind(7), 0);
	EXPECT_EQ(s.po().ifindex, 7u);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-BIND\n", "<0>Failed to kmalloc buf.\n" }));
}

// ---- protocol -------------------------------------------------------------------

TEST_F(Bind, protocol__is_stored_and_added_as_passed)
{
	Sock s;
	create(s);
	EXPECT_EQ(s.bind(7, kArp), 0);
	EXPECT_EQ(s.po().protocol, kArp);
	EXPECT_EQ(items(s), (Items{ { PACKET_ETH_PROT_EQUAL, { value_of({ 0x08, 0x06 }) } } }));
}

TEST_F(Bind, protocol__0_takes_the_sockets_own_which_its_rule_has_already)
{
	Sock s;
	create(s, kArp);
	EXPECT_EQ(s.bind(7, 0), 0);
	EXPECT_EQ(s.po().protocol, kArp);
	EXPECT_EQ(items(s), (Items{ { PACKET_ETH_PROT_EQUAL, { eth(kArp) } } })) << "absorbed";
}

TEST_F(Bind, protocol__0_adds_the_sockets_own_again_after_it_was_deleted)
{
	Sock s;
	create(s, kArp);
	ASSERT_EQ(s.del(PACKET_ETH_PROT_EQUAL, 1, { 0x08, 0x06 }), 0);
	ASSERT_TRUE(items(s).empty());
	EXPECT_EQ(s.bind(7, 0), 0);
	EXPECT_EQ(items(s), (Items{ { PACKET_ETH_PROT_EQUAL, { eth(kArp) } } }));
}

TEST_F(Bind, protocol__0_without_one_adds_nothing)
{
	Sock s;
	create(s);
	const uint64_t before = kernel().calls(Fail::kDataAlloc);
	EXPECT_EQ(s.bind(7, 0), 0);
	EXPECT_EQ(kernel().calls(Fail::kDataAlloc), before);
	EXPECT_TRUE(items(s).empty());
}

TEST_F(Bind, rebind__adds_protocols_and_keeps_earlier_data)
{
	Sock s;
	create(s, kArp);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	efmp().add_interface(8, "eth8", Bytes(6, 8).data());
	EXPECT_EQ(s.bind(7, kIpv4), 0);
	EXPECT_EQ(s.bind(8, 0xdd86), 0);
	EXPECT_EQ(s.po().ifindex, 8u);
	EXPECT_EQ(s.po().protocol, 0xdd86);
	EXPECT_EQ(items(s),
		  (Items{ { PACKET_ETH_PROT_EQUAL, { eth(kArp), eth(kIpv4), eth(0xdd86) } } }));
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	EXPECT_EQ(s.refs(), 3u);
}

// ---- running ----------------------------------------------------------------------

TEST_F(Bind, running__location_0_is_bound_but_not_running)
{
	Sock s;
	create(s, kArp);
	ASSERT_TRUE(s.running());
	EXPECT_EQ(s.bind(7, kIpv4), 0);
	EXPECT_FALSE(s.running()) << "it ran through its protocol alone";
	EXPECT_EQ(s.refs(), 2u);
	EXPECT_EQ(s.po().ifindex, 7u);
}

TEST_F(Bind, running__a_stopped_socket_with_a_location_starts)
{
	Sock s;
	create(s);
	ASSERT_EQ(s.add(PACKET_ALL), 0);
	s.po().regular.location = PACKET_IPv4_LOC;
	ASSERT_FALSE(s.running());
	EXPECT_EQ(s.bind(7), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), 3u);
	EXPECT_EQ(filed(PACKET_IPv4_LOC), 1u);
	EXPECT_TRUE(hooked("ipv4"));
}

TEST_F(Bind, running__rule_is_filed_anew_with_the_protocol)
{
	Sock s;
	running(s);
	EXPECT_EQ(s.bind(7, kArp), 0);
	std::vector<RuleView> rules = rules_in(&g_lev2_packet_regular_lib.regulars);
	ASSERT_EQ(rules.size(), 1u);
	EXPECT_EQ(rules[0].items.size(), 2u);
	std::vector<EntryView> entries = entries_in(&g_lev2_packet_regular_lib);
	ASSERT_EQ(entries.size(), 1u);
	EXPECT_EQ(entries[0].type, u32{ PACKET_ALL });
	ASSERT_EQ(entries[0].match.size(), 1u);
	EXPECT_EQ(entries[0].match[0].items, (Items{ { PACKET_ETH_PROT_EQUAL, { eth(kArp) } } }));
}

// A location without a library: running all the same, and nothing is filed.
TEST_F(Bind, running__location_without_a_library)
{
	Sock s;
	create(s);
	ASSERT_EQ(s.set(PACKET_LOCATION, 11), 0);
	lines();
	EXPECT_EQ(s.bind(7), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), 3u);
	const std::string illegal = "MOX-PACKET-HANDLE-REGULAR: location illegal!\n";
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-BIND\n", illegal, illegal }))
		<< "withdrawn and added";
}

TEST_F(Bind, running__is_cleared_before_its_reference_is_dropped)
{
	Sock s;
	running(s);
	kernel().at[Point::kSockPut] = [&](const void *) { EXPECT_FALSE(s.running()); };
	EXPECT_EQ(s.bind(7), 0);
	kernel().at.clear();
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.refs(), 3u);
}

TEST_F(Bind, failure__datum_or_item_leaves_it_stopped_with_the_new_interface)
{
	struct {
		contract::Cache cache;
		const char *line;
	} const cases[] = {
		{ contract::Cache::kData, "MOX-PACKET-DO-BIND: Alloc data failed\n" },
		{ contract::Cache::kItem, "MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed\n" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.line);
		Sock s;
		running(s);
		kernel().fail(fake::alloc_of(c.cache));
		EXPECT_EQ(s.bind(7, kArp), -12);
		Strings wanted{ "MOX-PACKET-BIND\n" };
		Strings said = lines();
		// What withdrawing prints is tested with the library.
		ASSERT_GE(said.size(), 3u);
		EXPECT_EQ(Strings(said.end() - 2, said.end()),
			  (Strings{ facts(c.cache).exhausted, c.line }));
		EXPECT_EQ(s.po().ifindex, 7u) << "changed";
		EXPECT_EQ(s.po().protocol, kArp) << "changed";
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.refs(), 2u);
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
		EXPECT_FALSE(hooked("lev2"));
		EXPECT_EQ(items(s).size(), 1u) << "what it had before";
		// The next rule change brings it back.
		ASSERT_EQ(s.bind(7, kArp), 0);
		EXPECT_TRUE(s.running());
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	}
}

TEST_F(Bind, failure__every_allocation_in_turn_leaks_nothing)
{
	for (size_t nth = 1;; nth++) {
		SCOPED_TRACE(nth);
		Sock s;
		ASSERT_EQ(s.create(kRaw, kArp), 0);
		ASSERT_EQ(s.add(PACKET_SRC_MAC_EQUAL, 1, Bytes(6, 3)), 0);
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		size_t seen = 0;
		kernel().fault = [&](Fail) { return ++seen == nth; };
		int result = s.bind(7, kIpv4);
		kernel().fault = nullptr;
		EXPECT_TRUE(result == 0 || result == -12);
		EXPECT_EQ(filed(PACKET_LEV2_LOC), s.running() ? 1u : 0u);
		EXPECT_EQ(s.refs(), s.running() ? 3u : 2u);
		verify(&g_lev2_packet_regular_lib);
		s.release();
		EXPECT_EQ(counters().entries + counters().copies, 0u);
		if (seen < nth)
			break;
		ASSERT_LT(nth, 100u);
	}
}

// ---- locks --------------------------------------------------------------------------

TEST_F(Bind, locks__socket_lock_then_bind_lock_for_moments_and_one_change_of_the_library)
{
	Sock s;
	running(s);
	LockTrace trace;
	ASSERT_EQ(s.bind(7, kArp), 0);
	EXPECT_EQ(trace.steps, (Strings{ "+sock", "+bind", "-bind", // running is cleared
					 "+change", "+lib", "-lib", "+hook", "-hook", // withdrawn
					 "+bind", "-bind",                            // changed
					 "+bind", "-bind",                            // running
					 "+lib", "-lib", "+hook", "-hook",            // filed
					 "-change", "-sock" }));
}

TEST_F(Bind, locks__reference_and_flag_go_before_the_rule_leaves)
{
	Sock s;
	running(s);
	bool seen = false;
	LockTrace trace;
	trace.look = [&](const std::string &step) {
		if (step != "+lib" || seen)
			return;
		seen = true;
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.refs(), 2u);
		EXPECT_EQ(s.po().ifindex, 0u) << "not yet changed";
	};
	ASSERT_EQ(s.bind(7), 0);
	EXPECT_TRUE(seen);
}

// bind and setsockopt have a lock each; the socket lock outside keeps one from
// withdrawing a rule that the other is about to withdraw.
TEST_F(Bind, locks__a_setsockopt_on_another_cpu_never_withdraws_twice)
{
	Sock s;
	running(s);
	u32 treatment = PACKET_COPY;
	size_t waited = interleave(
		s, [&] { treatment = treatment == PACKET_COPY ? PACKET_TRAP : PACKET_COPY; },
		[&] { EXPECT_EQ(s.bind(7, kArp), 0); },
		[&] { EXPECT_EQ(s.set(PACKET_TREATMENT, treatment), 0); },
		[&] {
			EXPECT_TRUE(s.running());
			EXPECT_EQ(s.refs(), 3u);
			EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
			EXPECT_EQ(s.po().regular.treatment, treatment);
			EXPECT_EQ(s.po().ifindex, 7u);
			EXPECT_TRUE(hooked("lev2"));
			verify_all();
		});
	EXPECT_GT(waited, 10u) << "from the socket lock on, the other one has to wait";
}

TEST_F(Bind, locks__a_bind_on_another_cpu_during_setsockopt_never_withdraws_twice)
{
	Sock s;
	running(s);
	u32 location = PACKET_LEV2_LOC;
	size_t waited = interleave(
		s,
		[&] { location = location == PACKET_LEV2_LOC ? PACKET_IPv4_LOC : PACKET_LEV2_LOC; },
		[&] { EXPECT_EQ(s.set(PACKET_LOCATION, location), 0); },
		[&] { EXPECT_EQ(s.bind(7, kArp), 0); },
		[&] {
			EXPECT_TRUE(s.running());
			EXPECT_EQ(s.refs(), 3u);
			EXPECT_EQ(filed(location), 1u);
			EXPECT_EQ(filed(PACKET_LEV2_LOC) + filed(PACKET_IPv4_LOC), 1u);
			verify_all();
		});
	EXPECT_GT(waited, 8u);
}

TEST_F(Bind, locks__two_sockets_of_one_library_leave_its_hook_registered)
{
	Sock s, t;
	running(s);
	running(t);
	u32 location = PACKET_LEV2_LOC;
	size_t played = 0;
	// The other socket comes or goes at each step of the bind in turn.
	for (size_t step = 0; step < 24; step++) {
		SCOPED_TRACE(step);
		size_t at = 0;
		auto visit = [&](const void *) {
			// Else it would wait for the library.
			if (at++ != step || kernel().holds(fake::LockKind::kChange))
				return;
			location = location ? 0 : u32{ PACKET_LEV2_LOC };
			played++;
			on_other_cpu([&] { EXPECT_EQ(t.set(PACKET_LOCATION, location), 0); });
		};
		kernel().at[Point::kLocking] = visit;
		kernel().at[Point::kUnlock] = visit;
		EXPECT_EQ(s.bind(7), 0);
		kernel().at.erase(Point::kLocking);
		kernel().at.erase(Point::kUnlock);
		EXPECT_EQ(filed(PACKET_LEV2_LOC), location ? 2u : 1u);
		EXPECT_TRUE(hooked("lev2"));
		verify_all();
	}
	// Before the library's change begins, and when it has ended; in between it would wait.
	EXPECT_GT(played, 5u);
}

} // namespace
