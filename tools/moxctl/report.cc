/* SPDX-License-Identifier: GPL-2.0-only */
#include "report.h"

#include "report_lines.h"

#include <charconv>

namespace moxctl {
namespace {

template <typename Number> Number number(std::string_view text)
{
	Number value{};
	std::from_chars(text.data(), text.data() + text.size(), value);
	return value;
}

std::string without_blanks(std::string_view text)
{
	while (!text.empty() && text.back() == ' ')
		text.remove_suffix(1);
	return std::string(text);
}

/** How many forms of one kind of line there are: what a whole report has of them. */
std::size_t forms_of(Line line)
{
	std::size_t count = 0;
	for (const LineForm &form : line_forms())
		count += form.line == line;
	return count;
}

/** How many counters a whole section of the memory report has. */
std::size_t counters_of(unsigned section)
{
	std::size_t count = 0;
	for (const LineForm &form : line_forms())
		count += form.line == Line::kMemoryCounter && (form.sections & section);
	return count;
}

class Parser {
public:
	Parser(unsigned kind, std::size_t locations) : kind_(kind), locations_(locations) {}

	void take(const std::string &text)
	{
		auto line = scan_line(text, kind_);
		if (!line) {
			problem("\"" + text + "\" is no line of this report");
			return;
		}
		switch (line->form->line) {
		case Line::kBlank:
		case Line::kRegulars:
		case Line::kMatchHead:
		case Line::kThreadHead:
		case Line::kProcessHead:
		case Line::kDumpBanner:
			break;
		case Line::kQueueLocation:
		case Line::kQueueCpu:
		case Line::kFilterCount:
			take_location(*line);
			break;
		case Line::kMatchProcess:
		case Line::kMatchTreatment:
		case Line::kMatchType:
		case Line::kMatchData:
			take_match(*line);
			break;
		case Line::kRuleType:
		case Line::kRuleData:
		case Line::kMoreData:
			take_rule(*line, text);
			break;
		case Line::kMemoryHead:
			end_socket();
			report_.memory.emplace_back(line->form->key, Counters());
			break;
		case Line::kMemoryCounter:
			if (report_.memory.empty())
				problem("a memory counter stands before the sections");
			else
				report_.memory.back().second.emplace_back(
					line->form->key, number<std::int64_t>(line->values[0]));
			break;
		case Line::kThreadCounter:
			report_.thread.emplace_back(line->form->key,
						    number<std::int64_t>(line->values[0]));
			break;
		default:
			take_socket(*line, text);
			break;
		}
	}

	Report finish()
	{
		end_socket();
		if (kind_ & (report_rules | report_queues | report_tech))
			check_locations();
		if (kind_ & (report_memory | report_tech))
			check_memory();
		if ((kind_ & report_thread) &&
		    report_.thread.size() != forms_of(Line::kThreadCounter))
			problem("counters of the copy thread are missing");
		return std::move(report_);
	}

private:
	void problem(std::string text) { report_.problems.push_back(std::move(text)); }

	/** The location that the report has come to; null when lines in front are missing. */
	LocationReport *here()
	{
		if (report_.locations.empty()) {
			problem("the beginning is missing");
			return nullptr;
		}
		return &report_.locations.back();
	}

	void take_location(const ScannedLine &line)
	{
		end_socket();
		in_filters_ = line.form->line == Line::kFilterCount;
		if (line.form->line == Line::kQueueLocation) {
			report_.locations.emplace_back().name = line.values[0];
			return;
		}
		LocationReport *location = here();
		if (!location)
			return;
		if (in_filters_)
			location->filter_count = number<std::int64_t>(line.values[0]);
		else
			location->queues.push_back({ number<std::int64_t>(line.values[0]),
						     number<std::uint64_t>(line.values[1]) });
	}

	void end_socket()
	{
		if (socket_ && socket_->counters.size() != forms_of(Line::kCounter))
			problem("a socket of process \"" + socket_->process + "\" (pid " +
				std::to_string(socket_->pid) + ") is not complete");
		if (!socket_)
			return;
		if (kind_ & report_process)
			report_.sockets.push_back(std::move(*socket_));
		else if (LocationReport *location = here())
			location->sockets.push_back(std::move(*socket_));
		socket_.reset();
	}

	void take_socket(const ScannedLine &line, const std::string &text)
	{
		std::string_view value = line.values[0];
		if (line.form->line == Line::kSocketHead) {
			end_socket();
			in_filters_ = false;
			socket_.emplace();
			return;
		}
		if (!socket_) {
			problem("\"" + text + "\" belongs to no socket");
			return;
		}
		switch (line.form->line) {
		case Line::kProcess:
			socket_->process = value;
			break;
		case Line::kVsd:
			socket_->vsd = number<std::uint32_t>(value);
			break;
		case Line::kPid:
			socket_->pid = number<std::int32_t>(value);
			break;
		case Line::kRunning:
			socket_->running = !line.form->key.empty();
			break;
		case Line::kCtrldata:
			socket_->control_data = !line.form->key.empty();
			break;
		case Line::kIfindex:
			socket_->interface = number<std::uint32_t>(value);
			break;
		case Line::kLocation:
			socket_->location = value;
			break;
		case Line::kTreatment:
			socket_->treatment = value;
			break;
		default:
			socket_->counters.emplace_back(line.form->key, number<std::int64_t>(value));
			break;
		}
	}

	FilterEntry *entry(const char *what)
	{
		LocationReport *location = here();
		if (location && in_filters_ && !location->filters.empty())
			return &location->filters.back();
		problem(std::string(what) + " belongs to no entry of a filter list");
		return nullptr;
	}

	void take_rule(const ScannedLine &line, const std::string &text)
	{
		if (socket_) {
			take_data(socket_->rules, line, text);
		} else if (line.form->line != Line::kRuleType) {
			if (FilterEntry *to = entry("a value"))
				add_value(to->rule, line);
		} else if (!in_filters_) {
			problem("\"" + text + "\" belongs to no socket");
		} else if (LocationReport *location = here()) {
			location->filters.emplace_back().rule.type = line.values[0];
		}
	}

	void take_match(const ScannedLine &line)
	{
		FilterEntry *to = entry("a match");
		if (!to)
			return;
		if (line.form->line == Line::kMatchProcess) {
			to->matches.emplace_back().process = line.values[0];
			return;
		}
		if (to->matches.empty()) {
			problem("a match has no process");
			return;
		}
		if (line.form->line == Line::kMatchTreatment)
			to->matches.back().treatment = line.values[0];
		else
			take_data(to->matches.back().rules, line, "a value");
	}

	void take_data(std::vector<RuleData> &rules, const ScannedLine &line,
		       const std::string &text)
	{
		if (line.form->line == Line::kRuleType || line.form->line == Line::kMatchType)
			rules.emplace_back().type = line.values[0];
		else if (rules.empty())
			problem("\"" + text + "\" has no type");
		else
			add_value(rules.back(), line);
	}

	/** Some types have no value: their lines end behind the label. */
	static void add_value(RuleData &rule, const ScannedLine &line)
	{
		if (std::string value = without_blanks(line.values[0]); !value.empty())
			rule.values.push_back(std::move(value));
	}

	void check_locations()
	{
		if (report_.locations.size() != locations_)
			problem("the report has " + std::to_string(report_.locations.size()) +
				" locations instead of " + std::to_string(locations_));
		for (const LocationReport &location : report_.locations) {
			if (location.queues.empty())
				problem(location.name + ": the queues are missing");
			if (kind_ & report_queues)
				continue;
			if (!location.filter_count)
				problem(location.name + ": the filter list is missing");
			else if (static_cast<std::size_t>(*location.filter_count) !=
				 location.filters.size())
				problem(location.name + ": the report has " +
					std::to_string(location.filters.size()) + " of " +
					std::to_string(*location.filter_count) +
					" entries of the filter list");
		}
	}

	void check_memory()
	{
		for (const LineForm &head : line_forms()) {
			if (head.line != Line::kMemoryHead)
				continue;
			std::size_t found = 0, expected = counters_of(head.sections);
			for (const auto &[name, counters] : report_.memory)
				found += name == head.key ? counters.size() : 0;
			if (found != expected)
				problem("the memory section " + std::string(head.key) + " has " +
					std::to_string(found) + " of " + std::to_string(expected) +
					" counters");
		}
	}

	unsigned kind_;
	std::size_t locations_;
	Report report_;
	std::optional<Socket> socket_;
	bool in_filters_ = false;
};

} // namespace

Report parse_report(std::span<const std::string> lines, unsigned kind, std::size_t locations)
{
	Parser parser(kind, locations);
	for (const std::string &line : lines)
		parser.take(line);
	return parser.finish();
}

} // namespace moxctl
