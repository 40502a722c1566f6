/* SPDX-License-Identifier: GPL-2.0-only */
#include "report_filter.h"

#include "report_lines.h"

#include <utility>

namespace moxctl {
namespace {

constexpr std::string_view kOpeningOfAny = "Deal message from ";

} // namespace

ReportFilter::ReportFilter(std::uint32_t port, unsigned kind)
	: opening_(std::string(kOpeningOfAny) + std::to_string(port) + ", "), kind_(kind)
{
}

void ReportFilter::take(const LogRecord &record)
{
	if (state_ == State::kInside && record.sequence > *next_sequence_)
		lost_ += record.sequence - *next_sequence_;
	next_sequence_ = record.sequence + 1;

	if (state_ == State::kBefore) {
		if (record.text.starts_with(opening_)) {
			state_ = State::kInside;
			first_ = record;
		}
		return;
	}
	if (state_ == State::kBehind || record.priority != first_.priority)
		return;
	if (record.text.starts_with(kOpeningOfAny)) {
		finish();
		state_ = State::kBehind;
		return;
	}
	if (record.caller == first_.caller)
		take_text(record.text);
}

void ReportFilter::take_text(std::string text)
{
	// Headings come with a line end before them. One within a line is part of a process name.
	if (!text.empty() && text[0] == '\n') {
		take_text("");
		take_text(text.substr(1));
		return;
	}
	if (label_) {
		std::string whole = *label_ + text;
		if (scan_line(whole, kind_)) {
			lines_.push_back(std::move(whole));
			label_.reset();
			return;
		}
		// A line of the report's that is no value: the label was a line by itself.
		if (scan_line(text, kind_) || is_label(text))
			finish();
	}
	if (is_label(text))
		label_ = std::move(text);
	else if (scan_line(text, kind_))
		lines_.push_back(std::move(text));
}

void ReportFilter::finish()
{
	if (label_)
		lines_.push_back(*std::exchange(label_, std::nullopt));
}

} // namespace moxctl
