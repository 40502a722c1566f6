// SPDX-License-Identifier: GPL-2.0-only
/*
 * docs/troubleshooting.md: the table of reasons against the one that moxctl prints from, and the commands that lead to
 * them against those that the scene of the demo runs.
 */
#include "capture_reasons.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
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

/** The command behind "1. `", "2. `" and so on, in the section "Where did my frame go?". */
std::vector<std::string> numbered_commands()
{
	std::ifstream file(DOCS_DIR "/troubleshooting.md");
	EXPECT_TRUE(file);
	std::vector<std::string> commands;
	bool inside = false;
	for (std::string line; std::getline(file, line);) {
		if (line.starts_with("## "))
			inside = line == "## Where did my frame go?";
		const std::string begin = std::to_string(commands.size() + 1) + ". `";
		if (inside && line.starts_with(begin))
			commands.push_back(line.substr(begin.size(), line.find('`', begin.size()) -
									     begin.size()));
	}
	return commands;
}

/** Commands of the rows "| `moxctl ...` |", without the number of the process. */
std::vector<std::string> example_commands()
{
	std::vector<std::string> commands;
	for (const std::string &row : table_below("| command | what it shows |"))
		commands.push_back(row.substr(3, row.find('`', 3) - 3));
	return commands;
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

TEST(ctl_docs, where_did_my_frame_go__are_the_commands_of_the_demo)
{
	std::ifstream file(DOCS_DIR "/../lab/scene/run");
	ASSERT_TRUE(file);
	const std::string scene((std::istreambuf_iterator<char>(file)), {});
	const std::vector<std::string> commands = numbered_commands();
	ASSERT_EQ(commands.size(), 3u);
	const std::vector<std::string> examples = example_commands();
	ASSERT_EQ(examples.size(), commands.size());
	std::size_t at = 0;
	for (std::size_t i = 0; i < commands.size(); ++i) {
		SCOPED_TRACE(examples[i]);
		EXPECT_TRUE(examples[i].starts_with(commands[i]));
		// The scene's own function runs moxctl, and the process has another number there.
		std::string words = examples[i].substr(std::string("moxctl ").size());
		words = words.substr(0, words.find(" 412"));
		const std::size_t run = scene.find(words, at);
		ASSERT_NE(run, std::string::npos);
		const std::string claim = "claim \"" + std::to_string(i + 1) + ". " + commands[i] +
					  ":";
		at = scene.find(claim, run);
		ASSERT_NE(at, std::string::npos) << claim;
	}
}

} // namespace
