// SPDX-License-Identifier: GPL-2.0
#include "msg.hpp"

#include "log.hpp"

extern "C" {
constinit u8 mox_packet_debug[19]{};
constinit u8 mox_packet_msg_inited = 0;

int mox_packet_msg_init(void)
{
	mox_packet_msg_inited = 1;
	return 0;
}

void mox_packet_msg_deinit(void)
{
	mox_packet_msg_inited = 0;
}
}
