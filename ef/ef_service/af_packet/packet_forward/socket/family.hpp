// SPDX-License-Identifier: GPL-2.0-only
/* The family unit, and a packet socket's life: create, release, destructor. */
#pragma once

#include "seam/seam.h"

extern "C" {
/* Socket buffers freed by readers and at release. */
extern u32 g_free_skb_num;
extern u8 mox_packet_family_init_ok;

/** Register the protocol, the family and the namespace operations, once. 0 or a negative errno. */
int mox_packet_family_init(void);
/** Take all three back, if registered. No socket is left by then: each holds the module. */
void mox_packet_family_deinit(void);
u8 mox_packet_family_had_init(void);
}
