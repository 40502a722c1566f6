/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Picks the report of one request out of the kernel log.
 *
 * The module opens every request with a line that holds the requester's netlink port, which is unique: the
 * report begins behind it, and ends at the latest where the next request begins. In between, a record is the
 * report's when it came with the same priority (and caller, where the kernel is built to record callers) as that line
 * and reads like a line of such a report.
 */
#ifndef MOXCTL_REPORT_FILTER_H
#define MOXCTL_REPORT_FILTER_H

#include "kernel_log.h"

#include <string>
#include <vector>

namespace moxctl {

class ReportFilter {
public:
	/** port: of the socket that sends the request; kind: the ReportKind asked for. */
	ReportFilter(std::uint32_t port, unsigned kind);

	/** The next record, in the order of the log. */
	void take(const LogRecord &record);
	/** Records were overwritten before they could be read; the next one's sequence number shows how many. */
	void overwritten() { overwritten_ = true; }
	/** No more records follow. */
	void finish();

	/** Whether the request's opening line has come. */
	bool begun() const { return state_ != State::kBefore; }
	/** Whether the log lost records, of the report's or before it. */
	bool was_overwritten() const { return overwritten_; }
	/** Records that the log lost behind the opening line. */
	std::uint64_t lost() const { return lost_; }
	/** The report's lines, labels and values put together, without line ends. */
	const std::vector<std::string> &lines() const { return lines_; }

private:
	void take_text(std::string text);

	enum class State { kBefore, kInside, kBehind };

	std::string opening_;
	unsigned kind_;
	State state_ = State::kBefore;
	LogRecord first_; /**< the opening line: whose the report is */
	std::optional<std::uint64_t> next_sequence_;
	std::uint64_t lost_ = 0;
	bool overwritten_ = false;
	std::optional<std::string> label_; /**< waits for its value */
	std::vector<std::string> lines_;
};

} // namespace moxctl

#endif
