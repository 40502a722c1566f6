// SPDX-License-Identifier: GPL-2.0-only
// Options 11 and 12: the rule record, its lengths, its 20 types and its temporary buffer.
#include "record_fixture.h"

namespace {

TEST_F(RuleRecordTest, type__each_added_with_its_own_stride_and_value_bytes)
{
	for (const TypeTraits &t : kTypes) {
		SCOPED_TRACE(t.line);
		Bytes bytes = elements(3, t.stride);
		EXPECT_EQ(s.add(t.type, 3, bytes), 0);
		EXPECT_EQ(lines(), Strings{ t.line });
		Items got = items(s);
		ASSERT_EQ(got.size(), 1u);
		EXPECT_EQ(got[0].first, t.type);
		if (t.valued)
			EXPECT_EQ(got[0].second, values(bytes, t.stride));
		else if (t.type == PACKET_ALL)
			EXPECT_TRUE(got[0].second.empty()) << "an item without data";
		else
			EXPECT_EQ(got[0].second, std::vector<oracle::Value>{ oracle::Value{} })
				<< "three equal data are one";
		EXPECT_EQ(g_regular_data_stats[t.type], got[0].second.size());
		EXPECT_EQ(g_regular_item_stats[t.type], 1u);

		// Deleting prints the same line.
		EXPECT_EQ(s.del(t.type, 3, bytes), 0);
		EXPECT_EQ(lines(), Strings{ t.line });
		EXPECT_TRUE(items(s).empty());
		EXPECT_EQ(g_regular_data_stats[t.type], 0u);
		EXPECT_EQ(g_regular_item_stats[t.type], 0u);
	}
}

TEST_F(RuleRecordTest, type__deleting_one_value_keeps_the_others)
{
	for (const TypeTraits &t : kTypes) {
		if (!t.valued)
			continue;
		SCOPED_TRACE(t.line);
		Bytes bytes = elements(3, t.stride);
		ASSERT_EQ(s.add(t.type, 3, bytes), 0);
		EXPECT_EQ(s.del(t.type, 1,
				Bytes(bytes.begin() + t.stride, bytes.begin() + 2 * t.stride)),
			  0);
		std::vector<oracle::Value> left = values(bytes, t.stride);
		left.erase(left.begin() + 1);
		EXPECT_EQ(items(s), (Items{ { t.type, left } }));
		ASSERT_EQ(s.del(t.type, 3, bytes), 0);
	}
}

TEST_F(RuleRecordTest, delete__of_what_is_not_there_still_prints_success)
{
	for (const TypeTraits &t : kTypes) {
		SCOPED_TRACE(t.line);
		lines();
		EXPECT_EQ(s.del(t.type, 1, elements(1, t.stride)), 0);
		EXPECT_EQ(lines(), Strings{ t.line });
		// Another value of that type is there.
		if (t.valued) {
			Bytes other(t.stride, 0xee);
			ASSERT_EQ(s.add(t.type, 1, other), 0);
			EXPECT_EQ(s.del(t.type, 1, elements(1, t.stride)), 0);
			EXPECT_EQ(items(s), (Items{ { t.type, { value_of(other) } } }));
			ASSERT_EQ(s.del(t.type, 1, other), 0);
		}
	}
	EXPECT_TRUE(items(s).empty());
}

TEST_F(RuleRecordTest, add__duplicates_are_absorbed)
{
	EXPECT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 5, { 6, 17, 6, 6, 17 }), 0);
	EXPECT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 2, { 17, 1 }), 0);
	EXPECT_EQ(items(s), (Items{ { PACKET_IPv4_PROT_EQUAL,
				      { value_of({ 6 }), value_of({ 17 }), value_of({ 1 }) } } }));
	EXPECT_EQ(g_regular_data_stats[PACKET_IPv4_PROT_EQUAL], 3u);
}

TEST_F(RuleRecordTest, count__0_is_no_element_and_a_success)
{
	for (const TypeTraits &t : kTypes) {
		SCOPED_TRACE(t.line);
		lines();
		EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, { static_cast<u8>(t.type), 0, 9, 9, 0, 0 }), 0);
		EXPECT_EQ(lines(), Strings{ t.line });
		// PACKET_ALL does not look at its count.
		EXPECT_EQ(items(s).size(), t.type == PACKET_ALL ? 1u : 0u);
		EXPECT_EQ(raw(MOX_PACKET_DEL_RULE, { static_cast<u8>(t.type), 0, 9, 9, 0, 0 }), 0);
		EXPECT_TRUE(items(s).empty());
	}
}

TEST_F(RuleRecordTest, types_without_value__any_count_is_one_datum)
{
	for (u16 type : { 12, 13, 18 }) {
		for (u16 count : { 1, 2, 65535 }) {
			// One element is enough: a count costs no time under the rule lock.
			uint64_t before = kernel().calls(Fail::kDataAlloc);
			EXPECT_EQ(s.rule(true, type, count, {}, 0), 0);
			EXPECT_EQ(kernel().calls(Fail::kDataAlloc), before + 1);
			EXPECT_EQ(items(s), (Items{ { type, { oracle::Value{} } } }));
		}
		EXPECT_EQ(s.rule(false, type, 1, {}, 0), 0);
		EXPECT_TRUE(items(s).empty());
	}
}

// ---- lengths --------------------------------------------------------------------

TEST_F(RuleRecordTest, length__head_must_be_there)
{
	for (int option : { MOX_PACKET_ADD_RULE, MOX_PACKET_DEL_RULE })
		for (int len = 0; len <= 5; len++) {
			EXPECT_EQ(raw(option, Bytes(6), len), -22);
			EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: optlen illegal, optlen: " +
						    std::to_string(len) + "\n" });
		}
	EXPECT_EQ(g_packet_regular_data_alloc, 0u) << "refused before any memory is taken";
	EXPECT_EQ(kernel().calls(Fail::kVzalloc), 0u);
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, Bytes(6), 6), 0) << "a head alone";
}

TEST_F(RuleRecordTest, length__count_times_size_must_fit)
{
	const Bytes record{ 3, 0, 2, 0, 2, 0, 8, 0, 8, 6 };
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record, 9), -22);
	EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: optlen illegal, optlen: 9\n" });
	EXPECT_TRUE(items(s).empty());
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record, 10), 0);
	EXPECT_EQ(items(s), (Items{ { 3, { value_of({ 8, 0 }), value_of({ 8, 6 }) } } }));
}

TEST_F(RuleRecordTest, length__has_no_upper_bound)
{
	Bytes record{ 5, 0, 1, 0, 1, 0, 6 };
	record.resize(100000, 0x77);
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), 0);
	EXPECT_EQ(items(s), (Items{ { 5, { value_of({ 6 }) } } }));
}

TEST_F(RuleRecordTest, length__largest_count_and_size_do_not_wrap)
{
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, { 3, 0, 0xff, 0xff, 0xff, 0xff, 1, 2, 3, 4 }), -22);
	EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: optlen illegal, optlen: 10\n" });
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, { 1, 0, 0, 0, 0xff, 0xff, 1, 2, 3, 4 }), -22);
	// 65535 elements that are all there.
	Bytes record{ 5, 0, 1, 0, 0xff, 0xff };
	record.resize(6 + 65535, 6);
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), 0);
	EXPECT_EQ(items(s), (Items{ { 5, { value_of({ 6 }) } } }));
}

// The elements are read at the type's own stride, whatever size is stated, so
// that must fit as well: else a read runs past the buffer.
TEST_F(RuleRecordTest, length__count_times_stride_must_fit_before_anything_changes)
{
	run();
	for (const TypeTraits &t : kTypes) {
		if (t.stride == 0)
			continue;
		SCOPED_TRACE(t.line);
		for (bool add : { true, false }) {
			Bytes few = elements(3, t.stride);
			few.pop_back();
			LockTrace trace;
			EXPECT_EQ(s.rule(add, t.type, 3, few, 0), -22);
			EXPECT_EQ(trace.steps, Strings{}) << "no lock: nothing was withdrawn";
			EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: optlen illegal, optlen: " +
						    std::to_string(6 + few.size()) + "\n" });
		}
		EXPECT_TRUE(s.running());
		EXPECT_EQ(items(s), (Items{ { 2, { value_of(Bytes(6, 0x22)) } } }));
		EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
	}
}

TEST_F(RuleRecordTest, length__stated_size_serves_the_check_alone)
{
	// Size 1 for two-byte elements, which are all there.
	EXPECT_EQ(s.rule(true, 3, 2, { 8, 0, 8, 6 }, 1), 0);
	EXPECT_EQ(items(s), (Items{ { 3, { value_of({ 8, 0 }), value_of({ 8, 6 }) } } }));
	ASSERT_EQ(s.rule(false, 3, 2, { 8, 0, 8, 6 }, 0), 0);
	// Size 4: they still stand two bytes apart.
	EXPECT_EQ(s.rule(true, 3, 2, { 8, 0, 8, 6, 0x86, 0xdd, 1, 1 }, 4), 0);
	EXPECT_EQ(items(s), (Items{ { 3, { value_of({ 8, 0 }), value_of({ 8, 6 }) } } }));
	ASSERT_EQ(s.rule(false, 3, 2, { 8, 0, 8, 6 }, 2), 0);
	// A size that does not fit is refused for PACKET_ALL and types without value, too.
	for (u16 type : { 12, 13, 16, 18, 20, 999 })
		EXPECT_EQ(s.rule(true, type, 2, { 1, 2, 3 }, 2), -22);
	EXPECT_EQ(kernel().count_said("optlen illegal, optlen: 9\n"), 6u);
	EXPECT_TRUE(items(s).empty());
}

// ---- the temporary buffer ---------------------------------------------------------

TEST_F(RuleRecordTest, buffer__is_counted_out_and_back_on_every_path)
{
	struct {
		const char *what;
		std::function<int()> call;
		int result;
		u32 taken;
	} const cases[] = {
		{ "add", [&] { return s.add(5, 1, { 6 }); }, 0, 1 },
		{ "delete", [&] { return s.del(5, 1, { 6 }); }, 0, 1 },
		{ "bad type", [&] { return s.add(20, 1, { 6 }); }, -22, 1 },
		{ "short", [&] { return raw(MOX_PACKET_ADD_RULE, Bytes(5)); }, -22, 0 },
		{ "elements missing", [&] { return s.rule(true, 5, 3, { 1 }, 1); }, -22, 1 },
		{ "fault", [&] { return raw(MOX_PACKET_ADD_RULE, Bytes(7), 7, 3); }, -14, 1 },
		{ "no buffer",
		  [&] {
			  kernel().fail(Fail::kVzalloc);
			  return s.add(5, 1, { 6 });
		  },
		  -12, 0 },
		{ "no datum",
		  [&] {
			  kernel().fail(Fail::kDataAlloc);
			  return s.add(5, 1, { 6 });
		  },
		  -12, 1 },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.what);
		g_packet_regular_data_alloc = g_packet_regular_data_free = 10;
		EXPECT_EQ(c.call(), c.result);
		EXPECT_EQ(g_packet_regular_data_alloc, 10 + c.taken);
		EXPECT_EQ(g_packet_regular_data_free, 10 + c.taken);
		EXPECT_TRUE(kernel().blocks.empty());
	}
}

TEST_F(RuleRecordTest, buffer__without_memory)
{
	run();
	kernel().fail(Fail::kVzalloc);
	EXPECT_EQ(s.add(5, 1, { 6 }), -12);
	EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: ENOMEM\n" });
	EXPECT_TRUE(s.running()) << "nothing was withdrawn yet";
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
}

TEST_F(RuleRecordTest, buffer__fault_while_copying)
{
	run();
	for (size_t fault_at : { 0, 5, 6, 7 }) {
		EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, { 5, 0, 1, 0, 2, 0, 6, 17 }, 8, fault_at), -14);
		EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: copy from user failed\n" });
		EXPECT_TRUE(s.running());
		EXPECT_EQ(items(s).size(), 1u);
	}
}

// 6 bytes of head and the most elements of the widest type: more is read, but not kept.
constexpr size_t kLongest = 6 + 65535 * 6;

TEST_F(RuleRecordTest, buffer__takes_no_more_than_the_longest_record)
{
	for (size_t len :
	     { size_t(6), size_t(7), size_t(4096), kLongest - 1, kLongest, kLongest + 1,
	       kLongest + 4095, kLongest + 4096, kLongest + 4097, 3 * kLongest }) {
		SCOPED_TRACE(len);
		Bytes record{ 5, 0, 1, 0, 1, 0, 6 };
		record.resize(len, 0x77);
		record[4] = len > 6;
		kernel().vzallocs.clear();
		kernel().user_reads.clear();
		const int yields = kernel().cond_rescheds;
		EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), 0);
		EXPECT_EQ(kernel().vzallocs, std::vector<size_t>{ std::min(len, kLongest) });
		// What is kept is read in one go, the rest in pieces, and none of it twice.
		const size_t rest = len > kLongest ? len - kLongest : 0;
		const size_t pieces = (rest + 4095) / 4096;
		ASSERT_EQ(kernel().user_reads.size(), pieces + 1);
		EXPECT_EQ(kernel().user_reads.back(), (std::pair<size_t, size_t>{ 0, len - rest }));
		size_t at = kLongest;
		for (size_t i = 0; i < pieces; i++) {
			EXPECT_EQ(kernel().user_reads[i].first, at);
			EXPECT_LE(kernel().user_reads[i].second, 4096u);
			at += kernel().user_reads[i].second;
		}
		EXPECT_EQ(at, kLongest + rest);
		EXPECT_EQ(static_cast<size_t>(kernel().cond_rescheds - yields), pieces);
		if (len > 6)
			EXPECT_EQ(items(s), (Items{ { 5, { value_of({ 6 }) } } }));
	}
	EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
}

TEST_F(RuleRecordTest, buffer__holds_every_element_of_the_longest_record)
{
	Bytes record{ PACKET_SRC_MAC_EQUAL, 0, 6, 0, 0xff, 0xff };
	for (u32 i = 0; i < 65535; i++)
		for (int byte : { 2, 0, 0, 0, i == 65534 ? 1 : 0, 7 })
			record.push_back(byte);
	ASSERT_EQ(record.size(), kLongest);
	record.resize(kLongest + 5000, 0xEE);
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), 0);
	EXPECT_EQ(items(s), (Items{ { 2,
				      { value_of({ 2, 0, 0, 0, 0, 7 }),
					value_of({ 2, 0, 0, 0, 1, 7 }) } } }));
}

TEST_F(RuleRecordTest, buffer__fault_behind_what_is_kept)
{
	run();
	const size_t len = kLongest + 3 * 4096 + 7;
	Bytes record{ 5, 0, 1, 0, 1, 0, 6 };
	record.resize(len, 0x77);
	// The elements that are missing are noticed later: the fault comes first.
	for (u8 count : { 1, 0xff })
		for (size_t fault_at : { size_t(0), size_t(6), kLongest - 1, kLongest, kLongest + 1,
					 kLongest + 4095, kLongest + 4096, len - 1 }) {
			SCOPED_TRACE(fault_at);
			record[2] = record[3] = record[4] = record[5] = count;
			EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record, len, fault_at), -14);
			EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: copy from user failed\n" });
			EXPECT_TRUE(s.running());
			EXPECT_EQ(items(s).size(), 1u);
		}
	EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
}

TEST_F(RuleRecordTest, length__the_stated_one_counts_and_not_what_is_kept)
{
	// 65535 elements of 7 bytes, as the record says, are more than is kept.
	Bytes record{ 5, 0, 7, 0, 0xff, 0xff, 6 };
	record.resize(6 + 65535 * 7, 6);
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), 0);
	EXPECT_EQ(items(s), (Items{ { 5, { value_of({ 6 }) } } }));
	lines();
	record.pop_back();
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), -22);
	EXPECT_EQ(lines(), Strings{ "PACKET-SETSOCKOPT: optlen illegal, optlen: " +
				    std::to_string(record.size()) + "\n" });
}

TEST_F(RuleRecordTest, length__a_huge_one_ends_when_the_caller_is_killed)
{
	run();
	Bytes record(kLongest + 100 * 4096);
	int yields = 0;
	kernel().at[Point::kCondResched] = [&](const void *) { kernel().killed = ++yields == 3; };
	EXPECT_EQ(raw(MOX_PACKET_ADD_RULE, record), -4);
	kernel().killed = false;
	EXPECT_EQ(yields, 3);
	EXPECT_EQ(lines(), Strings{});
	EXPECT_TRUE(s.running());
	EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
	kernel().at.erase(Point::kCondResched);
}

} // namespace
