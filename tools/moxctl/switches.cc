/* SPDX-License-Identifier: GPL-2.0-only */
#include "switches.h"

#include "mox/error.h"
#include "mox/names.h"
#include "mox_packet.h"

#include <algorithm>

namespace moxctl {
namespace {

/** A family of switches: one for all locations, and one for each. */
struct SwitchGroup {
	std::string_view name;
	std::uint32_t all;
	std::uint32_t first; /**< the switch of location 1; the others follow */
	std::string_view meaning;
};

constexpr SwitchGroup kGroups[] = {
	{ "deliver", MOX_DEBUG_DELIVER_ALL, MOX_DEBUG_DELIVER_FIRST,
	  "copy thread and delivery to sockets" },
	{ "receive", MOX_DEBUG_RECEIVE_ALL, MOX_DEBUG_RECEIVE_FIRST, "receive hooks" },
};

/** Every location with a library of its own has switches and a report. */
bool has_switches(const mox::Name &row)
{
	return row.value >= PACKET_LOCAL_LOC && row.value <= PACKET_WLAN_LOC;
}

bool has_hook(const mox::Name &row)
{
	return has_switches(row) && mox::location_is_open(row.value);
}

std::string listed(bool (*allowed)(const mox::Name &))
{
	std::string text;
	for (const mox::Name &row : mox::locations())
		if (allowed(row)) {
			std::string head = "  " + std::string(row.alias());
			head.resize(std::max<std::size_t>(head.size() + 1, 12), ' ');
			text += head + std::string(row.full) + ": " + std::string(row.meaning) +
				"\n";
		}
	return text;
}

[[noreturn]] void refuse(std::string_view what, std::string_view text, std::string_view reason,
			 const std::string &allowed)
{
	std::string list = allowed;
	if (!list.empty() && list.back() == '\n')
		list.pop_back();
	throw mox::UsageError(std::string(what) + " \"" + std::string(text) + "\" " +
			      std::string(reason) + "; allowed:\n" + list);
}

} // namespace

std::vector<std::uint32_t> parse_debug_path(std::string_view text)
{
	if (mox::same_name(text, "general"))
		return { MOX_DEBUG_GENERAL };
	if (mox::same_name(text, "all"))
		return { MOX_DEBUG_GENERAL, MOX_DEBUG_DELIVER_ALL, MOX_DEBUG_RECEIVE_ALL };
	for (const SwitchGroup &group : kGroups) {
		std::string_view head = text.substr(0, group.name.size());
		if (!mox::same_name(head, group.name))
			continue;
		std::string_view rest = text.substr(head.size());
		if (rest.empty())
			return { group.all };
		if (!mox::same_name(rest.substr(0, 1), "-"))
			continue;
		if (auto row = mox::find_name(mox::locations(), rest.substr(1));
		    row && has_switches(*row))
			return { group.first + row->value - 1 };
	}
	refuse("debug path", text, "is unknown", debug_path_help());
}

std::uint32_t parse_hook(std::string_view text)
{
	if (mox::same_name(text, "all"))
		return MOX_DEBUG_HOOK_ALL;
	auto row = mox::find_name(mox::locations(), text);
	if (row && has_hook(*row))
		return MOX_DEBUG_HOOK_FIRST + row->value - 1;
	bool shares_resv = row && (row->value == PACKET_LEV2_RESV_LOC ||
				   row->value == PACKET_LEV3_RESV_LOC);
	refuse("location", text,
	       shares_resv ? "has no hook of its own: it shares that of resv"
	       : row       ? "has no hook"
			   : "is unknown",
	       hook_help());
}

std::uint32_t parse_reported_location(std::string_view text)
{
	auto row = mox::find_name(mox::locations(), text);
	if (row && has_switches(*row))
		return row->value;
	bool shares_resv = row && row->value > PACKET_WLAN_LOC;
	refuse("location", text,
	       shares_resv ? "has no report of its own: its sockets stand in that of resv"
	       : row       ? "has no report"
			   : "is unknown",
	       reported_location_help());
}

std::string debug_path_help()
{
	std::string text = "  general             every tagged line of the module hangs on it\n";
	for (const SwitchGroup &group : kGroups) {
		std::string each = "  " + std::string(group.name), one = each + "-LOCATION";
		each.resize(22, ' ');
		one.resize(22, ' ');
		text += each + std::string(group.meaning) + ", every location\n" + one +
			"the same, one location\n";
	}
	text += "  all                 general, deliver and receive\n  LOCATION is one of";
	for (const mox::Name &row : mox::locations())
		if (has_switches(row))
			text += " " + std::string(row.alias());
	return text + "\n";
}

std::string hook_help()
{
	return listed(has_hook) + "  all       every one of these\n";
}

std::string reported_location_help()
{
	return listed(has_switches);
}

} // namespace moxctl
