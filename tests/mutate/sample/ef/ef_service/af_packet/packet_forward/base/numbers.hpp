// SPDX-License-Identifier: GPL-2.0-only
#pragma once

/** For the compiler alone: a mutant breaks the assertion. */
constexpr bool is_even(unsigned int number)
{
	return number % 2 == 0;
}
static_assert(is_even(4) && !is_even(5));

/** A bit-field: nothing can refer to one. */
struct Seen {
	unsigned int times : 4 = 0;
};

void saw(Seen &seen);
int clamp(int value, int most);
unsigned int digits(unsigned int value);
bool holds(const char *bytes, unsigned int size, char wanted);
