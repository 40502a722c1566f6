/* SPDX-License-Identifier: GPL-2.0-only */
#include "report_lines.h"

#include "mox/names.h"
#include "mox/rule.h"
#include "mox_packet_tables.h"

#include <algorithm>
#include <cctype>

namespace moxctl {
namespace {

constexpr unsigned kAnyKind = ~0u;
constexpr unsigned kRules = report_rules | report_tech;
constexpr unsigned kQueues = kRules | report_queues;
constexpr unsigned kSockets = kRules | report_process;
constexpr unsigned kMemory = report_memory | report_tech;

/** A short text that is put together at compile time. */
struct Text {
	char characters[40] = {};
	std::size_t length = 0;

	constexpr void add(char c) { characters[length++] = c; }
	constexpr std::string_view view() const { return { characters, length }; }
};

/** The form of a line with a number in a column; a longer label pushes its number to the right. */
constexpr Text number_form(std::string_view label, std::size_t column)
{
	Text text;
	for (char c : label)
		text.add(c);
	while (text.length < column)
		text.add(' ');
	text.add('%');
	text.add('u');
	return text;
}

/** A label as a name in JSON: lower case, underscores for blanks, no colon. */
constexpr Text json_name(std::string_view label)
{
	Text text;
	for (char c : label)
		if (c != ':')
			text.add(c == ' '               ? '_'
				 : c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a')
							: c);
	return text;
}

// The texts that the tables' rows have in common with the module.
#define COUNTER_TEXT(field, label, ...) \
	constexpr Text field##_form = number_form(label, MOX_PACKET_COUNTER_COLUMN);
MOX_PACKET_COUNTER_TABLE(COUNTER_TEXT)
#undef COUNTER_TEXT
#define MEMORY_TEXT(type, width, compared, key, form, label, ...)                  \
	constexpr Text type##_form = number_form(label, MOX_PACKET_MEMORY_COLUMN); \
	constexpr Text type##_name = json_name(label);
MOX_PACKET_RULE_TYPE_TABLE(MEMORY_TEXT)
#undef MEMORY_TEXT

#define COUNTER_FORM(field, ...) { Line::kCounter, kSockets, field##_form.view(), #field },
// Items count rule types; data are counted for the types whose values are stored.
#define MEMORY_FORM(type, width, compared, ...)                                  \
	{ Line::kMemoryCounter, kMemory, type##_form.view(), type##_name.view(), \
	  section_items | ((compared) != 0 ? section_data : 0u) },

constexpr LineForm kForms[] = {
	{ Line::kBlank, kAnyKind, "", {} },

	{ Line::kQueueLocation, kQueues, "location: %l", {} },
	{ Line::kQueueCpu, kQueues, "cpu %d efbuff cnt:      %u", {} },

	{ Line::kSocketHead, kSockets, "------------ dump sock ------------", {} },
	{ Line::kProcess, kSockets, "process:       %s", {} },
	{ Line::kVsd, kSockets, "vsd:           %u", {} },
	{ Line::kPid, kSockets, "pid:           %d", {} },
	{ Line::kRunning, kSockets, "running:       running", "running" },
	{ Line::kRunning, kSockets, "running:       stop", {} },
	{ Line::kCtrldata, kSockets, "ctrldata:      require", "require" },
	{ Line::kCtrldata, kSockets, "ctrldata:      unrequire", {} },
	{ Line::kIfindex, kSockets, "ifindex:       %u", {} },
	{ Line::kRegulars, kSockets, "regulars:", {} },
	{ Line::kRuleType, kSockets, "regular type:  %r", {} },
	{ Line::kRuleData, kSockets, "regular data:  %v", {} },
	{ Line::kMoreData, kSockets, "               %v", {} },
	{ Line::kLocation, kSockets, "PACKET LOC:         %l", {} },
	{ Line::kTreatment, kSockets, "PACKET TREATMENT:   %t", {} },
	MOX_PACKET_COUNTER_TABLE(COUNTER_FORM){ Line::kCounter, kSockets,
						"skbs to be recv:        %u", "skbs_to_be_recv" },
	{ Line::kCounter, kSockets, "skbs to be send:        %u", "skbs_to_be_send" },
	{ Line::kCounter, kSockets, "sk refcnt:              %u", "refcnt" },

	{ Line::kFilterCount, kRules, "filter regular list cnt: %d", {} },
	{ Line::kMatchHead, kRules, "  match regulars:", {} },
	{ Line::kMatchProcess, kRules, "    process:      %s", {} },
	{ Line::kMatchTreatment, kRules, "    PACKET TREATMENT:   %t", {} },
	{ Line::kMatchType, kRules, "    regular type:  %r", {} },
	{ Line::kMatchData, kRules, "    regular data:  %v", {} },

	// The blank at the end of this heading is the report's own.
	{ Line::kMemoryHead, kMemory, "------------------ DUMP PACKET DATA MEM ----------------- ",
	  "rule_data", section_rule_data },
	{ Line::kMemoryCounter, kMemory, "regular data alloc:     %u", "alloc", section_rule_data },
	{ Line::kMemoryCounter, kMemory, "regular data free:      %u", "free", section_rule_data },
	{ Line::kMemoryHead, kMemory, "--------------------- ITEM MEM ---------------------",
	  "items", section_items },
	{ Line::kMemoryHead, kMemory, "--------------------- DATA MEM ---------------------",
	  "data", section_data },
	MOX_PACKET_RULE_TYPE_TABLE(MEMORY_FORM){ Line::kMemoryCounter, kMemory, "FILTER LIST:  %u",
						 "filter_list", section_data },
	{ Line::kMemoryCounter, kMemory, "REGULAR:      %u", "regular", section_data },
	{ Line::kMemoryCounter, kMemory, "ALLOC FAILED: %u", "alloc_failed",
	  section_items | section_data },
	{ Line::kMemoryHead, kMemory, "---------------  SKB NUM ----------------", "skbs",
	  section_skbs },
	{ Line::kMemoryCounter, kMemory, "AF-PACKET alloc %d skbs", "alloc", section_skbs },
	{ Line::kMemoryCounter, kMemory, "AF-PACKET free  %d skbs", "free", section_skbs },

	{ Line::kThreadHead, report_thread, "-------------PACKET-COPY-THREAD---------------", {} },
	{ Line::kThreadCounter, report_thread, "scheduled:          %u", "scheduled" },
	{ Line::kThreadCounter, report_thread, "Alloc skb failed:   %u", "alloc_skb_failed" },

	{ Line::kProcessHead, report_process, "show process %s regular:", {} },

	{ Line::kDumpBanner,
	  report_tech,
	  "**************** AF-PACKET DUMP REGULAR START ****************",
	  {} },
	{ Line::kDumpBanner,
	  report_tech,
	  "**************** AF-PACKET DUMP REGULAR END ****************",
	  {} },
	{ Line::kDumpBanner,
	  report_tech,
	  "**************** AF-PACKET DUMP MEM START ****************",
	  {} },
	{ Line::kDumpBanner,
	  report_tech,
	  "**************** AF-PACKET DUMP MEM END ****************",
	  {} },
};

#undef COUNTER_FORM
#undef MEMORY_FORM

bool is_digits(std::string_view text)
{
	return !text.empty() && std::all_of(text.begin(), text.end(),
					    [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool is_number(std::string_view text)
{
	return is_digits(!text.empty() && text[0] == '-' ? text.substr(1) : text);
}

bool is_hex(std::string_view text)
{
	return std::all_of(text.begin(), text.end(),
			   [](unsigned char c) { return std::isxdigit(c) != 0; });
}

bool is_mac(std::string_view text)
{
	if (text.size() != 17)
		return false;
	for (std::size_t i = 0; i < text.size(); i += 3)
		if (!is_hex(text.substr(i, 2)) || (i + 2 < text.size() && text[i + 2] != ':'))
			return false;
	return true;
}

bool is_rule_type(std::string_view text)
{
	auto types = mox::rule_types();
	return text == "illegal regular type!" ||
	       std::any_of(types.begin(), types.end(),
			   [&](const mox::RuleType &row) { return row.full == text; });
}

bool is_rule_value(std::string_view text)
{
	if (text.empty() || text == "illegal regular type!")
		return true;
	// Two blanks end every value that there is.
	if (!text.ends_with("  "))
		return false;
	text.remove_suffix(2);
	constexpr std::string_view code = "code: ", sub_code = ", subcode: ";
	if (text.starts_with(code)) {
		std::size_t middle = text.find(sub_code);
		return middle != std::string_view::npos &&
		       is_digits(text.substr(code.size(), middle - code.size())) &&
		       is_digits(text.substr(middle + sub_code.size()));
	}
	return is_number(text) || (text.size() == 4 && is_hex(text)) || is_mac(text);
}

bool is_name_of(std::span<const mox::Name> table, std::string_view text)
{
	return text == "Unknown" ||
	       std::any_of(table.begin(), table.end(),
			   [&](const mox::Name &row) { return row.full == text; });
}

bool fits(char kind, std::string_view text)
{
	switch (kind) {
	case 'u':
		return is_digits(text);
	case 'd':
		return is_number(text);
	case 'r':
		return is_rule_type(text);
	case 'v':
		return is_rule_value(text);
	case 'l':
		return is_name_of(mox::locations(), text);
	case 't':
		return is_name_of(mox::treatments(), text);
	default:
		return true;
	}
}

/** Matches a whole line; values gets what stands at the format's places. */
bool matches(std::string_view line, std::string_view format,
	     std::array<std::string_view, 2> &values)
{
	for (std::string_view &value : values) {
		std::size_t place = format.find('%');
		if (place == std::string_view::npos)
			return line == format;
		if (line.substr(0, place) != format.substr(0, place))
			return false;
		char kind = format[place + 1];
		line.remove_prefix(place);
		format.remove_prefix(place + 2);

		// A value ends where the literal text behind it stands for the last time: names may hold any text.
		std::string_view literal = format.substr(0, format.find('%'));
		std::size_t end = literal.size() == format.size()
					  ? (line.ends_with(literal) ? line.size() - literal.size()
								     : std::string_view::npos)
					  : line.find(literal);
		if (end == std::string_view::npos || !fits(kind, line.substr(0, end)))
			return false;
		value = line.substr(0, end);
		line.remove_prefix(end);
	}
	return line == format;
}

} // namespace

std::optional<ScannedLine> scan_line(std::string_view line, unsigned kinds)
{
	for (const LineForm &form : kForms) {
		ScannedLine scanned{ &form, {} };
		if ((form.kinds & kinds) && matches(line, form.format, scanned.values))
			return scanned;
	}
	return std::nullopt;
}

bool is_label(std::string_view text)
{
	return std::any_of(std::begin(kForms), std::end(kForms), [&](const LineForm &form) {
		return (form.format.ends_with("%r") || form.format.ends_with("%v")) &&
		       form.format.substr(0, form.format.size() - 2) == text;
	});
}

std::span<const LineForm> line_forms()
{
	return kForms;
}

} // namespace moxctl
