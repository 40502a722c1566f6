// SPDX-License-Identifier: GPL-2.0-only
/* What --help says against what the manual page says. */
#include "options.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string help_of(std::vector<const char *> words)
{
	words.insert(words.begin(), "moxctl");
	words.push_back("--help");
	moxctl::Options options;
	auto ending = moxctl::read_options(
		static_cast<int>(words.size()), words.data(),
		[](const std::string &) { return 0u; }, options);
	return ending ? ending->text : std::string();
}

std::vector<std::string> lines_of(std::istream &from)
{
	std::vector<std::string> lines;
	for (std::string line; std::getline(from, line);)
		lines.push_back(line);
	return lines;
}

std::vector<std::string> manual_lines()
{
	std::ifstream file(DOCS_DIR "/man/moxctl.1");
	EXPECT_TRUE(file);
	return lines_of(file);
}

/** The words of a text, in lower case, one blank between them and around them. */
std::string words_of(const std::string &text)
{
	std::string words = " ";
	for (char c : text) {
		if (std::isalnum(static_cast<unsigned char>(c)))
			words += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
		else if (words.back() != ' ')
			words += ' ';
	}
	return words.back() == ' ' ? words : words + ' ';
}

/** The manual's words; of a line with macros what the macros print. */
std::string manual_words()
{
	static const std::set<std::string> kMacros = { "Cm", "Ar", "Fl", "Pq", "Ns", "Dv",
						       "Li", "Ql", "Sx", "Pa", "Va", "Sy" };
	std::string text;
	for (const std::string &line : manual_lines()) {
		std::istringstream parts(line.starts_with('.') ? line.substr(1) : line);
		std::string part;
		for (bool first = line.starts_with('.'); parts >> part; first = false)
			if (!first && !(line.starts_with('.') && kMacros.contains(part)))
				text += part + " ";
			else if (first && part == "Nm")
				text += "moxctl ";
	}
	return words_of(text);
}

TEST(ctl_manual, examples__of_the_help_are_the_manuals)
{
	std::vector<std::string> in_help, in_manual;
	std::istringstream help(help_of({}));
	for (const std::string &line : lines_of(help))
		if (line.starts_with("  moxctl "))
			in_help.push_back(line.substr(2));
	for (const std::string &line : manual_lines())
		if (line.starts_with(".Dl "))
			in_manual.push_back(line.substr(4));
	EXPECT_FALSE(in_help.empty());
	EXPECT_EQ(in_help, in_manual);
}

TEST(ctl_manual, sentences__of_the_help_about_hooks_and_the_filter_are_the_manuals)
{
	struct {
		std::vector<const char *> command;
		const char *sentence;
	} const cases[] = {
		{ { "hook", "off" }, "frames pass the location by, and none is captured there" },
		{ { "hook", "off" },
		  "The hook stays away until \"hook on\", or until a socket comes, goes or changes its rule "
		  "there" },
		{ { "hook", "on" }, "if a socket has rules at its location" },
		{ { "filter", "set" }, "a packet matches if it satisfies every criterion" },
		{ { "filter", "set" },
		  "the filter prints nothing and hides nothing: only the platform's trace mark makes a frame "
		  "leave lines" },
	};
	std::string manual = manual_words();
	for (const auto &each : cases) {
		EXPECT_NE(words_of(help_of(each.command)).find(words_of(each.sentence)),
			  std::string::npos)
			<< "help: " << each.sentence;
		EXPECT_NE(manual.find(words_of(each.sentence)), std::string::npos)
			<< "manual: " << each.sentence;
	}
}

TEST(ctl_manual, options__of_every_command_are_in_the_manual)
{
	const std::vector<const char *> commands[] = {
		{ "show", "rules" },
		{ "show", "queues" },
		{ "show", "memory" },
		{ "show", "thread" },
		{ "show", "process" },
		{ "debug", "on" },
		{ "debug", "off" },
		{ "hook", "on" },
		{ "hook", "off" },
		{ "filter", "set" },
		{ "filter", "off" },
		{ "tech" },
		{ "show", "sockets" },
		{ "show", "losses" },
		{ "watch" },
		{ "metrics" },
		{ "trace" },
		{ "restrict", "on" },
		{ "restrict", "off" },
		{ "restrict", "status" },
		{ "info" },
	};
	std::set<std::string> documented;
	for (const std::string &line : manual_lines()) {
		std::istringstream parts(line.starts_with('.') ? line.substr(1) : line);
		std::string before, part;
		while (parts >> part) {
			if (before == "Fl" && part == "Fl" && parts >> part)
				documented.insert("--" + part);
			before = part;
		}
	}
	for (const auto &command : commands) {
		std::istringstream help(help_of(command));
		for (std::string word; help >> word;) {
			auto at = word.find("--");
			if (at == std::string::npos || word == "--help" ||
			    word.find("--help") != std::string::npos)
				continue;
			std::string option = word.substr(at);
			while (!std::isalnum(static_cast<unsigned char>(option.back())))
				option.pop_back();
			EXPECT_TRUE(documented.contains(option)) << option;
		}
	}
}

} // namespace
