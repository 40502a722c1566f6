// SPDX-License-Identifier: GPL-2.0
/* The control unit, which owns the debug switches. */
#pragma once

#include "seam/seam.h"

extern "C" {
extern u8 mox_packet_msg_inited;

/** Bring the unit up, once. 0. Process. */
int mox_packet_msg_init(void);
/** Take the unit down, if up. Process. */
void mox_packet_msg_deinit(void);
}
