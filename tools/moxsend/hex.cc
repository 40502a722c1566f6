/* SPDX-License-Identifier: GPL-2.0-only */
#include "hex.h"

#include "mox/error.h"
#include "mox/hex_digit.h"

#include <cctype>

namespace moxsend {
namespace {

bool separates(char c)
{
	return c == ':' || c == '-' || c == '.' || std::isspace(static_cast<unsigned char>(c));
}

[[noreturn]] void refuse(std::string_view where, std::size_t at, const std::string &what)
{
	throw mox::UsageError(
		std::string(where) + ", column " + std::to_string(at + 1) + ": " + what +
		"; allowed: pairs of hexadecimal digits, with blanks, ':', '-' or '.' between them");
}

std::string shown(char c)
{
	return std::isprint(static_cast<unsigned char>(c)) ? "'" + std::string(1, c) + "'"
							   : "this character";
}

Bytes parse_pairs(std::string_view where, std::string_view text)
{
	Bytes bytes;
	for (std::size_t i = 0; i < text.size();) {
		if (separates(text[i])) {
			++i;
			continue;
		}
		int high = mox::hex_digit(text[i]);
		if (high < 0)
			refuse(where, i, shown(text[i]) + " is no hexadecimal digit");
		if (i + 1 == text.size() || separates(text[i + 1]))
			refuse(where, i, shown(text[i]) + " is half a byte");
		int low = mox::hex_digit(text[i + 1]);
		if (low < 0)
			refuse(where, i + 1, shown(text[i + 1]) + " is no hexadecimal digit");
		bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
		i += 2;
	}
	return bytes;
}

} // namespace

Bytes parse_hex(std::string_view where, std::string_view text)
{
	Bytes bytes = parse_pairs(where, text);
	if (bytes.empty())
		refuse(where, 0, "there is no byte");
	return bytes;
}

std::vector<Bytes> read_hex_lines(const std::string &name, std::istream &in)
{
	std::vector<Bytes> frames;
	std::string line;
	for (std::size_t number = 1; std::getline(in, line); ++number) {
		std::string_view text = std::string_view(line).substr(0, line.find('#'));
		Bytes frame = parse_pairs(name + ", line " + std::to_string(number), text);
		if (!frame.empty())
			frames.push_back(std::move(frame));
	}
	if (frames.empty())
		throw mox::UsageError(
			name + " holds no frame; allowed: one frame a line, in hexadecimal digits");
	return frames;
}

std::string to_hex(std::span<const std::uint8_t> bytes)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string text;
	text.reserve(2 * bytes.size());
	for (std::uint8_t byte : bytes) {
		text += digits[byte >> 4];
		text += digits[byte & 0xf];
	}
	return text;
}

} // namespace moxsend
