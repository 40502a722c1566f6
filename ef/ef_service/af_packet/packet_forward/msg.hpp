// SPDX-License-Identifier: GPL-2.0
/*
 * The control unit: requests of operators over the generic netlink family, one
 * at a time, in the requester's context. It owns the debug switches.
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
/** MOX_MSG_DEBUG: turn a debug switch, or a hook. The record may be written. Any. */
void mox_packet_debug_msg_deal(mox_packet_request *record);
/**
 * Take a location's hook away (is_open not 0) or put it back, if its library
 * holds rules. body: debug type (19 to 26) and is_open, as a request has them
 * behind its head. What the platform answers, 0 for nothing to do. Any.
 */
int mox_packet_dereg_msg_deal(const u32 *body);
/** Tell a client that its dump is complete. 0, -ENOMEM or -1. Process. */
int pkt_ask_msg(u32 client);
}
