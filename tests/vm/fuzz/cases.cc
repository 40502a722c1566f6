// SPDX-License-Identifier: GPL-2.0-only
#include "cases.h"

#include <algorithm>
#include <optional>

namespace fuzz {

namespace {

const std::string kDigits = "0123456789abcdef";

std::optional<Case> case_of(const std::string &line, unsigned cpus)
{
	const size_t space = line.find(' ');
	const std::string digits = space == line.npos ? "" : line.substr(space + 1);
	unsigned cpu = 0;
	while (cpu < cpus && line.substr(0, space) != std::to_string(cpu))
		++cpu;
	if (space == line.npos || cpu == cpus || digits.size() % 2 ||
	    digits.find_first_not_of(kDigits) != digits.npos)
		return {};
	Case one{ cpu, {} };
	for (size_t at = 0; at < digits.size(); at += 2)
		one.bytes.push_back(
			uint8_t(kDigits.find(digits[at]) << 4 | kDigits.find(digits[at + 1])));
	return one;
}

} // namespace

std::string line_of(const Case &one)
{
	std::string text = std::to_string(one.cpu) + " ";
	for (uint8_t byte : one.bytes) {
		text += kDigits[byte >> 4];
		text += kDigits[byte & 15];
	}
	return text + "\n";
}

CaseFile read_cases(std::istream &in, unsigned cpus)
{
	constexpr size_t kMostText = 60;
	CaseFile file;
	size_t number = 0;
	for (std::string line; std::getline(in, line);) {
		++number;
		if (auto one = case_of(line, cpus)) {
			file.cases.push_back(std::move(*one));
			continue;
		}
		if (++file.bad <= CaseFile::kMostNamed)
			file.named.push_back("line " + std::to_string(number) + ": \"" +
					     line.substr(0, kMostText) +
					     (line.size() > kMostText ? "...\"" : "\""));
	}
	return file;
}

} // namespace fuzz
