// SPDX-License-Identifier: GPL-2.0
/* A rule in reports. The rule stands still: the socket lock or its library's lock is held. */
#pragma once

#include "seam/seam.h"

extern "C" {
/** The lines for every type of a rule, its location and its treatment. Any context. */
void mox_packet_dump_regular(const packet_regular *regular);
/** The line for a rule type, and the one for a value of it. Any context. */
void mox_packet_dump_regular_type(u32 type);
void mox_packet_dump_regular_data(u32 type, const u8 *value);
}
