// SPDX-License-Identifier: GPL-2.0
/* The service unit: the platform's services that the module uses. */
#pragma once

#include "seam/seam.h"

extern "C" {
extern u8 mox_packet_serv_inited;

/** Bring the unit up, once. 0. Process. */
int mox_packet_serv_init(void);
/** Take the unit down, if up. Process. */
void mox_packet_serv_deinit(void);
}
