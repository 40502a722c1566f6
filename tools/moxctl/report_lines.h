/* SPDX-License-Identifier: GPL-2.0-only */
/* Every line that a report can have: one table to recognize them among other log lines and to parse them. */
#ifndef MOXCTL_REPORT_LINES_H
#define MOXCTL_REPORT_LINES_H

#include <array>
#include <optional>
#include <span>
#include <string_view>

namespace moxctl {

enum class Line {
	kBlank,
	kQueueLocation,
	kQueueCpu,
	kSocketHead,
	kProcess,
	kVsd,
	kPid,
	kRunning,
	kCtrldata,
	kIfindex,
	kRegulars,
	kRuleType,
	kRuleData,
	kMoreData,
	kLocation,
	kTreatment,
	kCounter,
	kFilterCount,
	kMatchHead,
	kMatchProcess,
	kMatchTreatment,
	kMatchType,
	kMatchData,
	kMemoryHead,
	kMemoryCounter,
	kThreadHead,
	kThreadCounter,
	kProcessHead,
	kDumpBanner,
};

/** The kinds of report, as bits: which of them a line can be in. */
enum ReportKind : unsigned {
	report_rules = 1,
	report_queues = 2,
	report_memory = 4,
	report_thread = 8,
	report_process = 16,
	report_tech = 32, /**< the dump file */
};

/** The sections of the memory report, as bits. */
enum MemorySection : unsigned {
	section_rule_data = 1,
	section_items = 2,
	section_data = 4,
	section_skbs = 8,
};

/**
 * One form of line. In the format, %u is a number without a sign, %d one that may have it, %s any text, %r a rule
 * type, %v a rule value, %l a location, %t a treatment; the rest stands for itself. No form has more than two.
 */
struct LineForm {
	Line line;
	unsigned kinds; /**< bits of ReportKind */
	std::string_view format;
	std::string_view key; /**< of counters: the name in JSON */
	unsigned sections =
		0; /**< of the memory report: those that have the counter, or the one that the line heads */
};

/** A line taken apart. */
struct ScannedLine {
	const LineForm *form;
	std::array<std::string_view, 2> values; /**< what stood at the format's % places */
};

/** What a line of a report of these kinds is; nothing when it is none. */
std::optional<ScannedLine> scan_line(std::string_view line, unsigned kinds);

/**
 * Whether the text is the beginning of a line that the module prints in two calls, the label and the value: the
 * kernel log has a record for each.
 */
bool is_label(std::string_view text);

/** All forms of lines. */
std::span<const LineForm> line_forms();

} // namespace moxctl

#endif
