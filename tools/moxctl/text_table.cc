/* SPDX-License-Identifier: GPL-2.0-only */
#include "text_table.h"

#include <algorithm>
#include <cstdint>

namespace moxctl {

namespace {

/** The bytes of the UTF-8 character that text, not empty, begins with; 0 if it is none, or a control character. */
std::size_t character_length(std::string_view text)
{
	auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
	const unsigned char lead = byte(0);
	if (lead < 0x80)
		return lead >= ' ' && lead != 0x7f ? 1 : 0;
	const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
	if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
		return 0;
	for (std::size_t i = 1; i < length; ++i)
		if ((byte(i) & 0xc0) != 0x80)
			return 0;
	// Beyond the lead: C1 controls, forms that are too long, surrogates, what is above U+10FFFF.
	if ((lead == 0xc2 && byte(1) < 0xa0) || (lead == 0xe0 && byte(1) < 0xa0) ||
	    (lead == 0xed && byte(1) > 0x9f) || (lead == 0xf0 && byte(1) < 0x90) ||
	    (lead == 0xf4 && byte(1) > 0x8f))
		return 0;
	return length;
}

/** Cuts the text to so many bytes, or to fewer so that no character is cut. */
void shorten(std::string &text, std::size_t bytes)
{
	while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xc0) == 0x80)
		--bytes;
	text.resize(bytes);
}

} // namespace

std::string printable(std::string_view text)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string safe;
	safe.reserve(text.size());
	while (!text.empty()) {
		const std::size_t length = character_length(text);
		if (length != 0) {
			safe += text.substr(0, length);
		} else {
			auto byte = static_cast<unsigned char>(text[0]);
			safe += std::string("\\x") + digits[byte >> 4] + digits[byte & 15];
		}
		text.remove_prefix(std::max<std::size_t>(length, 1));
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
		shorten(cell, kWidestColumn - 1);
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
