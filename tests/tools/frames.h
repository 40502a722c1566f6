/* SPDX-License-Identifier: GPL-2.0-only */
/* Frames written out in hexadecimal, as they would be on the wire, with what the decoder says to them. */
#ifndef FRAMES_H
#define FRAMES_H

#include "decode.h"

#include <cstdint>
#include <string_view>
#include <vector>

struct SampleFrame {
	const char *name;
	moxcap::Layout layout;
	std::uint16_t ether_type;
	std::string_view hex; /**< blanks are left out */
	const char *protocol;
};

std::vector<std::uint8_t> from_hex(std::string_view hex);

/** A DHCP message behind Ethernet, IPv4 and UDP headers, with these options (in hexadecimal). */
std::vector<std::uint8_t> dhcp_frame(std::string_view options);

extern const std::vector<SampleFrame> sample_frames;

#endif
