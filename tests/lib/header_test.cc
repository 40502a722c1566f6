// SPDX-License-Identifier: GPL-2.0-only
/* mox.h as a program in C uses it. */
#include "fixture.h"

extern "C" int use_in_c99(mox_socket *s);

namespace {

TEST_F(Handle, c99__a_daemon_receives_and_answers)
{
	make();
	mox_packet_ctrl_info record{};
	record.vlan = 0x123 << 4;
	calls.on_option = [&](const OptionCall &each) {
		if (each.option == PACKET_LOCATION)
			calls.queue({ { 1, 2, 3 }, record, {} });
	};
	ASSERT_EQ(use_in_c99(s), 0) << error();
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_EQ(calls.sent[0].bytes, (std::vector<std::uint8_t>{ 1, 2, 3 }));
	ASSERT_EQ(calls.sent[0].control.size(), 48u);
	EXPECT_EQ(calls.sent[0].control[18], 0x23);
	EXPECT_EQ(calls.sent[0].control[19], 0x01);
}

} // namespace
