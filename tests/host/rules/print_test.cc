// SPDX-License-Identifier: GPL-2.0-only
// A rule in reports, word by word; every type with its values: socket/dump_test.cc.
#include "rules/print.hpp"

#include "contract/locations.h"
#include "contract/rules.h"
#include "rules_fixture.h"

namespace {

class Print : public RulesTest {
protected:
	std::string said()
	{
		std::string text = kernel().text();
		kernel().log.clear();
		return text;
	}
};

TEST_F(Print, rule__every_location_and_treatment)
{
	packet_regular rule{};
	list_init(&rule.items);
	auto report = [&](u32 location, u32 treatment) {
		rule.location = location;
		rule.treatment = treatment;
		mox_packet_dump_regular(&rule);
		return said();
	};
	for (u32 location = 0; location < 13; location++)
		for (u32 treatment = 0; treatment < 8; treatment++)
			EXPECT_EQ(report(location, treatment),
				  std::string("PACKET LOC:         ") +
					  contract::location_name(location) +
					  "\nPACKET TREATMENT:   " +
					  contract::treatment_name(treatment) + "\n");
	EXPECT_EQ(report(0xffffffff, 0xffffffff),
		  "PACKET LOC:         Unknown\nPACKET TREATMENT:   Unknown\n");
}

TEST_F(Print, type__beyond_the_last_is_illegal)
{
	const u8 value[8] = { 1, 2, 3, 4, 5, 6, 7, 8 };
	for (u32 type : { 20u, 21u, 255u, 0xffffffffu }) {
		mox_packet_dump_regular_type(type);
		EXPECT_EQ(said(), "illegal regular type!\n");
		mox_packet_dump_regular_data(type, value);
		EXPECT_EQ(said(), "illegal regular type!\n");
	}
}

} // namespace
