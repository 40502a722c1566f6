// SPDX-License-Identifier: GPL-2.0-only
/* The debug switches and the hook switch, as requests turn them. */
#pragma once

#include "seam/seam.h"

extern "C" {
/** MOX_MSG_DEBUG: turn a debug switch, or a hook. The record may be written. Any. */
void mox_packet_debug_msg_deal(mox_packet_request *record);
/**
 * Take a location's hook away (is_open not 0) or put it back, if its library
 * holds rules. body: debug type (19 to 26) and is_open, as a request has them
 * behind its head. What the platform answers, 0 for nothing to do. Any.
 */
int mox_packet_dereg_msg_deal(const u32 *body);
}
