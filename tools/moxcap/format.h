/* SPDX-License-Identifier: GPL-2.0-only */
/* The text that moxcap prints. Every function returns whole lines, the last one ended, so that one write of the
 * result keeps lines together when several captures share a terminal. */
#ifndef MOXCAP_FORMAT_H
#define MOXCAP_FORMAT_H

#include "decode.h"
#include "mox/capture_socket.h"
#include "options.h"

#include <ctime>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace moxcap {

/** The content of a frame's line. */
struct Line {
	timespec time{};        /**< since the epoch; shown as local time of day */
	std::string_view label; /**< stands in brackets in front, unless empty */
	std::string_view interface;
	const Description *description = nullptr;
	std::size_t length = 0;                        /**< of the whole frame */
	std::size_t captured = 0;                      /**< bytes that were read of it */
	const mox_packet_ctrl_info *control = nullptr; /**< null when there is none */
};

std::string format_line(const Line &line);

/** 16 bytes a line with offset, hexadecimal and ASCII. */
std::string format_hex(std::span<const std::uint8_t> bytes);

/** The VLANs of a control record, ", " before each; empty if there are none. */
std::string format_vlan(const mox_packet_ctrl_info &control);

/** The flag word's names with blanks between them; bits without a name as one hexadecimal number. */
std::string format_flags(std::uint32_t flags);

/** The line that a capture begins with. */
std::string format_opening(const Options &options);

/** The result of a capture. */
struct Counters {
	std::uint64_t captured = 0;  /**< frames read and shown */
	std::uint64_t truncated = 0; /**< of these, cut to the snapshot length */
	std::uint64_t matched =
		0; /**< frames that the module queued for the socket or had to drop */
	std::uint64_t dropped = 0; /**< of these, dropped */
};

/** For people. */
std::string format_summary(std::string_view label, const Counters &counters);
/** For scripts: name=value words. */
std::string format_counters(std::string_view label, const Counters &counters);

} // namespace moxcap

#endif
