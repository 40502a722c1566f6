/* SPDX-License-Identifier: GPL-2.0-only */
#include "frames.h"

namespace {

int nibble(char c)
{
	return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

} // namespace

std::vector<std::uint8_t> from_hex(std::string_view hex)
{
	std::vector<std::uint8_t> bytes;
	int high = -1;
	for (char c : hex) {
		if (c == ' ')
			continue;
		if (high < 0) {
			high = nibble(c);
		} else {
			bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble(c)));
			high = -1;
		}
	}
	return bytes;
}
