/* SPDX-License-Identifier: GPL-2.0-only */
/* Frames written out in hexadecimal digits. */
#ifndef MOXSEND_HEX_H
#define MOXSEND_HEX_H

#include "protocols.h"

#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace moxsend {

/**
 * The bytes of digit pairs, with blanks, ':', '-' or '.' allowed between pairs. `where` begins the text of an
 * error ("--hex"). Throws UsageError that names the column, counted from 1, also when there is no byte at all.
 */
Bytes parse_hex(std::string_view where, std::string_view text);

/**
 * One frame a line, as parse_hex reads them; empty lines and what follows a '#' are ignored. Throws UsageError
 * that names line and column, and when there is no frame at all.
 */
std::vector<Bytes> read_hex_lines(const std::string &name, std::istream &in);

/** Digit pairs without anything between them, which is what both above read. */
std::string to_hex(std::span<const std::uint8_t> bytes);

} // namespace moxsend

#endif
