/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_file.h"

#include "common/output.h"

#include <pcap/dlt.h>

#include <cerrno>

namespace moxcap {

void CaptureFile::fail_to_write(int error) const
{
	std::string file = path_ == "-" ? "standard output" : "\"" + path_ + "\"";
	if (error == EPIPE)
		throw FileError("cannot write to " + file +
				": the program that reads the capture has ended");
	throw FileError(tool::write_failure(file, error));
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
