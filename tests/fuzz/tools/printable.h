// SPDX-License-Identifier: GPL-2.0-only
// What programs print of foreign bytes controls no terminal.
#pragma once

#include <string_view>

#include <gtest/gtest.h>

inline void expect_printable(std::string_view text)
{
	for (char c : text)
		if (c != '\n' && (c < ' ' || c > '~'))
			ADD_FAILURE()
				<< "byte " << int(static_cast<unsigned char>(c)) << " in " << text;
}
