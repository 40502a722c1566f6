/* SPDX-License-Identifier: GPL-2.0-only */
#include "text_table.h"

#include <algorithm>
#include <cstdint>

namespace moxctl {

std::string printable(std::string_view text)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string safe;
	safe.reserve(text.size());
	for (char c : text) {
		auto byte = static_cast<unsigned char>(c);
		if (byte >= ' ' && byte != 0x7f)
			safe += c;
		else
			safe += std::string("\\x") + digits[byte >> 4] + digits[byte & 15];
	}
	return safe;
}

TextTable::TextTable(std::vector<Column> columns) : columns_(std::move(columns))
{
	for (const Column &column : columns_)
		widths_.push_back(column.title.size());
}

void TextTable::row()
{
	// A row that was left short has empty cells.
	while (cells_.size() % columns_.size() != 0)
		cells_.emplace_back();
}

void TextTable::add(std::string_view text)
{
	std::size_t column = cells_.size() % columns_.size();
	std::string cell = printable(text);
	if (cell.size() > kWidestColumn && column + 1 < columns_.size()) {
		cell.resize(kWidestColumn - 1);
		cell += '+';
	}
	widths_[column] = std::max(widths_[column], cell.size());
	cells_.push_back(std::move(cell));
}

void TextTable::add(std::uint64_t number)
{
	add(std::to_string(number));
}

void TextTable::print(std::string &to, std::size_t indent) const
{
	auto line = [&](auto cell_of) {
		std::size_t start = to.size();
		to.append(indent, ' ');
		for (std::size_t i = 0; i < columns_.size(); ++i) {
			std::string_view cell = cell_of(i);
			std::size_t blanks = widths_[i] - std::min(widths_[i], cell.size());
			if (columns_[i].align == Align::kRight)
				to.append(blanks, ' ');
			to += cell;
			if (columns_[i].align == Align::kLeft)
				to.append(blanks, ' ');
			to += "  ";
		}
		while (to.size() > start && to.back() == ' ')
			to.pop_back();
		to += '\n';
	};
	line([&](std::size_t i) { return columns_[i].title; });
	for (std::size_t first = 0; first < cells_.size(); first += columns_.size())
		line([&](std::size_t i) {
			return first + i < cells_.size() ? std::string_view(cells_[first + i])
							 : std::string_view();
		});
}

} // namespace moxctl
