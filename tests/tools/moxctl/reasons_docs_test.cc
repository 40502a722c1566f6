// SPDX-License-Identifier: GPL-2.0
/* The table of reasons in docs/troubleshooting.md against the one that moxctl prints from. */
#include "capture_reasons.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

/** The lines of the table whose heading this is. */
std::vector<std::string> table_below(const std::string &heading)
{
	std::ifstream file(DOCS_DIR "/troubleshooting.md");
	EXPECT_TRUE(file);
	std::vector<std::string> rows;
	bool inside = false;
	for (std::string line; std::getline(file, line);) {
		if (inside && !line.starts_with("| "))
			break;
		if (inside && !line.starts_with("| ---"))
			rows.push_back(line);
		inside = inside || line == heading;
	}
	return rows;
}

std::string code(const std::string &name)
{
	return name.empty() ? "-" : "`" + name + "`";
}

TEST(ctl_docs, reasons__are_those_that_moxctl_prints)
{
	std::vector<std::string> expected;
	for (const moxctl::ReasonRow &row : moxctl::capture_reasons()) {
		std::string verdict;
		if (row.verdict != 0)
			verdict = moxctl::lower_name(
				moxctl::capture_verdicts()[row.verdict - 1].name);
		expected.push_back("| " + code(row.counter()) + " | " + code(verdict) + " | " +
				   std::string(row.meaning()) + " | " + std::string(row.remedy) +
				   " |");
	}
	EXPECT_EQ(table_below("| counter | verdict | reason | remedy |"), expected);
}

} // namespace
