// SPDX-License-Identifier: GPL-2.0
/*
 * Where report lines go: to the kernel log, or, for the task that writes the
 * dump file, into a staging buffer that is written to the file where no lock is
 * held. A report is made of REPORT_LINE calls only.
 */
#pragma once

#include "log.hpp"
#include "seam/seam_control.h"

/** Bytes of the staging buffer. What is staged is always less. */
inline constexpr u32 kStagingSize = 0x20000;

/** Bytes of the buffer for one line, its NUL included. */
inline constexpr u32 kLineSize = 128;

extern "C" {
extern u8 g_tech_dump;       /* 1 while a dump file is being written */
extern file *g_tech_filp;    /* the file */
extern char *g_file_buff;    /* the staging buffer, null outside a dump */
extern u32 g_file_bufflen;   /* bytes staged */
extern char g_wbuf[kLineSize];
}

/** Send this task's report lines to a file through a zeroed buffer of kStagingSize bytes. Process. */
void report_begin_file(file *filp, char *buffer);
/** Write what is staged and send report lines to the log again; the caller frees both. Process. */
void report_end_file();

/**
 * Whether the caller's lines are staged. Only those of the task that writes the
 * file are: a socket may be asked for its report meanwhile, on another CPU, and
 * staging knows one writer.
 */
bool report_staged();
/** Stage the first len bytes of g_wbuf, or drop them all when there is no room. Any. */
void report_append(int len);
/**
 * Write what is staged to the file, at its position. Does nothing when nothing
 * is. A write that fails loses what was staged. Process.
 */
void report_flush();
/** Whether staging has come so far that a walk had better stop for a flush. */
bool report_nearly_full();

/**
 * A line of a report, with printk's formats. In the file a line is cut after
 * 127 characters, and dropped whole when it does not fit into the rest of the
 * staging buffer; a shorter one behind it may still fit. Any.
 */
#define REPORT_LINE(format, ...)                                               \
	do {                                                                   \
		if (report_staged())                                           \
			report_append(seam_scnprintf(g_wbuf, sizeof(g_wbuf),   \
						     format __VA_OPT__(, )     \
							     __VA_ARGS__));    \
		else                                                           \
			mox_printk(format __VA_OPT__(, ) __VA_ARGS__);         \
	} while (0)

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

/** Every report, into the dump file of the caller's vsd. Process. */
void pkt_tech_msg_deal(void);
}
