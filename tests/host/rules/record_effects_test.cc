// SPDX-License-Identifier: GPL-2.0-only
// What a rule record does to its socket: it starts or stops it, and a record that fails half way leaves a part of it.
#include "record_fixture.h"

namespace {

// ---- bad types ----------------------------------------------------------------------

TEST_F(RuleRecordTest, bad_type__is_refused_and_the_rule_goes_back)
{
	run();
	for (u16 type : { 20, 21, 255, 256, 65535 })
		for (bool add : { true, false }) {
			SCOPED_TRACE(type);
			EXPECT_EQ(s.rule(add, type, 1, { 1, 2, 3, 4, 5, 6 }), -22);
			EXPECT_EQ(own_lines(), Strings{ "ADD-REGUALR: type error\n" });
			EXPECT_TRUE(s.running());
			EXPECT_EQ(s.refs(), 3u);
			EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
		}
	// A type without a stride: its elements need not be there if they have no size.
	EXPECT_EQ(s.rule(true, 20, 65535, {}, 0), -22);
	EXPECT_EQ(own_lines(), Strings{ "ADD-REGUALR: type error\n" });
}

TEST_F(RuleRecordTest, bad_type__starts_a_stopped_socket_that_has_a_location)
{
	s.po().regular.location = PACKET_LEV2_LOC;
	EXPECT_EQ(s.add(20, 1, { 1 }), -22);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	EXPECT_EQ(s.refs(), 3u);
}

// Withdrawn first, and there is no location to go back to.
TEST_F(RuleRecordTest, at_location_0__any_record_stops_a_socket_that_ran_by_its_treatment)
{
	for (u16 type : { 20, 5 }) {
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_TRUE(s.running());
		EXPECT_EQ(s.add(type, 1, { 6 }), type == 20 ? -22 : 0);
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.refs(), 2u);
	}
}

TEST_F(RuleRecordTest, success__starts_a_stopped_socket_that_has_a_location)
{
	for (bool add : { true, false }) {
		s.po().regular.location = PACKET_IPv4_LOC;
		EXPECT_EQ(s.rule(add, 5, 1, { 6 }), 0);
		EXPECT_TRUE(s.running());
		EXPECT_EQ(filed(PACKET_IPv4_LOC), 1u);
		ASSERT_EQ(s.set(PACKET_LOCATION, 0), 0);
	}
}

// ---- type 10 and the vsd ----------------------------------------------------------------

TEST_F(RuleRecordTest, interface_in_a_vsd__is_refused_and_the_rule_goes_back)
{
	run();
	kernel().cwd = "/data/var/run/vsd/3/further/path";
	for (bool add : { true, false }) {
		EXPECT_EQ(s.rule(add, PACKET_SRC_INTF_EQUAL, 1, { 7, 0, 0, 0 }), -22);
		EXPECT_EQ(own_lines(),
			  Strings{ "MOX-PACKET-DEAL-REGULAR-DATA: get vsd id 3 fail.\n" });
		EXPECT_TRUE(s.running());
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
		EXPECT_EQ(items(s).size(), 1u);
	}
}

TEST_F(RuleRecordTest, interface_in_a_vsd__other_types_do_not_ask)
{
	kernel().cwd = "/data/var/run/vsd/3";
	for (const TypeTraits &t : kTypes) {
		if (t.type == PACKET_SRC_INTF_EQUAL)
			continue;
		EXPECT_EQ(s.add(t.type, 1, elements(1, t.stride)), 0) << t.line;
	}
	EXPECT_EQ(kernel().calls(Fail::kKmalloc), 1u) << "the one of create";
}

TEST_F(RuleRecordTest, interface_in_a_vsd__without_memory_for_the_path_is_vsd_0)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().fail(Fail::kKmalloc);
	EXPECT_EQ(s.add(PACKET_SRC_INTF_EQUAL, 1, { 7, 0, 0, 0 }), 0);
	EXPECT_EQ(lines(), (Strings{ "<0>Failed to kmalloc buf.\n",
				     "ADD-REGUALR: type PACKET_SRC_INTF_EQUAL success\n" }));
	EXPECT_EQ(items(s), (Items{ { 10, { value_of({ 7 }) } } }));
}

// ---- PACKET_ALL -----------------------------------------------------------------------------

TEST_F(RuleRecordTest, packet_all__added_twice_is_one_item)
{
	run();
	EXPECT_EQ(s.add(PACKET_ALL), 0);
	EXPECT_EQ(s.add(PACKET_ALL), 0);
	EXPECT_EQ(items(s), (Items{ { 2, { value_of(Bytes(6, 0x22)) } }, { 16, {} } }));
	EXPECT_EQ(g_regular_item_stats[16], 1u + 1u) << "the socket's, and its match copy's";
	EXPECT_EQ(s.del(PACKET_ALL), 0);
	EXPECT_EQ(items(s).size(), 1u);
	EXPECT_EQ(s.del(PACKET_ALL), 0);
	EXPECT_EQ(g_regular_item_stats[16], 0u);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
}

TEST_F(RuleRecordTest, packet_all__ignores_count_and_elements)
{
	EXPECT_EQ(s.rule(true, PACKET_ALL, 3, { 1, 2, 3, 4, 5, 6 }, 2), 0);
	EXPECT_EQ(items(s), (Items{ { 16, {} } }));
	EXPECT_EQ(s.rule(false, PACKET_ALL, 0, {}, 0), 0);
	EXPECT_TRUE(items(s).empty());
}

TEST_F(RuleRecordTest, packet_all__without_an_item)
{
	run();
	kernel().fail(Fail::kItemAlloc);
	EXPECT_EQ(s.add(PACKET_ALL), -12);
	Strings said = lines();
	ASSERT_GE(said.size(), 2u);
	EXPECT_EQ(Strings(said.end() - 2, said.end()),
		  (Strings{ "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!\n",
			    "MOX-PACKET-DEAL-PACKET-ALL-REGULAR: alloc item failed\n" }));
	EXPECT_FALSE(s.running()) << "out of the libraries until the next rule change";
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
	EXPECT_EQ(s.add(PACKET_ALL), 0);
	EXPECT_TRUE(s.running());
}

// ---- failure among the elements ------------------------------------------------------------------

TEST_F(RuleRecordTest, half_way__no_datum_keeps_what_came_before_and_leaves_the_libraries)
{
	run();
	kernel().fail(Fail::kDataAlloc, 3);
	EXPECT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 4, { 1, 2, 3, 4 }), -12);
	Strings said = lines();
	ASSERT_GE(said.size(), 2u);
	EXPECT_EQ(Strings(said.end() - 2, said.end()),
		  (Strings{ "MOX-PACKET-ALLOC-INIT-DATA: alloc failed!\n",
			    "MOX-PACKET-DEAL-REGULAR-DATA: Alloc data failed\n" }));
	EXPECT_EQ(items(s)[1].second,
		  (std::vector<oracle::Value>{ value_of({ 1 }), value_of({ 2 }) }));
	EXPECT_FALSE(s.running());
	EXPECT_EQ(s.refs(), 2u);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
	EXPECT_FALSE(hooked("lev2"));
	// The next rule change brings it back with what it has.
	EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_TRAP), 0);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	EXPECT_EQ(rules_in(&g_lev2_packet_regular_lib.regulars)[0].items.size(), 2u);
}

TEST_F(RuleRecordTest, half_way__no_item_frees_the_datum_and_leaves_the_libraries)
{
	run();
	kernel().fail(Fail::kItemAlloc);
	EXPECT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 4, { 1, 2, 3, 4 }), -12);
	Strings said = lines();
	ASSERT_GE(said.size(), 2u);
	EXPECT_EQ(Strings(said.end() - 2, said.end()),
		  (Strings{ "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!\n",
			    "MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed\n" }));
	EXPECT_EQ(items(s).size(), 1u);
	EXPECT_EQ(g_regular_data_stats[PACKET_IPv4_PROT_EQUAL], 0u);
	EXPECT_FALSE(s.running());
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
}

// Deleting needs a datum to compare with.
TEST_F(RuleRecordTest, half_way__no_datum_while_deleting)
{
	run();
	ASSERT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 3, { 1, 2, 3 }), 0);
	lines();
	kernel().fail(Fail::kDataAlloc, 2);
	EXPECT_EQ(s.del(PACKET_IPv4_PROT_EQUAL, 3, { 1, 2, 3 }), -12);
	EXPECT_EQ(items(s)[1].second,
		  (std::vector<oracle::Value>{ value_of({ 2 }), value_of({ 3 }) }));
	EXPECT_FALSE(s.running());
	EXPECT_EQ(lines().back(), "MOX-PACKET-DEAL-REGULAR-DATA: Alloc data failed\n");
}

TEST_F(RuleRecordTest, every_allocation_in_turn__leaks_nothing_and_keeps_the_books)
{
	for (const TypeTraits &t : kTypes) {
		for (size_t nth = 1;; nth++) {
			SCOPED_TRACE(testing::Message() << t.line << "allocation " << nth);
			Sock each;
			ASSERT_EQ(each.create(), 0);
			ASSERT_EQ(each.add(PACKET_SRC_MAC_EQUAL, 2, elements(2, 6)), 0);
			ASSERT_EQ(each.set(PACKET_TREATMENT, PACKET_FETCH), 0);
			ASSERT_EQ(each.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
			size_t seen = 0;
			kernel().fault = [&](Fail) { return ++seen == nth; };
			int result = each.add(t.type, 3, elements(3, t.stride));
			kernel().fault = nullptr;
			EXPECT_TRUE(result == 0 || result == -12 || result == -14) << result;
			EXPECT_EQ(filed(PACKET_LEV2_LOC), each.running() ? 1u : 0u);
			EXPECT_EQ(each.refs(), each.running() ? 3u : 2u);
			EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
			verify(&g_lev2_packet_regular_lib);
			each.release();
			oracle::Counters left = counters();
			left.data_failures = left.item_failures = 0;
			EXPECT_EQ(left, oracle::Counters{});
			if (seen < nth)
				break;
			ASSERT_LT(nth, 200u);
		}
		lines();
	}
}

} // namespace
