// SPDX-License-Identifier: GPL-2.0-only
// Which rule decides about a frame and which sockets receive it, when several rules match.
#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

class Order : public VmTest {
protected:
	Socket at(uint32_t treatment, const Rule &rule)
	{
		return capture(PACKET_LEV2_LOC, treatment, rule);
	}
	uint32_t put2(const lab::Frame &frame) { return put(Hook::Lev2, frame); }
};

TEST_F(Order, copy_fetch_and_trap_alone)
{
	struct Row {
		uint32_t treatment, answer;
		size_t received;
	};
	for (Row row : { Row{ PACKET_TREATMENT_NONE, lab::kGoOn, 0 },
			 { PACKET_COPY, lab::kGoOn, 1 },
			 { PACKET_FETCH, lab::kTaken, 1 },
			 { PACKET_TRAP, lab::kTaken, 1 },
			 { PACKET_COPY_LOCAL, lab::kGoOn, 0 },
			 { PACKET_FETCH_LOCAL, lab::kGoOn, 0 } }) {
		Socket socket = at(row.treatment, all());
		EXPECT_TRUE(lab::registered(Hook::Lev2)) << row.treatment;
		EXPECT_EQ(put2(plain()), row.answer) << row.treatment;
		EXPECT_EQ(socket.drain(), row.received) << row.treatment;
	}
}

TEST_F(Order, copies_go_to_everybody)
{
	Socket one = at(PACKET_COPY, all()), two = at(PACKET_COPY, all()),
	       three = at(PACKET_COPY, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kGoOn);
	EXPECT_EQ(one.drain() + two.drain() + three.drain(), 3u);
}

TEST_F(Order, a_fetch_takes_and_still_shares)
{
	Socket copy = at(PACKET_COPY, all()), fetch = at(PACKET_FETCH, all()),
	       other = at(PACKET_FETCH, all());
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(copy.drain(), 1u);
	EXPECT_EQ(fetch.drain(), 1u);
	EXPECT_EQ(other.drain(), 1u);
}

TEST_F(Order, a_trap_keeps_the_frame_to_itself_whenever_it_came)
{
	Socket before = at(PACKET_COPY, all()), fetch = at(PACKET_FETCH, all());
	Socket trap = at(PACKET_TRAP, all());
	Socket after = at(PACKET_COPY, all()), after_fetch = at(PACKET_FETCH, all());
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(trap.drain(), 1u);
	EXPECT_EQ(before.drain() + fetch.drain() + after.drain() + after_fetch.drain(), 0u);
}

TEST_F(Order, the_newest_trap_wins_and_the_older_one_inherits)
{
	Socket older = at(PACKET_TRAP, all()), newer = at(PACKET_TRAP, all());
	put2(plain());
	EXPECT_EQ(newer.drain(), 1u);
	EXPECT_EQ(older.drain(), 0u);
	newer.close();
	put2(plain());
	EXPECT_EQ(older.drain(), 1u);
}

TEST_F(Order, a_rule_change_makes_a_trap_the_newest)
{
	Socket older = at(PACKET_TRAP, all()), newer = at(PACKET_TRAP, all());
	ASSERT_EQ(older.add(all()), 0); // taken out and put back, with nothing changed
	put2(plain());
	EXPECT_EQ(older.drain(), 1u);
	EXPECT_EQ(newer.drain(), 0u);
}

TEST_F(Order, a_trap_that_does_not_match_stops_nothing)
{
	Socket copy = at(PACKET_COPY, all());
	Socket trap = at(PACKET_TRAP, ethertype(0x0806));
	EXPECT_EQ(put2(plain()), lab::kGoOn);
	EXPECT_EQ(copy.drain(), 1u);
	EXPECT_EQ(put2(arp(1)), lab::kTaken);
	EXPECT_EQ(trap.drain(), 1u);
	EXPECT_EQ(copy.drain(), 0u);
}

TEST_F(Order, the_first_key_by_type_decides_whether_the_frame_is_taken)
{
	// A copy on the packet code (type 0) is asked before a fetch on the EtherType (type 3): the frame goes on, and the
	// fetching socket receives it all the same.
	Socket fetch = at(PACKET_FETCH, ethertype(0x88b5));
	Socket copy = at(PACKET_COPY, rule(PACKET_PACKET_CODE_EQUAL, { Bytes{ 0, 0 } }));
	EXPECT_EQ(put2(plain()), lab::kGoOn);
	EXPECT_EQ(fetch.drain(), 1u);
	EXPECT_EQ(copy.drain(), 1u);
	copy.close();
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(fetch.drain(), 1u);
}

TEST_F(Order, a_trap_behind_a_later_key_still_ends_the_delivery)
{
	Socket trap = at(PACKET_TRAP, all());
	Socket copy = at(PACKET_COPY, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kGoOn) << "the EtherType's copy answers the fast filter";
	EXPECT_EQ(trap.drain(), 1u) << "and the trap is first in the walk";
	EXPECT_EQ(copy.drain(), 0u);
}

TEST_F(Order, under_one_key_traps_are_asked_before_fetches_before_copies)
{
	Socket copy = at(PACKET_COPY, ethertype(0x88b5));
	Socket fetch = at(PACKET_FETCH, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(fetch.drain() + copy.drain(), 2u);
	Socket trap = at(PACKET_TRAP, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(trap.drain(), 1u);
	EXPECT_EQ(fetch.drain() + copy.drain(), 0u);
}

TEST_F(Order, a_copy_whose_conditions_fail_leaves_the_next_copy_under_the_key_to_decide)
{
	Socket picky;
	ASSERT_EQ(picky.add(ethertype(0x88b5)), 0);
	ASSERT_EQ(picky.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortB })), 0);
	ASSERT_EQ(picky.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(picky.location(PACKET_LEV2_LOC), 0);
	Socket fetch = at(PACKET_FETCH, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(fetch.drain(), 1u);
	EXPECT_EQ(picky.drain(), 0u);
}

TEST_F(Order, two_sockets_share_a_key_and_only_the_leavers_copies_go)
{
	Socket one = at(PACKET_COPY, ethertype(0x88b5));
	Socket two = at(PACKET_FETCH, ethertype(0x88b5));
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries] + 1);
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies] + 2);
	two.close();
	now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries] + 1);
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies] + 1);
	EXPECT_EQ(put2(plain()), lab::kGoOn);
	EXPECT_EQ(one.drain(), 1u);
	one.close();
	now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries]);
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies]);
}

TEST_F(Order, a_key_item_of_three_values_is_filed_three_times)
{
	Socket one = at(PACKET_COPY, ethertype(0x0806));
	Socket three = at(PACKET_COPY, be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x88b5, 0x88cc }));
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries] + 3)
		<< "two new entries and one shared";
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies] + 4);
}

TEST_F(Order, local_treatments_lie_apart_and_do_not_hide_the_others)
{
	Socket local = at(PACKET_FETCH_LOCAL, ethertype(0x88b5));
	Socket copy = at(PACKET_COPY, ethertype(0x88b5));
	EXPECT_EQ(put2(plain()), lab::kGoOn);
	EXPECT_EQ(copy.drain(), 1u);
	EXPECT_EQ(local.drain(), 1u) << "the fast filter never asks it, the delivery walk does";
}

TEST_F(Order, fetching_locally_stands_first_and_splits_the_run_of_traps)
{
	// A fetch goes behind the leading traps. With a local fetch at the head there is no leading trap, so the fetch goes
	// before everything, an older trap included: it receives although the trap ends the walk.
	Socket trap = at(PACKET_TRAP, all());
	Socket local = at(PACKET_FETCH_LOCAL, all());
	Socket fetch = at(PACKET_FETCH, all());
	EXPECT_EQ(put2(plain()), lab::kTaken);
	EXPECT_EQ(fetch.drain(), 1u);
	EXPECT_EQ(local.drain(), 1u);
	EXPECT_EQ(trap.drain(), 1u);
}

TEST_F(Order, an_inactive_socket_keeps_the_hook_and_gets_nothing)
{
	Socket none = at(PACKET_TREATMENT_NONE, all());
	EXPECT_TRUE(lab::registered(Hook::Lev2));
	EXPECT_EQ(RuleRecords::read().data[contract::kLiveEntries],
		  records_.data[contract::kLiveEntries]);
	Socket copy = at(PACKET_COPY, all());
	put2(plain());
	EXPECT_EQ(copy.drain(), 1u);
	EXPECT_EQ(none.drain(), 0u);
}

TEST_F(Order, frames_keep_their_order_on_one_cpu)
{
	Socket socket = at(PACKET_COPY, all());
	for (uint32_t i = 0; i < 100; ++i) {
		lab::Frame frame = plain();
		frame.bytes[20] = uint8_t(i);
		lab::inject(Hook::Lev2, frame, 2);
	}
	ASSERT_TRUE(lab::settle());
	for (uint32_t i = 0; i < 100; ++i) {
		auto packet = socket.receive_now();
		ASSERT_TRUE(packet) << i;
		EXPECT_EQ(packet->bytes[20], uint8_t(i));
	}
}

} // namespace
