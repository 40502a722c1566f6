/* SPDX-License-Identifier: GPL-2.0-only */
#include "show.h"

#include "capture_values.h"
#include "mox/names.h"
#include "text_table.h"

#include <algorithm>
#include <map>

namespace moxctl {
namespace {

using Align = TextTable::Align;

/** Rules in the order in which a frame is compared with them; those that are not entered last. */
bool asked_before(const Record *a, const Record *b)
{
	bool a_entered = a->has(MOX_CAPTURE_RULE_PLACE), b_entered = b->has(MOX_CAPTURE_RULE_PLACE);
	if (a_entered != b_entered)
		return a_entered;
	return a->text(MOX_CAPTURE_RULE_PLACE) < b->text(MOX_CAPTURE_RULE_PLACE);
}

void add_rule(TextTable &table, const Record &rule)
{
	bool first = true;
	auto line = [&](std::string_view value, std::string_view hits) {
		table.row();
		table.add(first ? rule.text(MOX_CAPTURE_RULE_PROCESS) : std::string_view());
		table.add(first ? std::to_string(static_cast<std::int64_t>(
					  rule.number(MOX_CAPTURE_RULE_PID)))
				: std::string());
		table.add(first ? std::to_string(rule.number(MOX_CAPTURE_RULE_COOKIE))
				: std::string());
		table.add(first ? short_treatment(rule.number(MOX_CAPTURE_RULE_TREATMENT))
				: std::string());
		table.add(!first ? "" : rule.has(MOX_CAPTURE_RULE_RUNNING) ? "running" : "stopped");
		table.add(hits);
		table.add(value);
		first = false;
	};
	for (const Record::Nest &nest : rule.nests())
		line(value_text(nest.record),
		     nest.record.has(MOX_CAPTURE_VALUE_HITS)
			     ? std::to_string(nest.record.number(MOX_CAPTURE_VALUE_HITS))
			     : std::string());
	if (first)
		line("(none: matches no frame)", "");
}

std::string text_of(const Dump &rules, std::uint32_t location)
{
	std::map<std::uint32_t, std::vector<const Record *>> libraries;
	for (const Record &rule : rules.entries) {
		std::uint32_t library = library_of(rule.number(MOX_CAPTURE_RULE_LOCATION));
		if (location == 0 || location == library)
			libraries[library].push_back(&rule);
	}
	std::string text;
	for (auto &[library, list] : libraries) {
		std::stable_sort(list.begin(), list.end(), asked_before);
		text += (text.empty() ? "" : "\n") + std::string(mox::location_name(library)) +
			":\n";
		TextTable table({ { "PROCESS" },
				  { "PID", Align::kRight },
				  { "COOKIE", Align::kRight },
				  { "TREATMENT" },
				  { "STATE" },
				  { "HITS", Align::kRight },
				  { "VALUE" } });
		for (const Record *rule : list)
			add_rule(table, *rule);
		table.print(text, 2);
	}
	return text.empty() ? "no rules\n" : text;
}

} // namespace

Status show_rules(const Options &options, CaptureClient &client, const World &world)
{
	if (options.json)
		return show_rules_json(options, client, world);
	// RESV's rules are those of three locations, so they are selected here.
	Selection selection = options.selection;
	if (selection.location == PACKET_RESV_LOC)
		selection.location = 0;
	Dump rules = client.dump_rules(selection_request(selection));
	Problems problems;
	problems.check(rules, "rules");
	world.print(text_of(rules, options.selection.location));
	return problems.complain(world);
}

} // namespace moxctl
