// SPDX-License-Identifier: GPL-2.0-only
// Filing a rule at a location: which library, and when its hooks follow.
#include "rules_fixture.h"

namespace {

class Filing : public RulesTest {
protected:
	packet_regular_lib *lib = &g_lev2_packet_regular_lib;
	static constexpr u32 kLoc = PACKET_LEV2_LOC;
};

TEST_F(Filing, handle__illegal_locations)
{
	mox_packet_debug[0] = 1;
	for (u32 location : { 0u, 11u, 0xffffffffu }) {
		kernel().log.clear();
		Rule rule(location, PACKET_COPY);
		EXPECT_EQ(mox_packet_handle_regular(&rule.regular(), 1), -1);
		EXPECT_EQ(mox_packet_add_regular(&rule.regular()), -1);
		EXPECT_EQ(mox_packet_remove_regular(&rule.regular()), -1);
		EXPECT_EQ(
			kernel().count_said(
				"[MOX-PACKET(0)]: MOX-PACKET-HANDLE-REGULAR: location illegal!\n"),
			3u);
	}
	mox_packet_debug[0] = 0;
	kernel().log.clear();
	Rule rule(0, PACKET_COPY);
	EXPECT_EQ(mox_packet_add_regular(&rule.regular()), -1);
	EXPECT_TRUE(kernel().log.empty());
	EXPECT_TRUE(efmp().registrations.empty());
}

TEST_F(Filing, handle__library_of_each_location)
{
	for (u32 location = 1; location <= 10; location++) {
		Rule rule(location, PACKET_COPY);
		rule.add();
		for (u32 other = 1; other <= 8; other++)
			EXPECT_EQ(lib_of(other)->regular_count,
				  lib_of(other) == lib_of(location) ? 1u : 0u)
				<< location << " in " << other;
	}
}

TEST_F(Filing, locking__changes_happen_under_the_write_lock_hooks_register_outside)
{
	Rule rule(kLoc, PACKET_COPY);
	rule.item(PACKET_ALL);
	std::vector<bool> under_lock;
	auto look = [&](const void *) {
		under_lock.push_back(kernel().holds(fake::LockKind::kLib));
	};
	kernel().at[Point::kRegModule] = look;
	kernel().at[Point::kDeregModule] = look;
	// One value, one copy that hooks find: the library lock is held for each way of it.
	int writes = 0;
	kernel().at[Point::kLock] = [&](const void *lock) {
		if (lock == &lib->lock && reinterpret_cast<const fake::Lock *>(lock)->writers)
			writes++;
	};
	rule.add();
	rule.remove();
	EXPECT_EQ(writes, 2);
	EXPECT_EQ(under_lock, (std::vector<bool>{ false, false }));
}

// Anchors in the buckets of a library's hooks.
u32 anchors_of(const packet_regular_lib *lib)
{
	u32 count = 0;
	for (const rule_anchor *at : lib->filter_buckets)
		for (; at; at = at->next)
			count++;
	return count;
}

TEST_F(Filing, locking__a_hold_changes_at_most_64_anchors)
{
	struct {
		u32 values;  // of the key
		u32 further; // values of a second item, under which copies are anchored
		u32 holds;   // of the library lock, for each way
	} const rows[] = {
		{ 1, 0, 1 },
		{ 63, 0, 1 },
		{ 64, 0, 1 },
		{ 65, 0, 2 },
		{ 128, 0, 2 },
		{ 200, 0, 4 },
		{ 2000, 0, 32 },
		// With a second item each copy may be anchored by that, or by its key.
		{ 100, 1, 0 },
		// A copy has more anchors than a hold may change.
		{ 2, 100, 0 },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.values);
		Rule rule(kLoc, PACKET_COPY);
		for (u32 n = 0; n < row.values; n++)
			rule.data(PACKET_SRC_MAC_EQUAL, { 2, 0, u8(n >> 8), u8(n) });
		for (u32 n = 0; n < row.further; n++)
			rule.data(PACKET_IPv4_DEST_PORT_EQUAL, { 1, u8(n) });
		u32 before = 0, holds = 0, most = 0;
		kernel().at.watch(Point::kLock, [&](const void *lock) {
			if (lock == &lib->lock)
				before = anchors_of(lib);
		});
		kernel().at.watch(Point::kUnlock, [&](const void *lock) {
			if (lock != &lib->lock)
				return;
			const u32 after = anchors_of(lib);
			most = std::max(most, after > before ? after - before : before - after);
			holds++;
		});
		rule.add();
		EXPECT_GE(anchors_of(lib), row.values);
		EXPECT_EQ(row.holds ? holds : 0, row.holds);
		holds = 0;
		rule.remove();
		EXPECT_EQ(anchors_of(lib), 0u);
		EXPECT_EQ(row.holds ? holds : 0, row.holds);
		EXPECT_GT(most, 0u);
		EXPECT_LE(most, 64u);
		kernel().at.clear();
	}
}

// A copy that memory was short for is missing; those before and after it in its group are not.
TEST_F(Filing, no_memory__copies_of_a_group)
{
	for (Fail call : { Fail::kEntryAlloc, Fail::kCopyAlloc })
		for (int nth : { 1, 2, 63, 64, 65, 128, 129, 130 }) {
			SCOPED_TRACE(nth);
			Rule rule(kLoc, PACKET_COPY);
			for (u32 n = 0; n < 130; n++)
				rule.data(PACKET_SRC_MAC_EQUAL, { 2, 0, u8(n) });
			kernel().fail(call, nth);
			rule.add();
			EXPECT_EQ(anchors_of(lib), 129u);
			verify(lib);
			rule.remove();
			EXPECT_EQ(anchors_of(lib), 0u);
		}
}

} // namespace
