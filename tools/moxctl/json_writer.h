/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * JSON as text, written from front to back. A report on ten thousand sockets has a million values: a tree of them first
 * would take more time than everything else.
 */
#ifndef MOXCTL_JSON_WRITER_H
#define MOXCTL_JSON_WRITER_H

#include <charconv>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace moxctl {

class JsonWriter {
public:
	/** Lines: one value a line, indented by two. Compact: no line end. */
	enum class Style { kLines, kCompact };

	/** Takes a part of the text away, and clears it. */
	using Spill = std::function<void(std::string &)>;

	/** Appends to what is in to. */
	explicit JsonWriter(std::string &to, Style style = Style::kLines) : to_(to), style_(style)
	{
	}
	/** Calls spill whenever the text is longer than kPart; its end remains in to. */
	JsonWriter(std::string &to, Spill spill)
		: to_(to), style_(Style::kLines), spill_(std::move(spill))
	{
		to_.reserve(kPart + kPart / 4);
	}

	/** Objects and arrays; each begin has its end. An object needs a key before each value. */
	void begin_object() { begin('{'); }
	void end_object() { end('}'); }
	void begin_array() { begin('['); }
	void end_array() { end(']'); }
	/** The names of members: printable ASCII without quotes and backslashes. */
	void key(std::string_view name);

	/** A string of any bytes; those that are not UTF-8 are replaced. */
	void text(std::string_view value);
	template <typename Number> void number(Number value)
	{
		static_assert(std::is_arithmetic_v<Number>);
		separate();
		if constexpr (std::is_integral_v<Number>) {
			char digits[24];
			auto end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
			to_.append(digits, end);
		} else {
			to_ += std::to_string(value);
		}
	}
	void boolean(bool value);
	void null();

	/** A member of an object. */
	template <typename Value> void member(std::string_view name, Value value)
	{
		key(name);
		if constexpr (std::is_same_v<Value, bool>)
			boolean(value);
		else if constexpr (std::is_arithmetic_v<Value>)
			number(value);
		else
			text(value);
	}

private:
	static constexpr std::size_t kPart = 64 << 10;

	void separate();
	void begin(char bracket);
	void end(char bracket);
	void new_line();

	std::string &to_;
	Style style_;
	Spill spill_;
	std::vector<bool> filled_; /**< of each open object or array */
	bool after_key_ = false;
};

} // namespace moxctl

#endif
