/* SPDX-License-Identifier: MIT */
#include "relay/config.h"

#include "mox/error.h"
#include "mox/names.h"
#include "mox_packet.h"

#include <fnmatch.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace relay {
namespace {

/** The settings as texts, before defaults; empty: not set. */
struct Words {
	bool off = false;
	std::string locations, treatment, interfaces;
	std::vector<std::string> rules;
};

constexpr std::string_view kAllowed = "off, location=, treatment=, interfaces= and rule=";
constexpr std::string_view kBlanks = " \t\r";

std::vector<std::string> split(std::string_view text, std::string_view separators)
{
	std::vector<std::string> words;
	while (true) {
		const std::size_t begin = text.find_first_not_of(separators);
		if (begin == std::string_view::npos)
			return words;
		text.remove_prefix(begin);
		const std::size_t end = std::min(text.find_first_of(separators), text.size());
		words.emplace_back(text.substr(0, end));
		text.remove_prefix(end);
	}
}

std::optional<std::string> value_of(std::string_view word, std::string_view key)
{
	if (word.substr(0, key.size()) != key)
		return std::nullopt;
	return std::string(word.substr(key.size()));
}

/** Adds a word of a line. Throws ConfigError without the place. */
void take_word(const std::string &word, Words &words)
{
	struct Row {
		std::string_view key;
		std::string Words::*text;
	};
	static constexpr Row rows[] = {
		{ "location=", &Words::locations },
		{ "treatment=", &Words::treatment },
		{ "interfaces=", &Words::interfaces },
	};

	if (word == "off") {
		words.off = true;
		return;
	}
	if (auto rule = value_of(word, "rule=")) {
		words.rules.push_back(*rule);
		return;
	}
	for (const Row &row : rows) {
		if (auto value = value_of(word, row.key)) {
			if (!(words.*row.text).empty())
				throw ConfigError(std::string(row.key) + " is given twice");
			if (value->empty())
				throw ConfigError(std::string(row.key) + " has no value");
			words.*row.text = *value;
			return;
		}
	}
	throw ConfigError("unknown setting '" + word + "'; the settings are " +
			  std::string(kAllowed));
}

/**
 * The library's text in one line: of the rows that list what is allowed, which are indented, only the names.
 */
std::string in_one_line(const std::string &text)
{
	std::string line;
	for (const std::string &row : split(text, "\n")) {
		if (row.front() != ' ')
			line += (line.empty() ? "" : " ") + row;
		else
			line += " " + split(row, kBlanks).front();
	}
	return line;
}

/** Checks the texts and makes settings of them. Throws ConfigError without the place. */
Settings settings_of(const Words &words, const mox::InterfaceLookup &lookup)
{
	Settings settings;
	settings.native = words.off;
	try {
		for (const std::string &each : split(words.locations, ","))
			settings.locations.push_back(mox::parse_location(each));
		settings.treatment = words.treatment.empty()
					     ? static_cast<std::uint32_t>(PACKET_COPY)
					     : mox::parse_treatment(words.treatment);
		for (const std::string &each : words.rules)
			settings.rules.push_back(mox::Rule::parse(each, lookup));
	} catch (const mox::UsageError &error) {
		throw ConfigError(in_one_line(error.what()));
	}
	if (settings.locations.empty())
		settings.locations.push_back(PACKET_LEV2_LOC);
	if (settings.locations.size() > kMaxLocations)
		throw ConfigError("more than " + std::to_string(kMaxLocations) + " locations");
	if (settings.rules.size() > kMaxRules)
		throw ConfigError("more than " + std::to_string(kMaxRules) + " rules");
	if (!words.interfaces.empty() && words.interfaces != "any" && words.interfaces != "bound")
		throw ConfigError("interfaces is 'any' or 'bound', not '" + words.interfaces + "'");
	settings.any_interface = words.interfaces == "any";
	return settings;
}

/** What a line of the file says; nothing for an empty one. */
struct Line {
	std::string pattern;
	Words words;
};

std::optional<Line> parse_line(std::string_view text)
{
	text = text.substr(0, text.find('#'));
	std::vector<std::string> words = split(text, kBlanks);
	if (words.empty())
		return std::nullopt;
	Line line{ words.front(), {} };
	if (line.pattern.find('=') != std::string::npos)
		throw ConfigError("a line begins with the program's name, not with '" +
				  line.pattern + "'");
	for (std::size_t i = 1; i < words.size(); ++i)
		take_word(words[i], line.words);
	return line;
}

/** The variables override what the file says. */
void take_environment(const Environment &environment, Words &words)
{
	auto value = [&](const char *name) -> std::optional<std::string> {
		const char *text = environment(name);
		if (!text || !*text)
			return std::nullopt;
		return text;
	};
	if (auto text = value("MOX_COMPAT")) {
		if (*text != "on" && *text != "off")
			throw ConfigError("MOX_COMPAT is 'on' or 'off', not '" + *text + "'");
		words.off = *text == "off";
	}
	if (auto text = value("MOX_LOCATION"))
		words.locations = *text;
	if (auto text = value("MOX_TREATMENT"))
		words.treatment = *text;
	if (auto text = value("MOX_INTERFACES"))
		words.interfaces = *text;
	if (auto text = value("MOX_RULES"))
		words.rules = split(*text, kBlanks);
}

} // namespace

Settings parse_settings(std::string_view program, std::string_view text, std::string_view path,
			const Environment &environment, const mox::InterfaceLookup &lookup)
{
	std::optional<Words> words;
	std::string place;
	std::size_t number = 0;

	// Interfaces of rules are looked up for the line that counts only: those of other programs may not be there.
	const auto any_interface = [](const std::string &) -> std::uint32_t { return 1; };
	for (std::size_t begin = 0; begin <= text.size();) {
		const std::size_t end = std::min(text.find('\n', begin), text.size());
		const std::string at = std::string(path) + ":" + std::to_string(++number) + ": ";
		try {
			auto line = parse_line(text.substr(begin, end - begin));
			if (line) {
				settings_of(line->words, any_interface);
				if (!words && fnmatch(line->pattern.c_str(),
						      std::string(program).c_str(), 0) == 0) {
					words = line->words;
					place = at;
				}
			}
		} catch (const ConfigError &error) {
			throw ConfigError(at + error.what());
		}
		begin = end + 1;
	}

	Words all = words.value_or(Words{});
	try {
		settings_of(all, lookup);
	} catch (const ConfigError &error) {
		throw ConfigError(place + error.what());
	}
	try {
		take_environment(environment, all);
		return settings_of(all, lookup);
	} catch (const ConfigError &error) {
		throw ConfigError(std::string("environment: ") + error.what());
	}
}

Settings load_settings(std::string_view program, const Environment &environment,
		       const mox::InterfaceLookup &lookup)
{
	const char *named = environment("MOX_COMPAT_CONF");
	const bool required = named && *named;
	const std::string path = required ? named : kConfigPath;

	std::string text;
	const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "re"),
								    std::fclose);
	if (!file) {
		if (required || errno != ENOENT)
			throw ConfigError(path + ": " + std::strerror(errno));
	} else {
		text.resize(kMaxConfigBytes + 1);
		text.resize(std::fread(text.data(), 1, text.size(), file.get()));
		if (std::ferror(file.get()))
			throw ConfigError(path + ": cannot be read");
		if (text.size() > kMaxConfigBytes)
			throw ConfigError(path + ": longer than " +
					  std::to_string(kMaxConfigBytes) + " bytes");
	}
	return parse_settings(program, text, path, environment, lookup);
}

} // namespace relay
