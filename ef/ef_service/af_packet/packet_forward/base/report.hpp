// SPDX-License-Identifier: GPL-2.0-only
/*
 * Where report lines go: to the kernel log, or, for the task that writes the
 * dump file, into a staging buffer that is written to the file where no lock is
 * held. A report is made of REPORT_LINE calls only.
 */
#pragma once

#include "base/log.hpp"
#include "seam/seam_control.h"

namespace mox {

/** Bytes of the staging buffer. What is staged is always less. */
inline constexpr u32 kStagingSize = 0x20000;

/** Bytes of the buffer for one line, its NUL included. */
inline constexpr u32 kLineSize = 128;

} // namespace mox

extern "C" {
extern u8 g_tech_dump;     /* 1 while a dump file is being written */
extern file *g_tech_filp;  /* the file */
extern char *g_file_buff;  /* the staging buffer, null outside a dump */
extern u32 g_file_bufflen; /* bytes staged */
extern char g_wbuf[mox::kLineSize];
}

namespace mox {

/** Send this task's report lines to a file through a zeroed buffer of kStagingSize bytes. Process. */
void report_begin_file(file *filp, char *buffer);
/** Write what is staged and send report lines to the log again; the caller frees both. Process. */
void report_end_file();

/**
 * Whether the caller's lines are staged. Only those of the task that writes the
 * file are: a socket report may run on another CPU meanwhile, and staging has
 * one writer.
 */
bool report_staged();
/** Stage the first len bytes of g_wbuf, or drop them all when there is no room. Any. */
void report_append(int len);

/**
 * A page of report lines: those of this task are collected while it lives, so that
 * what they report may be read under a lock, and printed at the end, where none is
 * held. One task at a time; the lines of others go where they go. Process.
 */
class ReportPage {
public:
	ReportPage();
	/** Print what was collected: to the log, or to the staging buffer. */
	~ReportPage();
	ReportPage(const ReportPage &) = delete;
	ReportPage &operator=(const ReportPage &) = delete;

	/** Whether so much is collected that the report should end the page: room is left for 32 lines. */
	static bool full();
};

/** Where a line of this task is formatted; null: it is printed at once. */
struct LineBuffer {
	char *at;
	u32 size;
};
LineBuffer report_line_buffer();
/** Keep a line of len characters that stands in the line buffer. */
void report_keep_line(int len);
/**
 * Write what is staged to the file, at its position. Does nothing when nothing
 * is. A write that fails loses what was staged. Process.
 */
void report_flush();
/** Whether so much is staged that a report should flush before it prints more. */
bool report_nearly_full();

} // namespace mox

/** A printf conversion for a text that fills a column of so many characters, which is a literal. */
#define MOX_COLUMN(width) MOX_COLUMN_OF(width)
#define MOX_COLUMN_OF(width) "%-" #width "s"

/**
 * A line of a report, with printk's formats. In the file a line is cut after
 * 127 characters, and dropped whole when it does not fit into the rest of the
 * staging buffer; a shorter one behind it may still fit. So it is on a page. Any.
 */
#define REPORT_LINE(format, ...)                                                                  \
	do {                                                                                      \
		const mox::LineBuffer line_ = mox::report_line_buffer();                          \
		if (line_.at)                                                                     \
			mox::report_keep_line(seam_scnprintf(line_.at, line_.size,                \
							     format __VA_OPT__(, ) __VA_ARGS__)); \
		else                                                                              \
			mox_printk(format __VA_OPT__(, ) __VA_ARGS__);                            \
	} while (0)
