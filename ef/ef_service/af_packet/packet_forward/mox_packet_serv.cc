// SPDX-License-Identifier: GPL-2.0
#include "serv.hpp"

#include "receive.hpp"
#include "sync.hpp"

extern "C" {
constinit u8 mox_packet_serv_inited = 0;

int mox_packet_serv_init(void)
{
	mox_packet_serv_inited = 1;
	return 0;
}

void mox_packet_serv_deinit(void)
{
	if (!mox_packet_serv_inited)
		return;
	/* Hooks read these once each: a null pointer is an absent service. */
	store(pkt_rnfp, pkt_rnfp_func{ nullptr });
	store(pkt_rnfp_wlan, pkt_rnfp_func{ nullptr });
	mox_packet_serv_inited = 0;
}
}
