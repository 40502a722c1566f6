// SPDX-License-Identifier: GPL-2.0
/* The dump file: every report of every location in one file, for support to collect. */
#include "report.hpp"
#include "vsd.hpp"

namespace {

/* Bytes of the path's buffer. */
constexpr u32 kPathSize = 128;

void write_reports()
{
	REPORT_LINE("**************** AF-PACKET DUMP REGULAR START ****************\n");
	for (u32 index = 0; index < PACKET_WLAN_LOC; index++) {
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

void write_file(file *filp)
{
	auto *buffer = static_cast<char *>(seam_vzalloc(kStagingSize));
	if (!buffer) {
		MOX_DEBUG("Vmalloc file buff failed.\n");
		return;
	}
	report_begin_file(filp, buffer);
	write_reports();
	report_end_file();
	seam_vfree(buffer);
}

} // namespace

extern "C" void pkt_tech_msg_deal(void)
{
	char path[kPathSize];
	seam_scnprintf(path, sizeof(path), MOX_PACKET_DUMP_FILE, static_cast<int>(current_vsd()));
	/* In the name of the caller, and with its rights. The directory is not made here. */
	file *filp = seam_file_open(path);
	if (!filp) {
		MOX_DEBUG("Failed to open file: %s.\n", path);
		return;
	}
	write_file(filp);
	seam_file_close(filp);
}
