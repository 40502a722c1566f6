/* SPDX-License-Identifier: GPL-2.0-only */
#include "trace.h"

#include "json_writer.h"
#include "mox/values.h"
#include "text_table.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace moxctl {
namespace {

/** How long one wait for records takes at most: a limit of seconds is looked at in between. */
constexpr Milliseconds kWait{ 200 };

/** Local time of day with microseconds. */
std::string time_text(std::uint64_t nanoseconds)
{
	auto seconds = static_cast<std::time_t>(nanoseconds / 1000000000);
	std::tm local{};
	localtime_r(&seconds, &local);
	char text[32];
	std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%06u", local.tm_hour, local.tm_min,
		      local.tm_sec, static_cast<unsigned>(nanoseconds % 1000000000 / 1000));
	return text;
}

std::string ether_type_text(std::uint64_t number)
{
	std::string_view name = mox::value_name(mox::ether_type_names(),
						static_cast<std::uint32_t>(number));
	if (!name.empty())
		return std::string(name);
	char text[8];
	std::snprintf(text, sizeof(text), "%04x", static_cast<unsigned>(number & 0xffff));
	return text;
}

std::string frame_text(const Record &record, InterfaceNames &interfaces)
{
	std::string text;
	if (record.has(MOX_CAPTURE_TRACE_SRC_MAC) || record.has(MOX_CAPTURE_TRACE_DST_MAC))
		text += " " + hex_text(record.text(MOX_CAPTURE_TRACE_SRC_MAC), ":") + " > " +
			hex_text(record.text(MOX_CAPTURE_TRACE_DST_MAC), ":");
	if (record.has(MOX_CAPTURE_TRACE_ETHER_TYPE))
		text += " " + ether_type_text(record.number(MOX_CAPTURE_TRACE_ETHER_TYPE));
	if (record.number(MOX_CAPTURE_TRACE_VLAN) != 0)
		text += " vlan " + std::to_string(record.number(MOX_CAPTURE_TRACE_VLAN));
	if (record.has(MOX_CAPTURE_TRACE_LENGTH))
		text += " length " + std::to_string(record.number(MOX_CAPTURE_TRACE_LENGTH));
	if (record.number(MOX_CAPTURE_TRACE_IFINDEX) != 0) {
		bool send = record.number(MOX_CAPTURE_TRACE_HOP) == MOX_CAPTURE_HOP_SEND;
		text += (send ? " to " : " from ") +
			interfaces.name(static_cast<std::uint32_t>(
				record.number(MOX_CAPTURE_TRACE_IFINDEX)));
	}
	if (record.has(MOX_CAPTURE_TRACE_FRAME))
		text += " frame " + std::to_string(record.number(MOX_CAPTURE_TRACE_FRAME));
	return text;
}

std::string socket_text(const Record &record)
{
	if (!record.has(MOX_CAPTURE_TRACE_COOKIE))
		return {};
	std::string text = "; socket " + std::to_string(record.number(MOX_CAPTURE_TRACE_COOKIE));
	if (record.has(MOX_CAPTURE_TRACE_PROCESS))
		text += " of " + std::string(record.text(MOX_CAPTURE_TRACE_PROCESS));
	if (record.has(MOX_CAPTURE_TRACE_PID))
		text += " (pid " +
			std::to_string(
				static_cast<std::int64_t>(record.number(MOX_CAPTURE_TRACE_PID))) +
			")";
	if (record.has(MOX_CAPTURE_TRACE_TREATMENT))
		text += ", " + short_treatment(record.number(MOX_CAPTURE_TRACE_TREATMENT));
	return text;
}

std::string outcome_text(const Record &record)
{
	std::string text = ": " + verdict_text(record.number(MOX_CAPTURE_TRACE_VERDICT));
	auto error = static_cast<std::int64_t>(record.number(MOX_CAPTURE_TRACE_ERROR));
	if (error != 0)
		text += std::string(" (") + std::strerror(static_cast<int>(-error)) + ")";
	if (const Record *key = record.nest(MOX_CAPTURE_TRACE_KEY))
		text += "; key " + value_text(*key);
	text += socket_text(record);
	if (record.has(MOX_CAPTURE_TRACE_SINCE)) {
		char since[48];
		std::snprintf(since, sizeof(since), "; %.3f ms after the hook",
			      static_cast<double>(record.number(MOX_CAPTURE_TRACE_SINCE)) / 1e6);
		text += since;
	}
	return text;
}

std::string json_line(const Record &record)
{
	std::string text;
	JsonWriter json(text, JsonWriter::Style::kCompact);
	json.begin_object();
	write_members(json, record);
	json.end_object();
	return text;
}

/** Records that did not reach this program. */
class Losses {
public:
	explicit Losses(const World &world) : world_(world) {}

	void see(const Record &record)
	{
		std::uint64_t now = record.number(MOX_CAPTURE_TRACE_LOST);
		if (now > lost_) {
			lost_ = now;
			complain();
		}
	}
	void overrun() { overrun_ = true; }

	Status finish() const
	{
		if (lost_ == 0 && !overrun_)
			return status_ok;
		complain();
		return status_incomplete;
	}

private:
	void complain() const
	{
		world_.complain((lost_ == 0 ? std::string("some") : std::to_string(lost_)) +
				" records were lost: trace fewer frames, with more criteria");
	}

	const World &world_;
	std::uint64_t lost_ = 0;
	bool overrun_ = false;
};

} // namespace

std::string trace_line(const Record &record, InterfaceNames &interfaces)
{
	std::string text = time_text(record.number(MOX_CAPTURE_TRACE_TIME)) + " cpu" +
			   std::to_string(record.number(MOX_CAPTURE_TRACE_CPU));
	if (record.has(MOX_CAPTURE_TRACE_LOCATION))
		text += " " + short_location(record.number(MOX_CAPTURE_TRACE_LOCATION));
	text += " " + hop_name(record.number(MOX_CAPTURE_TRACE_HOP));
	text += frame_text(record, interfaces) + outcome_text(record);
	return printable(text);
}

Status trace(const Options &options, CaptureClient &client, const World &world)
{
	InterfaceNames interfaces(world.interface_name);
	Losses losses(world);
	std::uint64_t shown = 0;
	std::string batch; // of one datagram, printed as a whole
	auto full = [&] { return options.count != 0 && shown >= options.count; };
	client.start_trace(options.trace, [&](const Record &record) {
		if (full())
			return;
		++shown;
		losses.see(record);
		batch += (options.json ? json_line(record) : trace_line(record, interfaces)) + "\n";
	});
	const Milliseconds start = world.clock();
	for (;;) {
		if (!batch.empty()) {
			world.print(batch);
			world.flush();
			batch.clear();
		}
		if (full() || world.stopped())
			break;
		Milliseconds wait = kWait;
		if (options.seconds != 0) {
			Milliseconds left = start +
					    Milliseconds(static_cast<long long>(options.seconds *
										1000)) -
					    world.clock();
			if (left.count() <= 0)
				break;
			wait = std::min(wait, left);
		}
		if (client.receive_events(wait))
			losses.overrun();
	}
	return losses.finish();
}

} // namespace moxctl
