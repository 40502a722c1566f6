// SPDX-License-Identifier: GPL-2.0-only
#include "base/numbers.hpp"

void saw(Seen &seen)
{
	seen.times += 1;
}

int clamp(int value, int most)
{
	if (value < 0)
		return 0;
	return value > most ? most : value;
}

unsigned int digits(unsigned int value)
{
	unsigned int count = 1;
	while (value >= 10) {
		value /= 10;
		count++;
	}
	return count;
}

bool holds(const char *bytes, unsigned int size, char wanted)
{
	for (unsigned int i = 0; i < size; i++)
		if (bytes[i] == wanted)
			return true;
	return false;
}
