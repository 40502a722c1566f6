/* SPDX-License-Identifier: GPL-2.0-only */
/* Tables for people: aligned columns of limited width. */
#ifndef MOXCTL_TEXT_TABLE_H
#define MOXCTL_TEXT_TABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace moxctl {

/**
 * Process names hold any bytes, and a terminal executes control characters, of one byte too: those, and what is not UTF-8,
 * become \xNN.
 */
std::string printable(std::string_view text);

/** Characters of a column at most, but of the last one; a longer cell ends in "+". */
inline constexpr std::size_t kWidestColumn = 32;

class TextTable {
public:
	enum class Align { kLeft, kRight };
	struct Column {
		std::string_view title;
		Align align = Align::kLeft;
	};

	explicit TextTable(std::vector<Column> columns);

	/** Starts a row; add fills its cells from the left. */
	void row();
	void add(std::string_view text);
	void add(std::uint64_t number);

	bool empty() const { return cells_.empty(); }
	/** Appends the heading and the rows, each after indent blanks. */
	void print(std::string &to, std::size_t indent = 0) const;

private:
	std::vector<Column> columns_;
	std::vector<std::size_t> widths_;
	std::vector<std::string> cells_; /**< row by row */
};

} // namespace moxctl

#endif
