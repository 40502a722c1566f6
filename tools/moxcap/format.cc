/* SPDX-License-Identifier: GPL-2.0-only */
#include "format.h"

#include "mox/names.h"
#include "mox/vlan.h"

#include <cstdio>

namespace moxcap {
namespace {

struct FlagName {
	std::uint32_t bits;
	std::string_view name;
};

constexpr FlagName kFlagNames[] = {
	{ MOX_RECV_TRACE, "trace" },
	{ MOX_RECV_EF_40000, "ef40000" },
	{ MOX_RECV_EF_80, "ef80" },
	{ MOX_RECV_NO_L2, "no-l2" },
	{ MOX_RECV_WLAN_800000, "wlan800000" },
};

std::string bracketed(std::string_view label)
{
	return label.empty() ? std::string() : "[" + std::string(label) + "] ";
}

std::string time_of_day(const timespec &time)
{
	tm local{};
	localtime_r(&time.tv_sec, &local);
	char text[32];
	std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%06ld", local.tm_hour, local.tm_min,
		      local.tm_sec, static_cast<long>(time.tv_nsec / 1000));
	return text;
}

std::string control_text(const mox_packet_ctrl_info &control)
{
	std::string text = format_vlan(control);
	if (control.wlan_id != 0 || control.radio_id != 0)
		text += ", radio " + std::to_string(control.radio_id) + " wlan " +
			std::to_string(control.wlan_id);
	if (control.flags != 0)
		text += ", flags " + format_flags(control.flags);
	return text;
}

} // namespace

std::string format_line(const Line &line)
{
	std::string text = bracketed(line.label) + time_of_day(line.time) + " " +
			   std::string(line.interface);
	const Description &frame = *line.description;
	if (frame.destination)
		text += " " + (frame.source ? shown(*frame.source) : std::string("-")) + " > " +
			shown(*frame.destination);
	text += " " + frame.protocol + ", length " + std::to_string(line.length);
	if (line.captured < line.length)
		text += " (read " + std::to_string(line.captured) + ")";
	if (line.control)
		text += control_text(*line.control);
	return text + "\n";
}

std::string format_hex(std::span<const std::uint8_t> bytes)
{
	constexpr std::size_t width = 16;
	std::string text;
	for (std::size_t start = 0; start < bytes.size(); start += width) {
		char piece[24];
		std::snprintf(piece, sizeof(piece), "    %04zx ", start);
		text += piece;
		std::string ascii;
		for (std::size_t i = start; i < start + width; ++i) {
			if (i < bytes.size()) {
				std::snprintf(piece, sizeof(piece), " %02x", bytes[i]);
				text += piece;
				ascii += bytes[i] >= 0x20 && bytes[i] < 0x7f
						 ? static_cast<char>(bytes[i])
						 : '.';
			} else {
				text += "   ";
			}
		}
		text += "  " + ascii + "\n";
	}
	return text;
}

std::string format_vlan(const mox_packet_ctrl_info &control)
{
	std::string text;
	mox::VlanTags tags = mox::vlan_tags(control);
	if (tags.has_outer()) {
		text += ", vlan " + std::to_string(tags.id);
		if (tags.priority != 0)
			text += " prio " + std::to_string(tags.priority);
	}
	if (tags.inner_id != 0)
		text += ", inner vlan " + std::to_string(tags.inner_id);
	return text;
}

std::string format_flags(std::uint32_t flags)
{
	std::string text;
	std::uint32_t rest = flags;
	for (const FlagName &each : kFlagNames)
		if ((flags & each.bits) == each.bits) {
			text += (text.empty() ? "" : " ") + std::string(each.name);
			rest &= ~each.bits;
		}
	if (rest != 0) {
		char number[16];
		std::snprintf(number, sizeof(number), "%s0x%x", text.empty() ? "" : " ", rest);
		text += number;
	}
	return text;
}

std::string format_opening(const Options &options)
{
	std::string text = bracketed(options.label) + "capturing at " +
			   std::string(mox::location_name(options.location)) + ", treatment " +
			   std::string(mox::treatment_name(options.treatment));
	if (options.protocol != 0) {
		char protocol[24];
		std::snprintf(protocol, sizeof(protocol), ", protocol 0x%04x", options.protocol);
		text += protocol;
	}
	for (const mox::Rule &rule : options.rules)
		text += ", " + std::string(rule.type().full) +
			(rule.count() > 1 ? " (" + std::to_string(rule.count()) + " values)" : "");
	return text + "\n";
}

std::string format_summary(std::string_view label, const Counters &counters)
{
	std::string text = bracketed(label) + std::to_string(counters.captured) +
			   (counters.captured == 1 ? " frame" : " frames") + " captured";
	if (counters.truncated != 0)
		text += " (" + std::to_string(counters.truncated) + " cut to the snapshot length)";
	return text + ", " + std::to_string(counters.matched) + " matched the rules, " +
	       std::to_string(counters.dropped) + " of them dropped\n";
}

std::string format_counters(std::string_view label, const Counters &counters)
{
	return bracketed(label) + "captured=" + std::to_string(counters.captured) +
	       " truncated=" + std::to_string(counters.truncated) +
	       " matched=" + std::to_string(counters.matched) +
	       " dropped=" + std::to_string(counters.dropped) + "\n";
}

} // namespace moxcap
