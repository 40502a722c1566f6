/* SPDX-License-Identifier: GPL-2.0-only */
/* The manual's table of limits against the code. */
#include "preload/ask.h"
#include "preload/ring.h"
#include "preload/say.h"
#include "preload/start.h"
#include "preload/table.h"
#include "relay/config.h"
#include "relay/interfaces.h"
#include "relay/relay.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

TEST(CompatLimits, manual__has_the_numbers_of_the_code)
{
	std::ifstream file(DOCS_DIR "/man/libmox-compat.7");
	std::stringstream whole;
	whole << file.rdbuf();
	const std::string text = whole.str();
	const auto number = [](auto value) { return std::to_string(value); };
	const struct {
		std::string what, limit;
	} rows[] = {
		{ "copies of their descriptors in a process\nT}|", number(MOX_MAX_SOCKETS) + "|" },
		{ "number of such a descriptor|below ", number(MOX_MAX_DESCRIPTORS) + "|" },
		{ "locations of a socket|", number(relay::kMaxLocations) + "|" },
		{ "additional rules of a socket|", number(relay::kMaxRules) + "|" },
		{ "length of the file|", number(relay::kMaxConfigBytes) + " bytes|" },
		{ "frames that wait in the descriptor|T{\n",
		  number(relay::kChannelBytes) + " bytes" },
		{ "one frame|", number(MOX_WIRE_MAX_FRAME) + " bytes|" },
		{ "buffers of a receive or a send|", number(MOX_MAX_PARTS) + "|" },
		{ "a ring|", number(MOX_MAX_RING >> 20) + " MiB|" },
		{ "PACKET_RESERVE|", number(MOX_MAX_RESERVE) + " bytes|" },
		{ "looked at for rings\nT}|", number(MOX_MAX_POLLED) + "|" },
		{ "instructions of a filter|", number(BPF_MAXINSNS) + "|" },
		{ "wait for the relay's answer|", number(MOX_WIRE_REPLY_MS / 1000) + " s|" },
		{ "interfaces that are known by address|", number(relay::kMaxInterfaces) + "|" },
		{ "lines on standard error of a process|", number(MOX_MAX_LINES) + "|" },
		{ "environment of the relay|", number(MOX_MAX_VARIABLES) + " variables|" },
	};
	for (const auto &row : rows)
		EXPECT_NE(text.find(row.what + row.limit), std::string::npos)
			<< row.what << row.limit;
}

} // namespace
