// SPDX-License-Identifier: GPL-2.0-only
// The shared table of rule types against the tests' own.
#include "rules/types.hpp"

#include <gtest/gtest.h>

#include "contract/rules.h"

using namespace mox;

namespace {

TEST(RuleTypes, rows__name_widths_and_key)
{
	ASSERT_EQ(u32(MOX_PACKET_RULE_TYPES), u32(contract::kTypes));
	for (u32 type = 0; type < contract::kTypes; type++) {
		const contract::RuleType &wanted = contract::kRuleTypes[type];
		SCOPED_TRACE(wanted.name);
		ASSERT_NE(rule_type(type), nullptr);
		const RuleType &row = *rule_type(type);
		EXPECT_STREQ(row.name, wanted.name);
		EXPECT_EQ(row.width, wanted.width);
		EXPECT_EQ(row.compared, wanted.width);
		EXPECT_EQ(row.has_value(), wanted.width != 0);
		EXPECT_EQ(type_is_key(type), wanted.key);
		EXPECT_EQ(row.line, wanted.line);
	}
}

TEST(RuleTypes, beyond_the_last__no_row)
{
	for (u32 type : { 20u, 21u, 255u, 0xffffffffu }) {
		EXPECT_EQ(rule_type(type), nullptr);
		EXPECT_EQ(type_is_key(type), contract::may_be_key(type));
	}
}

TEST(RuleTypes, statistics__entries_behind_the_types)
{
	EXPECT_EQ(int(MOX_STAT_ENTRIES), 20);
	EXPECT_EQ(int(MOX_STAT_COPIES), 21);
	EXPECT_EQ(int(MOX_STAT_FAILED), 22);
	EXPECT_EQ(int(MOX_STAT_COUNT), 23);
}

TEST(Treatments, names_and_groups)
{
	for (u32 treatment = 0; treatment < 8; treatment++) {
		EXPECT_STREQ(treatment_name(treatment), contract::treatment_name(treatment));
		EXPECT_EQ(treatment_indexed(treatment), treatment >= 1 && treatment <= 5)
			<< treatment;
		EXPECT_EQ(treatment_local(treatment), treatment == 4 || treatment == 5)
			<< treatment;
	}
	EXPECT_STREQ(treatment_name(0xffffffff), "Unknown");
}

} // namespace
