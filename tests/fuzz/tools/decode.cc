// SPDX-License-Identifier: GPL-2.0-only
// moxcap: what any bytes of a frame are described as, and the text that is printed of them.
#include <gtest/gtest.h>

#include "format.h"
#include "harness.h"
#include "printable.h"

void fuzz_case(fuzz::Input input)
{
	const auto layout = static_cast<moxcap::Layout>(input.below(3));
	const auto ether_type = input.number<uint16_t>();
	mox_packet_ctrl_info control{};
	const bool with_control = input.below(2);
	if (with_control) {
		const auto bytes = input.bytes(sizeof control);
		std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t *>(&control));
	}
	std::vector<uint8_t> frame = input.rest();
	frame.shrink_to_fit();
	const moxcap::Description description = moxcap::describe(frame, layout, ether_type);
	EXPECT_FALSE(description.protocol.empty());
	EXPECT_LT(description.protocol.size(), 4096u);
	moxcap::Line line;
	line.interface = "port1";
	line.description = &description;
	line.length = line.captured = frame.size();
	line.control = with_control ? &control : nullptr;
	expect_printable(moxcap::format_line(line));
	expect_printable(moxcap::format_hex(frame));
}
