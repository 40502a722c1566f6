// SPDX-License-Identifier: GPL-2.0-only
#include "base/report.hpp"

#include "base/sync.hpp"

extern "C" {
constinit u8 g_tech_dump = 0;
constinit file *g_tech_filp = nullptr;
constinit char *g_file_buff = nullptr;
constinit u32 g_file_bufflen = 0;
constinit char g_wbuf[mox::kLineSize]{};
}

namespace mox {
namespace {

/* The task that writes the dump file, 0 outside a dump. Only that task touches the variables above. */
constinit s32 g_tech_task = 0;

constexpr u32 kPageSize = 8192;
constexpr u32 kPageReserve = 32 * kLineSize;

/** Lines that wait for the end of a page, each with its NUL, and the task whose page it is. */
struct Page {
	s32 task;
	u32 used;
	char lines[kPageSize];
};

/* Of the report to the log, and of the one to the dump file: each has one task at a time. */
constinit Page g_pages[2]{};

Page *page_of_report()
{
	return &g_pages[report_staged() ? 1 : 0];
}

/** The page that lines of this task go to, or null. */
Page *open_page()
{
	Page *page = page_of_report();

	return load(page->task) != 0 && load(page->task) == seam_current_pid() ? page : nullptr;
}

/* A quarter is kept free for the lines up to the next check of the fill. */
constexpr u32 kNearlyFull = kStagingSize / 4 * 3;

} // namespace

void report_begin_file(file *filp, char *buffer)
{
	g_tech_filp = filp;
	g_file_buff = buffer;
	g_file_bufflen = 0;
	store(g_tech_task, seam_current_pid());
	store(g_tech_dump, u8{ 1 });
}

void report_end_file()
{
	report_flush();
	store(g_tech_dump, u8{ 0 });
	store(g_tech_task, 0);
	g_file_bufflen = 0;
	g_file_buff = nullptr;
	g_tech_filp = nullptr;
}

bool report_staged()
{
	return load(g_tech_dump) && load(g_tech_task) == seam_current_pid() && g_file_buff;
}

void report_append(int len)
{
	u32 bytes = static_cast<u32>(len);

	if (g_file_bufflen + bytes >= kStagingSize)
		return;
	__builtin_memcpy(g_file_buff + g_file_bufflen, g_wbuf, bytes);
	g_file_bufflen += bytes;
}

void report_flush()
{
	if (!report_staged() || g_file_bufflen == 0)
		return;
	seam_file_write(g_tech_filp, g_file_buff, g_file_bufflen);
	g_file_bufflen = 0;
}

ReportPage::ReportPage()
{
	Page *page = page_of_report();

	page->used = 0;
	store(page->task, seam_current_pid());
}

ReportPage::~ReportPage()
{
	Page *page = page_of_report();

	store(page->task, 0);
	for (u32 at = 0; at < page->used;) {
		const char *line = page->lines + at;
		u32 len = static_cast<u32>(__builtin_strlen(line));
		if (report_staged()) {
			__builtin_memcpy(g_wbuf, line, len);
			report_append(static_cast<int>(len));
		} else {
			mox_printk("%s", line);
		}
		at += len + 1;
	}
	page->used = 0;
}

bool ReportPage::full()
{
	const Page *page = open_page();

	return page && page->used > kPageSize - kPageReserve;
}

LineBuffer report_line_buffer()
{
	if (Page *page = open_page()) {
		/* A line that does not fit is cut, or dropped: reports ask full() in time. */
		u32 room = kPageSize - page->used;
		return { page->lines + page->used, room < kLineSize ? room : kLineSize };
	}
	if (report_staged())
		return { g_wbuf, sizeof(g_wbuf) };
	return { nullptr, 0 };
}

void report_keep_line(int len)
{
	Page *page = open_page();

	if (!page)
		report_append(len);
	else if (page->used + static_cast<u32>(len) + 1 < kPageSize)
		page->used += static_cast<u32>(len) + 1;
}

bool report_nearly_full()
{
	return report_staged() && g_file_bufflen > kNearlyFull;
}

} // namespace mox
