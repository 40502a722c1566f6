// SPDX-License-Identifier: GPL-2.0-only
// The control interface's numbers by name, for people, and the parsing of what people type. Parsers throw Usage with a
// text that lists what is allowed.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace moxlab {

/// Something on the command line is wrong; what() says what and what would be right.
struct Usage : std::runtime_error {
	using std::runtime_error::runtime_error;
};

/// Names by number.
using Names = std::span<const std::string_view>;

extern const Names kPoints, kOutcomes, kFailCalls, kServiceOps, kRegCalls, kMisuseKinds, kTagModes;

/// The name, or the number as text when it has none.
std::string name_of(Names names, uint32_t number);

/// The number of a name; `what` ("point") goes into the error.
uint32_t number_of(Names names, std::string_view name, std::string_view what);

/// Decimal, or hexadecimal with 0x, within the bounds.
uint64_t parse_number(std::string_view text, std::string_view what, uint64_t max);
/// As parse_number with a sign.
int32_t parse_signed(std::string_view text, std::string_view what);
/// "aa:bb:cc:dd:ee:ff" into 6 bytes.
void parse_mac(std::string_view text, uint8_t *mac);
/// Hex digits, blanks, colons and dots between bytes allowed.
std::vector<uint8_t> parse_hex(std::string_view text);
/// An interface index: a number, or the name of a network device of this machine.
uint32_t parse_interface(const std::string &text);

std::string format_mac(const uint8_t *mac);
std::string format_hex(std::span<const uint8_t> bytes);

} // namespace moxlab
