// SPDX-License-Identifier: GPL-2.0
/* A socket in reports. */
#pragma once

#include "seam/seam.h"

extern "C" {
/**
 * The socket's report. Its rule stands still: the socket lock is held, or the
 * lock of the library that the rule is in. Any context.
 */
void mox_packet_sock_dump(mox_packet_sock *po);
}
