// SPDX-License-Identifier: GPL-2.0-only
// moxsend: frames from any pcap file, and from any lines of hexadecimal digits.
#include <sstream>

#include <gtest/gtest.h>

#include "harness.h"
#include "hex.h"
#include "memory_file.h"
#include "mox/error.h"
#include "source.h"

namespace {

void read_file(const std::vector<uint8_t> &content)
{
	const MemoryFile file(content);
	try {
		moxsend::PcapSource source(file.path());
		size_t frames = 0;
		while (const auto frame = source.next()) {
			// A copy reads each byte.
			const moxsend::Bytes copy(frame->bytes.begin(), frame->bytes.end());
			EXPECT_EQ(copy.size(), frame->bytes.size());
			EXPECT_LT(++frames, content.size()) << "frames without bytes";
		}
	} catch (const moxsend::FileError &) {
	}
}

void read_lines(const std::vector<uint8_t> &content)
{
	std::istringstream in(std::string(content.begin(), content.end()));
	try {
		for (const moxsend::Bytes &frame : moxsend::read_hex_lines("case", in))
			EXPECT_EQ(moxsend::parse_hex("case", moxsend::to_hex(frame)), frame);
	} catch (const mox::UsageError &) {
	} catch (const moxsend::FileError &) {
	}
}

} // namespace

void fuzz_case(fuzz::Input input)
{
	const bool lines = input.below(2);
	(lines ? read_lines : read_file)(input.rest());
}
