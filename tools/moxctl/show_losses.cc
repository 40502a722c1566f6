/* SPDX-License-Identifier: GPL-2.0-only */
#include "show.h"

#include "capture_reasons.h"
#include "capture_values.h"
#include "mox/names.h"
#include "text_table.h"

namespace moxctl {
namespace {

/** A location, a socket, or the closed sockets of a location. */
struct Subject {
	const Record *record; /**< of the set LOCATION or SOCKET; null for closed sockets */
	const Record *ledger; /**< whose counters are looked at */
	std::string title;
};

/** The counters of a ledger that count lost frames; zeros only with all. */
std::vector<std::pair<const ReasonRow *, std::uint64_t>> losses_of(const Record &ledger, bool all)
{
	std::vector<std::pair<const ReasonRow *, std::uint64_t>> losses;
	for (const ReasonRow &row : capture_reasons())
		if (row.loss && row.set == ledger.set() && ledger.has(row.attribute) &&
		    (all || ledger.number(row.attribute) != 0))
			losses.emplace_back(&row, ledger.number(row.attribute));
	return losses;
}

std::vector<InFlight> in_flight_of(const Subject &subject)
{
	return subject.record ? in_flight(*subject.record) : std::vector<InFlight>();
}

void add_text(std::string &text, const Subject &subject, bool all)
{
	auto losses = losses_of(*subject.ledger, all);
	auto differences = in_flight_of(subject);
	if (losses.empty() && differences.empty())
		return;
	text += subject.title + "\n";
	for (const auto &[row, frames] : losses) {
		text += "  " + std::to_string(frames) + " " + row->counter() + ": " +
			std::string(row->meaning()) + "\n";
		if (frames != 0)
			text += "      remedy: " + std::string(row->remedy) + "\n";
	}
	for (const InFlight &each : differences)
		text += "  in flight: " + std::to_string(each.frames) + " (of " +
			std::string(each.sum) + ")\n";
}

void write_subject(JsonWriter &json, const Subject &subject, bool all)
{
	json.key("losses");
	json.begin_array();
	for (const auto &[row, frames] : losses_of(*subject.ledger, all)) {
		json.begin_object();
		json.member("counter", row->counter());
		json.member("frames", frames);
		json.member("reason", row->meaning());
		json.member("remedy", row->remedy);
		json.end_object();
	}
	json.end_array();
	json.key("in_flight");
	json.begin_array();
	for (const InFlight &each : in_flight_of(subject)) {
		json.begin_object();
		json.member("sum", each.sum);
		json.member("frames", each.frames);
		json.end_object();
	}
	json.end_array();
}

std::string location_of(const Record &location)
{
	return std::string(mox::location_name(
		static_cast<std::uint32_t>(location.number(MOX_CAPTURE_LOCATION_LOCATION))));
}

/** A socket may leave its location before it is closed. */
std::string closed_title(const Record &location)
{
	if (location.number(MOX_CAPTURE_LOCATION_LOCATION) == PACKET_NONE_LOC)
		return "closed sockets without a location:";
	return "closed sockets of " + location_of(location) + ":";
}

std::string socket_title(const Record &socket)
{
	return "socket " + std::to_string(socket.number(MOX_CAPTURE_SOCKET_COOKIE)) + " of " +
	       printable(socket.text(MOX_CAPTURE_SOCKET_PROCESS)) + " (pid " +
	       std::to_string(static_cast<std::int64_t>(socket.number(MOX_CAPTURE_SOCKET_PID))) +
	       ", " + short_location(socket.number(MOX_CAPTURE_SOCKET_LOCATION)) + "):";
}

std::string text_of(const Dump &locations, const Dump &sockets, bool all)
{
	std::string text;
	for (const Record &location : locations.entries) {
		if (location.has(MOX_CAPTURE_LOCATION_CPU))
			continue;
		add_text(text, { &location, &location, "location " + location_of(location) + ":" },
			 all);
		if (const Record *closed = location.nest(MOX_CAPTURE_LOCATION_CLOSED))
			add_text(text, { nullptr, closed, closed_title(location) }, all);
	}
	for (const Record &socket : sockets.entries)
		if (const Record *counters = socket.nest(MOX_CAPTURE_SOCKET_COUNTERS))
			add_text(text, { &socket, counters, socket_title(socket) }, all);
	return text.empty() ? "no losses\n" : text;
}

void write_locations(JsonWriter &json, const Dump &locations, bool all)
{
	json.key("locations");
	json.begin_array();
	for (const Record &location : locations.entries) {
		if (location.has(MOX_CAPTURE_LOCATION_CPU))
			continue;
		json.begin_object();
		json.member("location", location_of(location));
		write_subject(json, { &location, &location, {} }, all);
		if (const Record *closed = location.nest(MOX_CAPTURE_LOCATION_CLOSED)) {
			json.key("closed_sockets");
			json.begin_object();
			json.member("count", location.number(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS));
			write_subject(json, { nullptr, closed, {} }, all);
			json.end_object();
		}
		json.end_object();
	}
	json.end_array();
}

void write_sockets(JsonWriter &json, const Dump &sockets, bool all)
{
	json.key("sockets");
	json.begin_array();
	for (const Record &socket : sockets.entries) {
		const Record *counters = socket.nest(MOX_CAPTURE_SOCKET_COUNTERS);
		Subject subject{ &socket, counters, {} };
		if (!counters || (losses_of(*counters, all).empty() && in_flight(socket).empty()))
			continue;
		json.begin_object();
		write_members(json, socket,
			      ~bits_of(MOX_CAPTURE_SOCKET_COOKIE, MOX_CAPTURE_SOCKET_PID,
				       MOX_CAPTURE_SOCKET_PROCESS, MOX_CAPTURE_SOCKET_LOCATION));
		write_subject(json, subject, all);
		json.end_object();
	}
	json.end_array();
}

} // namespace

Status show_losses(const Options &options, CaptureClient &client, const World &world)
{
	Problems problems;
	Dump locations;
	// A single socket or process is not all that its location's frames are for.
	if (!options.selection.pid && !options.selection.cookie) {
		locations = client.dump(MOX_CAPTURE_CMD_LOCATIONS,
					locations_request(options.selection));
		keep_locations(locations, options.selection);
		problems.check(locations, "locations");
	}
	Dump sockets = client.dump(MOX_CAPTURE_CMD_SOCKETS, selection_request(options.selection));
	problems.check(sockets, "sockets");
	if (!options.json) {
		world.print(text_of(locations, sockets, options.all));
		return problems.complain(world);
	}
	std::string text;
	JsonWriter json(text, spill_to(world));
	json.begin_object();
	write_locations(json, locations, options.all);
	write_sockets(json, sockets, options.all);
	return finish(text, json, problems, world);
}

} // namespace moxctl
