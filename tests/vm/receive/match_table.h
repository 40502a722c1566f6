// SPDX-License-Identifier: GPL-2.0-only
// Rows of "this rule, this frame, that answer", and the two ways in which every row is tried.
#pragma once

#include "support/fixture.h"

namespace vm {

struct MatchRow {
	const char *what;
	Rule rule;
	lab::Frame frame;
	bool key;   ///< the fast filter lets the frame pass on this rule as a key
	bool match; ///< the whole rule matches, so that a socket receives
};

/// A row whose key test and rule match agree, as all but a few do.
inline MatchRow row(const char *what, Rule rule, lab::Frame frame, bool match)
{
	return { what, std::move(rule), std::move(frame), match, match };
}

/// Tries every row with the rule as the only one of a fetching socket (it becomes the key), and behind PACKET_ALL (it
/// becomes a condition of the match copy). Fetching shows the fast filter's answer by itself: the frame is taken or not.
void try_rows(uint32_t location, lab::Hook hook, const std::vector<MatchRow> &rows);

} // namespace vm
