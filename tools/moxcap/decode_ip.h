/* SPDX-License-Identifier: GPL-2.0-only */
/* The decoder's half for IPv4 and IPv6, and what both halves share. All may throw CutShort. */
#ifndef MOXCAP_DECODE_IP_H
#define MOXCAP_DECODE_IP_H

#include "reader.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace moxcap {

/**
 * Replace nothing, append to text: the packet in a few words. text ends with the protocol's name ("IPv4") and
 * keeps it only where no better name follows.
 */
void decode_ipv4(const Reader &packet, std::string &text);
void decode_ipv6(const Reader &packet, std::string &text);

/** A 4-byte address. */
std::string shown_ipv4(std::span<const std::uint8_t> address);

/** The name of a value, or "kind N". */
std::string name_or_number(std::span<const mox::NamedValue> names, std::string_view kind,
			   std::uint32_t value);

/** Text from a frame, with '.' for what is not printable ASCII: it is printed to a terminal. */
std::string printable(std::span<const std::uint8_t> text);

} // namespace moxcap

#endif
