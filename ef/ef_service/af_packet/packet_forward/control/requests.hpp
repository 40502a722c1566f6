// SPDX-License-Identifier: GPL-2.0
/*
 * The control unit: requests of operators over the generic netlink family, one
 * at a time, in the requester's context.
 */
#pragma once

#include "seam/seam_control.h"

extern "C" {
extern u8 mox_packet_msg_inited;
/* Requests that were long enough. Never reset. */
extern u32 g_packet_msg_recv;

/** Register the family, once. 0, or the kernel's negative errno after a log line. Process. */
int mox_packet_msg_init(void);
/** Unregister the family, if registered; waits for a request in progress. Process. */
void mox_packet_msg_deinit(void);

/**
 * Act on a request. The record may be written: MOX_DEBUG_HOOK_ALL leaves the
 * last hook's type in it. client is the port that the answer to MOX_MSG_TECH
 * goes to. 0, always. Process.
 */
int mox_packet_msg_deal(mox_packet_request *record, u32 client);
/** Send a client the answer that its dump is complete. 0, -ENOMEM or -1. Process. */
int pkt_ask_msg(u32 client);
}
