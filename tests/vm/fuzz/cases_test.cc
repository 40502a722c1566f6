// SPDX-License-Identifier: GPL-2.0-only
// The file of cases: what is written is read again, and a line that is no case is named.
#include "cases.h"

#include <sstream>

#include <gtest/gtest.h>

namespace {

using fuzz::Case;

fuzz::CaseFile read(const std::string &text)
{
	std::istringstream in(text);
	return fuzz::read_cases(in, 4);
}

TEST(FuzzCases, what_is_written_is_read_again)
{
	const Case cases[] = { { 0, { 0x00, 0xff } }, { 3, {} }, { 2, { 0x7a } }, { 1, {} } };
	std::string text;
	for (const Case &one : cases)
		text += fuzz::line_of(one);
	EXPECT_EQ(text, "0 00ff\n3 \n2 7a\n1 \n");
	const auto file = read(text);
	EXPECT_EQ(file.bad, 0u);
	ASSERT_EQ(file.cases.size(), std::size(cases));
	for (size_t n = 0; n < std::size(cases); ++n) {
		EXPECT_EQ(file.cases[n].cpu, cases[n].cpu) << n;
		EXPECT_EQ(file.cases[n].bytes, cases[n].bytes) << n;
	}
}

TEST(FuzzCases, a_line_that_is_no_case_is_named)
{
	// The last one as a machine that stopped leaves it.
	const char *const lines[] = { "",    "00ff",  " 00ff", "4 00",    "-1 00", "0 0g",
				      "0 0", "0 00 ", "0  00", "1x 00ff", "0" };
	for (const char *line : lines) {
		const auto file = read(std::string("1 ab\n") + line + "\n2 cd\n");
		EXPECT_EQ(file.bad, 1u) << '"' << line << '"';
		ASSERT_EQ(file.named.size(), 1u);
		EXPECT_EQ(file.named[0], std::string("line 2: \"") + line + '"');
		EXPECT_EQ(file.cases.size(), 2u);
	}
}

TEST(FuzzCases, many_bad_lines_are_counted_and_the_first_ones_named)
{
	std::string text;
	for (int n = 0; n < 30; ++n)
		text += std::string(300, 'x') + "\n";
	const auto file = read(text);
	EXPECT_EQ(file.bad, 30u);
	ASSERT_EQ(file.named.size(), fuzz::CaseFile::kMostNamed);
	EXPECT_EQ(file.named[0], "line 1: \"" + std::string(60, 'x') + "...\"");
}

} // namespace
