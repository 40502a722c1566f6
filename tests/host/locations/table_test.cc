// SPDX-License-Identifier: GPL-2.0-only
// The module's rows against the tests' own.
#include "locations/table.hpp"

#include "contract/locations.h"
#include "packets.h"
#include "fake/fixture.h"

using fake::efmp;

namespace {

class LocationTable : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		const u8 mac[6] = { 2, 0, 0, 0, 15, 255 };
		for (u32 reserved : { 4094u, 4095u })
			efmp().add_interface(reserved, "reserved", mac);
	}
};

packet_regular_lib *const kLibraries[contract::kLibraries] = {
	&g_local_packet_regular_lib, &g_lev2_packet_regular_lib, &g_ipv4_packet_regular_lib,
	&g_ipv6_packet_regular_lib,  &g_mpls_packet_regular_lib, &g_trill_packet_regular_lib,
	&g_resv_packet_regular_lib,  &g_wlan_packet_regular_lib,
};

TEST_F(LocationTable, rows__name_library_and_queue)
{
	for (u32 location = 0; location < 13; location++) {
		SCOPED_TRACE(location);
		EXPECT_STREQ(location_name(location), contract::location_name(location));
		int library = contract::library(location);
		EXPECT_EQ(location_library(location), library < 0 ? nullptr : kLibraries[library]);
		if (library >= 0) {
			EXPECT_EQ(location_row(location).queue,
				  u32(contract::kLocations[location].queue));
		}
	}
	EXPECT_STREQ(location_name(0xffffffff), "Unknown");
	EXPECT_EQ(location_library(0xffffffff), nullptr);
}

TEST_F(LocationTable, rows__registrations_and_answers)
{
	for (u32 location = 0; location < contract::kLocationCount; location++) {
		SCOPED_TRACE(location);
		const Location &row = location_row(location);
		std::vector<std::string> wanted, found;
		for (const contract::Hook &hook : contract::hooks(location))
			if (hook.call)
				wanted.push_back(hook.call);
		if (row.module)
			found.push_back("module");
		if (row.output)
			found.push_back("output");
		if (row.recv)
			found.push_back("recv");
		EXPECT_EQ(found, wanted);
		for (const contract::Hook &hook : contract::hooks(location)) {
			EXPECT_EQ(row.answers.taken, hook.taken);
			EXPECT_EQ(row.answers.go_on, hook.go_on);
		}
	}
}

TEST_F(LocationTable, queue_location__is_the_one_with_its_own_library)
{
	const u32 wanted[CPU_QUEUES] = { 2, 1, 3, 4, 5, 6, 7, 8 };
	for (u32 queue = 0; queue < CPU_QUEUES; queue++)
		EXPECT_EQ(queue_location(queue), wanted[queue]);
}

TEST_F(LocationTable, has_report__locations_1_to_8)
{
	for (u32 location : { 0u, 9u, 10u, 11u, 0xffffffffu })
		EXPECT_FALSE(location_has_report(location)) << location;
	for (u32 location = 1; location <= 8; location++)
		EXPECT_TRUE(location_has_report(location)) << location;
}

TEST_F(LocationTable, sees__reserved_locations_only_their_interface)
{
	void *lev2 = packets::make({ .dest = fake::word(efmp().interfaces[4094]) },
				   packets::eth(1));
	void *lev3 = packets::make({ .dest = fake::word(efmp().interfaces[4095]) },
				   packets::eth(1));
	void *none = packets::make({}, packets::eth(1));
	struct {
		void *packet;
		bool lev2, lev3;
	} const cases[] = { { lev2, true, false }, { lev3, false, true }, { none, false, false } };
	for (auto &c : cases) {
		EXPECT_EQ(location_sees(PACKET_LEV2_RESV_LOC, c.packet), c.lev2);
		EXPECT_EQ(location_sees(PACKET_LEV3_RESV_LOC, c.packet), c.lev3);
		for (u32 location :
		     { 0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 11u, 32u, 41u, 0xffffffffu })
			EXPECT_TRUE(location_sees(location, c.packet)) << location;
	}
}

// Numbers that no interface block has: the packet without a destination is seen as before.
TEST_F(LocationTable, sees__without_the_reserved_interface)
{
	efmp().interfaces.erase(4094);
	void *none = packets::make({}, packets::eth(1));
	EXPECT_TRUE(location_sees(PACKET_LEV2_RESV_LOC, none));
	EXPECT_FALSE(location_sees(PACKET_LEV3_RESV_LOC, none));
}

} // namespace
