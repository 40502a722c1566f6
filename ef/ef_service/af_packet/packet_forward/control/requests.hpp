// SPDX-License-Identifier: GPL-2.0-only
/*
 * The control unit: requests of operators over the generic netlink family, in the
 * requester's context. One at a time, and beside them one dump. A requester that
 * is killed while it waits for its turn gets -EINTR, and nothing was done; one
 * that is killed during a report ends it.
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
 * goes to. 0, or -EINTR. Process.
 */
int mox_packet_msg_deal(mox_packet_request *record, u32 client);
/** Send a client the answer that its dump is complete. 0, -ENOMEM or -1. Process. */
int pkt_ask_msg(u32 client);
}
