// SPDX-License-Identifier: GPL-2.0-only
/* The reports on locations and on rule memory. */
#pragma once

#include "seam/seam.h"

extern "C" {
/** The report of location index + 1 (index 0 to 7): queues, sockets, filter list. Process. */
void mox_packet_show_regular(u32 index);
/** Every key of a library with the rules that share it. Process. */
void pkt_show_filter_list(packet_regular_lib *lib);
/** The fill of a location's (1 to 8) queue on every present CPU. Any. */
void mox_packet_show_cpu_queue(u32 location);
/** The sockets of one process at a location (1 to 8): kind 11 by name, kind 12 by pid. Process. */
void mox_packet_show_regular_spec(u32 kind, u32 location, const char *name, s32 pid);

/** Counters of rule memory and of socket buffers. Any. */
void mox_packet_dump_mem(void);
void mox_packet_regular_data_mem_dump(void);
void mox_packet_dump_item_mem(void);
void mox_packet_dump_data_mem(void);
}
