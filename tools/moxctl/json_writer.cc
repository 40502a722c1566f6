/* SPDX-License-Identifier: GPL-2.0-only */
#include "json_writer.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace moxctl {

void JsonWriter::new_line()
{
	if (style_ == Style::kCompact)
		return;
	to_ += '\n';
	to_.append(2 * filled_.size(), ' ');
}

void JsonWriter::separate()
{
	if (after_key_) {
		after_key_ = false;
		return;
	}
	if (filled_.empty())
		return;
	if (filled_.back())
		to_ += ',';
	filled_.back() = true;
	new_line();
}

void JsonWriter::begin(char bracket)
{
	separate();
	to_ += bracket;
	filled_.push_back(false);
}

void JsonWriter::end(char bracket)
{
	bool filled = filled_.back();
	filled_.pop_back();
	if (filled)
		new_line();
	to_ += bracket;
	if (spill_ && to_.size() > kPart)
		spill_(to_);
}

void JsonWriter::key(std::string_view name)
{
	separate();
	to_ += '"';
	to_ += name;
	to_ += style_ == Style::kCompact ? "\":" : "\": ";
	after_key_ = true;
}

void JsonWriter::text(std::string_view value)
{
	separate();
	bool plain = std::all_of(value.begin(), value.end(), [](char c) {
		return c >= ' ' && c < 0x7f && c != '"' && c != '\\';
	});
	if (plain) {
		to_ += '"';
		to_ += value;
		to_ += '"';
		return;
	}
	to_ += nlohmann::json(std::string(value))
		       .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

void JsonWriter::boolean(bool value)
{
	separate();
	to_ += value ? "true" : "false";
}

void JsonWriter::null()
{
	separate();
	to_ += "null";
}

} // namespace moxctl
