/* SPDX-License-Identifier: GPL-2.0-only */
#include "format.h"

#include "mox/names.h"

#include <cstdio>

namespace moxsend {
namespace {

double seconds(const Counters &counters)
{
	return static_cast<double>(counters.elapsed) / 1e9;
}

/** Frames a second, counting the gaps between frames: one frame has none. */
double rate(const Counters &counters)
{
	std::uint64_t frames = counters.sent + counters.failed;
	if (frames < 2 || counters.elapsed == 0 || counters.sent == 0)
		return 0;
	return static_cast<double>(counters.sent) *
	       (static_cast<double>(frames - 1) / static_cast<double>(frames)) / seconds(counters);
}

std::string counted(std::uint64_t number, const char *thing)
{
	return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

std::string decimals(const char *form, double value)
{
	char text[64];
	std::snprintf(text, sizeof(text), form, value);
	return text;
}

std::string rate_text(const Counters &counters)
{
	double value = rate(counters);
	return decimals(value < 100 ? "%.2f frames/s" : "%.0f frames/s", value);
}

void add(std::string &text, const char *name, std::uint64_t value)
{
	if (value != 0)
		text += std::string(", ") + name + " " + std::to_string(value);
}

} // namespace

std::string format_summary(const Counters &counters)
{
	std::string text = "moxsend: sent " + counted(counters.sent, "frame") + ", " +
			   counted(counters.bytes, "byte") + " in " +
			   decimals("%.3f s", seconds(counters));
	if (rate(counters) > 0)
		text += " (" + rate_text(counters) + ")";
	text += ", " + std::to_string(counters.failed) + " failed\n";
	for (const auto &[error, failures] : counters.failures)
		text += "moxsend: failed " + counted(failures.count, "time") + ": " +
			failures.first + "\n";
	return text;
}

std::string format_counters(const Counters &counters)
{
	return "sent=" + std::to_string(counters.sent) +
	       " bytes=" + std::to_string(counters.bytes) +
	       " failed=" + std::to_string(counters.failed) +
	       " seconds=" + decimals("%.6f", seconds(counters)) + "\n";
}

std::string format_progress(const Counters &counters, const std::optional<std::uint64_t> &total)
{
	std::string text = "moxsend: " + std::to_string(counters.sent + counters.failed);
	if (total)
		text += " of " + counted(*total, "frame");
	else
		text += " frames";
	return text + ", " + decimals("%.0f s", seconds(counters)) + ", " + rate_text(counters) +
	       ", " + std::to_string(counters.failed) + " failed";
}

std::string format_request(const mox::SendRequest &request)
{
	std::string text;
	if (request.to) {
		add(text, "to interface", request.to->ifindex);
		if (const auto &mac = request.to->mac) {
			char form[32];
			std::snprintf(form, sizeof(form), ", to %02x:%02x:%02x:%02x:%02x:%02x",
				      (*mac)[0], (*mac)[1], (*mac)[2], (*mac)[3], (*mac)[4],
				      (*mac)[5]);
			text += form;
		}
		if (request.to->ether_type != 0) {
			char form[24];
			std::snprintf(form, sizeof(form), ", EtherType 0x%04x",
				      request.to->ether_type);
			text += form;
		}
	}
	if (const auto &control = request.control) {
		add(text, "source interface", control->pkt_ifx);
		add(text, "original interface", control->pkt_origifx);
		add(text, "layer-2 interface", control->pkt_l2ifx);
		add(text, "destination layer-2 interface", control->pkt_dst_l2ifx);
		add(text, "vlan", control->vlan);
		add(text, "inner vlan", control->inner_vlan);
		add(text, "wlan", control->wlan_id);
		add(text, "ap wlan", control->ap_wlan_id);
		add(text, "radio", control->radio_id);
		if (control->flags & MOX_SEND_PROXY_CAPTURE)
			text += ", proxy-capture byte " + std::to_string(control->proxy_capture);
		add(text, "word28", control->word28);
		add(text, "half38", control->half38);
		if (control->flags != 0)
			text += ", flags " + mox::send_flags_text(control->flags);
	}
	return text.empty() ? text : "# " + text.substr(2) + "\n";
}

} // namespace moxsend
