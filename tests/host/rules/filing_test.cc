// SPDX-License-Identifier: GPL-2.0
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

} // namespace
