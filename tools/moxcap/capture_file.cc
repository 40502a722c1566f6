/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_file.h"

#include <pcap/dlt.h>

#include <cerrno>
#include <cstring>

namespace moxcap {

void CaptureFile::fail_to_write(int error) const
{
	std::string text = "cannot write to " +
			   (path_ == "-" ? "standard output" : "\"" + path_ + "\"") + ": ";
	switch (error) {
	case EPIPE:
		throw FileError(text + "the program that reads the capture has ended");
	case ENOSPC:
	case EDQUOT:
		throw FileError(text + std::strerror(error) + " (is the disk full?)");
	default:
		throw FileError(text + std::strerror(error));
	}
}

void CaptureFile::fail_without_reader() const
{
	fail_to_write(EPIPE);
}

int link_type(Layout layout)
{
	switch (layout) {
	case Layout::kEthernet:
		return DLT_EN10MB;
	case Layout::kNetwork:
		return DLT_LINUX_SLL;
	case Layout::kWlan:
		return DLT_IEEE802_11;
	}
	return DLT_NULL;
}

} // namespace moxcap
