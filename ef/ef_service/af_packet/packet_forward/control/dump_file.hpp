// SPDX-License-Identifier: GPL-2.0-only
/* The dump file: every report of every location in one file, for support to collect. */
#pragma once

extern "C" {
/** Every report, into the dump file of the caller's vsd. Process. */
void pkt_tech_msg_deal(void);
}
