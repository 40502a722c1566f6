// SPDX-License-Identifier: GPL-2.0-only
// The CPU is offered once in 64 steps, in each loop that takes them.
#include "rules/pauses.hpp"
#include "rules_fixture.h"

#include "rules/print.hpp"

namespace {

class PausesTest : public RulesTest {
protected:
	static int offers(const std::function<void()> &act)
	{
		const int before = kernel().cond_rescheds;
		act();
		return kernel().cond_rescheds - before;
	}
	static Rule &fill(Rule &rule, u32 values)
	{
		for (u32 n = 0; n < values; n++)
			rule.data(PACKET_IPv4_DEST_PORT_EQUAL, { u8(n >> 8), u8(n) });
		return rule;
	}
};

TEST_F(PausesTest, step__offers_the_cpu_at_each_64th)
{
	Pauses pauses;
	for (int step = 1; step <= 200; step++)
		EXPECT_EQ(offers([&] { pauses.step(); }), step % 64 == 0) << step;
}

TEST_F(PausesTest, free__of_a_rule_with_many_values)
{
	for (auto empty : { mox_packet_empty_regular, mox_packet_empty_match_regular })
		for (u32 values : { 1u, 63u, 64u, 127u, 128u, 130u }) {
			Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
			fill(rule, values);
			EXPECT_EQ(offers([&] { empty(&rule.regular()); }),
				  static_cast<int>(values / 64))
				<< values;
		}
}

// Outside of a page nothing but the number of lines ends a turn: 63 of them.
TEST_F(PausesTest, print__of_a_rule_with_many_values)
{
	for (u32 values : { 1u, 63u, 64u, 126u, 127u, 189u, 190u }) {
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		fill(rule, values);
		kernel().log.clear();
		EXPECT_EQ(offers([&] { mox_packet_dump_regular(&rule.regular()); }),
			  static_cast<int>((values - 1) / 63))
			<< values;
	}
}

} // namespace
