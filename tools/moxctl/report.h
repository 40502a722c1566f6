/* SPDX-License-Identifier: GPL-2.0-only */
/* The content of a report. */
#ifndef MOXCTL_REPORT_H
#define MOXCTL_REPORT_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace moxctl {

/** A rule type and its values as printed, without the blanks at their ends. */
struct RuleData {
	std::string type;
	std::vector<std::string> values;
};

/** Counters by the name that they have in JSON, in the report's order. */
using Counters = std::vector<std::pair<std::string, std::int64_t>>;

struct Socket {
	std::string process;
	std::uint32_t vsd = 0;
	std::int32_t pid = 0;
	bool running = false;
	bool control_data = false;
	std::uint32_t interface = 0;
	std::vector<RuleData> rules;
	std::string location, treatment;
	Counters counters;
};

/** A socket that shares an entry of the filter list. */
struct Match {
	std::string process, treatment;
	std::vector<RuleData> rules;
};

struct FilterEntry {
	RuleData rule;
	std::vector<Match> matches;
};

struct CpuQueue {
	std::int64_t cpu;
	std::uint64_t count; /**< buffers that wait */
};

struct LocationReport {
	std::string name;
	std::vector<CpuQueue> queues;
	std::vector<Socket> sockets;
	std::optional<std::int64_t>
		filter_count; /**< entries that the list has; filters may hold fewer */
	std::vector<FilterEntry> filters;
};

/** Sections of the memory report with their counters, in order. */
using Memory = std::vector<std::pair<std::string, Counters>>;

struct Report {
	std::vector<LocationReport> locations;
	std::vector<Socket> sockets; /**< of a process; those of a location stand there */
	Memory memory;
	Counters thread;
	std::vector<std::string>
		problems; /**< what is missing or out of place; empty: the report is whole */
};

/** Takes a report apart. kind is the ReportKind asked for, locations how many of them it has to have. */
Report parse_report(std::span<const std::string> lines, unsigned kind, std::size_t locations);

} // namespace moxctl

#endif
