// SPDX-License-Identifier: GPL-2.0-only
#include "rules_fixture.h"

namespace {

class List : public RulesTest {};

TEST_F(List, list__operations_publish_with_a_full_barrier)
{
	list_head head{ &head, &head }, a, b, c;
	int barriers = 0;
	kernel().at[Point::kBarrier] = [&](const void *) { barriers++; };
	mox_packet_list_add_tail_safe(&a, &head);
	mox_packet_list_add_tail_safe(&b, &head);
	mox_packet_list_ins_head_safe(&c, &head);
	EXPECT_EQ(head.next, &c);
	EXPECT_EQ(c.next, &a);
	EXPECT_EQ(a.next, &b);
	EXPECT_EQ(head.prev, &b);
	mox_packet_list_del_safe(&a);
	EXPECT_EQ(c.next, &b);
	EXPECT_EQ(b.prev, &c);
	EXPECT_GE(barriers, 4);
}

// --------------------------------------------------------------------------
// Equality and edits

} // namespace
