// SPDX-License-Identifier: GPL-2.0-only
// The reserved-multicast location: a receive function answers the other way round, and three locations share one library.
#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;
using Resv = VmTest;

Frame to(uint32_t block)
{
	Frame frame = plain(0x88cc);
	frame.dst_ifx = block;
	return frame;
}

TEST_F(Resv, taking_is_0_and_everything_else_is_minus_1)
{
	Socket socket = capture(PACKET_RESV_LOC, PACKET_FETCH, ethertype(0x88cc));
	EXPECT_EQ(put(Hook::Resv, plain(0x88cc)), lab::kResvTaken);
	EXPECT_TRUE(socket.receive());
	EXPECT_EQ(put(Hook::Resv, plain(0x88cd)), lab::kResvGoOn) << "no rule";
	ASSERT_EQ(socket.treatment(PACKET_TRAP), 0);
	EXPECT_EQ(put(Hook::Resv, plain(0x88cc)), lab::kResvTaken);
	EXPECT_TRUE(socket.receive());
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	EXPECT_EQ(put(Hook::Resv, plain(0x88cc)), lab::kResvGoOn) << "copied";
	EXPECT_TRUE(socket.receive());
	lab::fail(lab::Fail::Clone, 1);
	EXPECT_EQ(put(Hook::Resv, plain(0x88cc)), lab::kResvGoOn) << "clone failed";
	EXPECT_FALSE(socket.receive_now());
}

TEST_F(Resv, three_locations_share_one_registration)
{
	Socket one = capture(PACKET_RESV_LOC, PACKET_COPY, all());
	EXPECT_EQ(lab::registrations(), 1u);
	Socket two = capture(PACKET_LEV2_RESV_LOC, PACKET_COPY, all());
	Socket three = capture(PACKET_LEV3_RESV_LOC, PACKET_COPY, all());
	EXPECT_EQ(lab::registrations(), 1u);
	one.close();
	two.close();
	EXPECT_TRUE(lab::registered(Hook::Resv));
	three.close();
	EXPECT_FALSE(lab::registered(Hook::Resv));
}

TEST_F(Resv, each_location_sees_the_frames_of_its_interface)
{
	struct Row {
		uint32_t location, block;
		bool taken;
	};
	for (Row row : { Row{ PACKET_RESV_LOC, 0, true },
			 { PACKET_RESV_LOC, lab::kLev2Resv, true },
			 { PACKET_RESV_LOC, lab::kLev3Resv, true },
			 { PACKET_RESV_LOC, lab::kPortB, true },
			 { PACKET_LEV2_RESV_LOC, lab::kLev2Resv, true },
			 { PACKET_LEV2_RESV_LOC, lab::kLev3Resv, false },
			 { PACKET_LEV2_RESV_LOC, 0, false },
			 { PACKET_LEV2_RESV_LOC, lab::kPortB, false },
			 { PACKET_LEV3_RESV_LOC, lab::kLev3Resv, true },
			 { PACKET_LEV3_RESV_LOC, lab::kLev2Resv, false },
			 { PACKET_LEV3_RESV_LOC, 0, false } }) {
		Socket socket = capture(row.location, PACKET_FETCH, ethertype(0x88cc));
		EXPECT_EQ(put(Hook::Resv, to(row.block)),
			  row.taken ? lab::kResvTaken : lab::kResvGoOn)
			<< row.location << " " << row.block;
		EXPECT_EQ(socket.receive_now().has_value(), row.taken)
			<< row.location << " " << row.block;
	}
}

TEST_F(Resv, a_missing_reserved_interface_equals_a_missing_destination)
{
	// Both are null pointers then, and null equals null.
	lab::remove_interface(lab::kLev2Resv);
	Socket socket = capture(PACKET_LEV2_RESV_LOC, PACKET_FETCH, ethertype(0x88cc));
	EXPECT_EQ(put(Hook::Resv, to(0)), lab::kResvTaken);
	EXPECT_TRUE(socket.receive());
	EXPECT_EQ(put(Hook::Resv, to(lab::kPortB)), lab::kResvGoOn);
}

TEST_F(Resv, delivery_tests_the_interface_again_socket_by_socket)
{
	Socket any = capture(PACKET_RESV_LOC, PACKET_COPY, ethertype(0x88cc));
	Socket lev2 = capture(PACKET_LEV2_RESV_LOC, PACKET_COPY, ethertype(0x88cc));
	Socket lev3 = capture(PACKET_LEV3_RESV_LOC, PACKET_COPY, ethertype(0x88cc));
	put(Hook::Resv, to(lab::kLev2Resv));
	EXPECT_EQ(any.drain(), 1u);
	EXPECT_EQ(lev2.drain(), 1u);
	EXPECT_EQ(lev3.drain(), 0u);
	put(Hook::Resv, to(0));
	EXPECT_EQ(any.drain(), 1u);
	EXPECT_EQ(lev2.drain(), 0u);
	EXPECT_EQ(lev3.drain(), 0u);
}

TEST_F(Resv, a_trap_at_another_interface_does_not_stop_the_walk)
{
	Socket copy = capture(PACKET_RESV_LOC, PACKET_COPY, ethertype(0x88cc));
	Socket trap = capture(PACKET_LEV3_RESV_LOC, PACKET_TRAP, ethertype(0x88cc));
	EXPECT_EQ(put(Hook::Resv, to(lab::kLev2Resv)), lab::kResvGoOn) << "the copy decides";
	EXPECT_EQ(copy.drain(), 1u);
	EXPECT_EQ(put(Hook::Resv, to(lab::kLev3Resv)), lab::kResvTaken);
	EXPECT_EQ(trap.drain(), 1u);
	EXPECT_EQ(copy.drain(), 0u);
}

TEST_F(Resv, neither_drop_service_nor_forward_reason_are_touched)
{
	Socket socket = capture(PACKET_RESV_LOC, PACKET_FETCH, ethertype(0x88cc));
	lab::set_rnfp(false, 1);
	lab::set_rnfp(true, 1);
	EXPECT_EQ(put(Hook::Resv, plain(0x88cc)), lab::kResvTaken);
	EXPECT_EQ(lab::rnfp_calls(false) + lab::rnfp_calls(true), 0u);
	EXPECT_EQ(lab::last_forward_reason(), 0);
	EXPECT_TRUE(socket.receive());
	lab::set_rnfp(false, -1);
	lab::set_rnfp(true, -1);
}

} // namespace
