/* SPDX-License-Identifier: GPL-2.0-only */
/* The records between preload and relay: their layout does not depend on the word length of the machine. */
#include "wire.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace {

static_assert(sizeof(mox_wire_frame) == 56);
static_assert(offsetof(mox_wire_frame, address) == 18);
static_assert(offsetof(mox_wire_frame, network) == 26);
static_assert(offsetof(mox_wire_frame, status) == 28);
static_assert(offsetof(mox_wire_frame, vlan_tci) == 36);
static_assert(offsetof(mox_wire_frame, seconds) == 40);
static_assert(sizeof(mox_wire_request) == 24);
static_assert(sizeof(mox_wire_reply) == 16);

TEST(CompatWire, requests__have_room_for_a_frame_and_for_a_filter)
{
	EXPECT_GE(MOX_WIRE_MAX_REQUEST, MOX_WIRE_MAX_FRAME);
	EXPECT_GE(MOX_WIRE_MAX_REQUEST, 4096u * 8);
}

} // namespace
