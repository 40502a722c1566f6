/* SPDX-License-Identifier: MIT */
/* One hexadecimal digit. */
#ifndef MOX_HEX_DIGIT_H
#define MOX_HEX_DIGIT_H

namespace mox {

/** The value of a digit of either case; -1 for any other character. */
constexpr int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	if (c >= 'a' && c <= 'f')
		return c - 'a' + 10;
	if (c >= 'A' && c <= 'F')
		return c - 'A' + 10;
	return -1;
}

} // namespace mox

#endif
