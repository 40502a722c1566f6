// SPDX-License-Identifier: GPL-2.0-only
#include "control/dump_file.hpp"

#include "base/owned.hpp"
#include "base/report.hpp"
#include "control/reports.hpp"
#include "locations/table.hpp"
#include "services/vsd.hpp"

namespace mox {
namespace {

/* Bytes of the buffer for the file's path. */
constexpr u32 kFilePathSize = 128;

void write_reports()
{
	REPORT_LINE("**************** AF-PACKET DUMP REGULAR START ****************\n");
	for (u32 index = 0; index < kLastLocation; index++) {
		if (seam_fatal_signal_pending())
			return;
		mox_packet_show_regular(index);
		REPORT_LINE("\n");
	}
	REPORT_LINE("**************** AF-PACKET DUMP REGULAR END ****************\n");
	REPORT_LINE("\n");
	REPORT_LINE("**************** AF-PACKET DUMP MEM START ****************\n");
	mox_packet_dump_mem();
	REPORT_LINE("**************** AF-PACKET DUMP MEM END ****************\n");
	REPORT_LINE("\n");
}

/**
 * Whether the dump may be written into an opened file, which is empty then. A
 * FIFO or a device is refused, and so is a file with a second name: it may be
 * one of another directory. Nothing is truncated before that is known.
 */
bool prepare_file(file *filp)
{
	if (!seam_file_is_regular(filp) || seam_file_links(filp) != 1)
		return false;
	/* A new file, of mode 0, is empty, and its owner has no right to truncate it by name. */
	return seam_file_empty(filp) || seam_file_truncate(filp) == 0;
}

void write_file(file *filp)
{
	Owned<void, seam_vfree> buffer(seam_vzalloc(kStagingSize));
	if (!buffer) {
		MOX_DEBUG("Vmalloc file buff failed.\n");
		return;
	}
	report_begin_file(filp, static_cast<char *>(buffer.get()));
	write_reports();
	report_end_file();
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" void pkt_tech_msg_deal(void)
{
	char path[kFilePathSize];
	seam_scnprintf(path, sizeof(path), MOX_PACKET_DUMP_FILE, static_cast<int>(current_vsd()));
	/* Opened with the caller's credentials. The directory is not created here. */
	Owned<file, seam_file_close> filp(seam_file_open(path));
	if (!filp || !prepare_file(filp.get())) {
		MOX_DEBUG("Failed to open file: %s.\n", path);
		return;
	}
	write_file(filp.get());
}
