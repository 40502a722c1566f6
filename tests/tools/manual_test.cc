// SPDX-License-Identifier: GPL-2.0-only
/* The options of moxcap --help against those of the manual page. */
#include "options.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> options_of_help()
{
	const char *words[] = { "moxcap", "--help" };
	moxcap::Options options;
	auto ending = moxcap::read_options(
		2, words, [](const std::string &) { return 0u; }, options);
	std::set<std::string> found;
	if (!ending)
		return found;
	// An option's line begins with two blanks; the examples' lines are not those of options.
	std::istringstream lines(ending->text);
	for (std::string line; std::getline(lines, line);) {
		if (!line.starts_with("  -"))
			continue;
		auto at = line.find("--");
		auto end = at;
		while (end < line.size() &&
		       (line[end] == '-' || std::isalpha(static_cast<unsigned char>(line[end]))))
			++end;
		found.insert(line.substr(at, end - at));
	}
	return found;
}

std::set<std::string> options_of_manual()
{
	std::ifstream file(DOCS_DIR "/man/moxcap.1");
	EXPECT_TRUE(file);
	std::set<std::string> found;
	for (std::string line; std::getline(file, line);) {
		if (!line.starts_with(".It Fl "))
			continue;
		std::istringstream parts(line);
		std::string before, part;
		while (parts >> part) {
			if (before == "Fl" && part == "Fl" && parts >> part)
				found.insert("--" + part);
			before = part;
		}
	}
	return found;
}

TEST(manual, options__are_those_of_the_help)
{
	std::set<std::string> in_help = options_of_help();
	EXPECT_TRUE(in_help.contains("--location"));
	EXPECT_EQ(in_help, options_of_manual());
}

} // namespace
