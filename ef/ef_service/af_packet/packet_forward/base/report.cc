// SPDX-License-Identifier: GPL-2.0
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

bool report_nearly_full()
{
	return report_staged() && g_file_bufflen > kNearlyFull;
}

} // namespace mox
