// SPDX-License-Identifier: GPL-2.0-only
// What tables make of text that others chose: process names above all.
#include "text_table.h"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace {

TEST(TextTable, printable_is_utf8_without_controls)
{
	const struct {
		std::string_view text, printed;
	} rows[] = {
		{ "dhcpd", "dhcpd" },
		{ "a\x1b[2J\n\x7f", "a\\x1b[2J\\x0a\\x7f" },
		{ "gr\xc3\xb6\xc3\x9f\x65", "gr\xc3\xb6\xc3\x9f\x65" },
		{ "\xe2\x82\xac \xf0\x9f\x93\xa6", "\xe2\x82\xac \xf0\x9f\x93\xa6" },
		{ "\x9b[2J", "\\x9b[2J" },          // CSI in one byte
		{ "\xc2\x9b[2J", "\\xc2\\x9b[2J" }, // and as UTF-8
		{ "\xc2\xa0", "\xc2\xa0" },         // the first behind the C1 controls
		{ "\xc7\x08", "\\xc7\\x08" },       // a lead without its second byte
		{ "\xc7", "\\xc7" },                // at the end
		{ "\xf0\x9f\x93", "\\xf0\\x9f\\x93" },
		{ "\xe2\x82\x41", "\\xe2\\x82\x41" },
		{ "\xc0\xaf", "\\xc0\\xaf" }, // too long for '/'
		{ "\xe0\x9f\xbf", "\\xe0\\x9f\\xbf" },
		{ "\xe0\xa0\x80", "\xe0\xa0\x80" },
		{ "\xed\x9f\xbf", "\xed\x9f\xbf" },
		{ "\xed\xa0\x80", "\\xed\\xa0\\x80" }, // a surrogate
		{ "\xf0\x8f\xbf\xbf", "\\xf0\\x8f\\xbf\\xbf" },
		{ "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf" },
		{ "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80" },
		{ "\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80" },
		{ std::string_view("a\0b", 3), "a\\x00b" },
	};
	for (const auto &row : rows)
		EXPECT_EQ(moxctl::printable(row.text), row.printed);
	// A long cell ends between two characters.
	for (std::size_t lead : { 28u, 29u, 30u, 31u }) {
		moxctl::TextTable table({ { "A" }, { "B" } });
		table.add(std::string(lead, 'x') + "\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac");
		table.add("b");
		std::string text;
		table.print(text, 0);
		const std::string cell = std::string(lead, 'x') +
					 (lead == 28 ? "\xe2\x82\xac+" : "+");
		EXPECT_NE(text.find("\n" + cell + " "), std::string::npos) << text;
	}
}

} // namespace
