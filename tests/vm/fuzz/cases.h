// SPDX-License-Identifier: GPL-2.0-only
// The file of cases that a run writes and another one plays again: a line "CPU HEX" for each, in the order of their play.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace fuzz {

struct Case {
	unsigned cpu = 0;
	std::vector<uint8_t> bytes;
};

struct CaseFile {
	std::vector<Case> cases;
	/// The first lines that are no case, by number and text, kMostNamed at most.
	std::vector<std::string> named;
	/// How many lines are no case.
	size_t bad = 0;

	static constexpr size_t kMostNamed = 10;
};

/// The line of a case, with its newline. A case without bytes has no digits.
std::string line_of(const Case &one);

/// Reads lines until the end. CPU is one of 0 to cpus - 1.
CaseFile read_cases(std::istream &in, unsigned cpus);

} // namespace fuzz
