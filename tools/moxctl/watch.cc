/* SPDX-License-Identifier: GPL-2.0-only */
#include "watch.h"

#include "capture_reasons.h"
#include "capture_values.h"
#include "json_writer.h"
#include "mox/names.h"
#include "show.h"
#include "text_table.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>

namespace moxctl {
namespace {

using Align = TextTable::Align;
using Key = std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>;

/** What is known of a location or socket at one time. */
struct Totals {
	std::uint64_t in = 0;   /**< seen, or matched */
	std::uint64_t kept = 0; /**< delivered, or read */
	std::uint64_t lost = 0;
	std::uint64_t wanted = 0; /**< of a location */
	std::uint64_t queued = 0; /**< now */
};

struct Sample {
	Milliseconds time{};
	Dump locations, sockets;
};

struct Rates {
	const Record *record;
	double in, kept, lost, wanted;
	std::uint64_t queued;
};

Totals totals_of_location(const Record &record)
{
	Totals totals;
	totals.in = record.number(MOX_CAPTURE_LOCATION_SEEN);
	totals.wanted = record.number(MOX_CAPTURE_LOCATION_WANTED);
	totals.kept = record.number(MOX_CAPTURE_LOCATION_KEPT);
	totals.queued = record.number(MOX_CAPTURE_LOCATION_QUEUED);
	for (const ReasonRow &row : capture_reasons())
		if (row.loss && row.set == Set::kLocation)
			totals.lost += record.number(row.attribute);
	return totals;
}

Totals totals_of_socket(const Record &record)
{
	Totals totals;
	const Record *counters = record.nest(MOX_CAPTURE_SOCKET_COUNTERS);
	if (!counters)
		return totals;
	totals.in = counters->number(MOX_CAPTURE_COUNTERS_MATCHED);
	totals.kept = counters->number(MOX_CAPTURE_COUNTERS_READ);
	totals.queued = record.number(MOX_CAPTURE_SOCKET_QUEUE);
	for (std::uint16_t each : kReceiveDrops)
		totals.lost += counters->number(each);
	return totals;
}

Key key_of(const Record &record)
{
	if (record.set() == Set::kLocation)
		return { record.number(MOX_CAPTURE_LOCATION_LOCATION), 0, 0 };
	return { record.number(MOX_CAPTURE_SOCKET_COOKIE), record.number(MOX_CAPTURE_SOCKET_NETNS),
		 record.number(MOX_CAPTURE_SOCKET_INODE) };
}

/** The sums of a location with a hook, not those of its CPUs; any socket. */
bool has_rates(const Record &record)
{
	return record.set() != Set::kLocation ||
	       (record.has(MOX_CAPTURE_LOCATION_SEEN) && !record.has(MOX_CAPTURE_LOCATION_CPU));
}

/** Rates of the entries that both samples have. */
template <typename TotalsOf>
std::vector<Rates> rates_of(const Dump &before, const Dump &after, double seconds,
			    TotalsOf totals_of)
{
	std::map<Key, Totals> earlier;
	for (const Record &record : before.entries)
		if (has_rates(record))
			earlier[key_of(record)] = totals_of(record);
	std::vector<Rates> rates;
	for (const Record &record : after.entries) {
		if (!has_rates(record))
			continue;
		auto found = earlier.find(key_of(record));
		if (found == earlier.end())
			continue;
		Totals now = totals_of(record);
		// Counters of several CPUs are not read at one time: a sum may seem to shrink.
		auto rate = [&](std::uint64_t later, std::uint64_t first) {
			return later < first ? 0.0 : static_cast<double>(later - first) / seconds;
		};
		rates.push_back({ &record, rate(now.in, found->second.in),
				  rate(now.kept, found->second.kept),
				  rate(now.lost, found->second.lost),
				  rate(now.wanted, found->second.wanted), now.queued });
	}
	return rates;
}

std::string decimal(double value)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%.1f", value);
	return text;
}

std::string text_of(const std::vector<Rates> &locations, const std::vector<Rates> &sockets)
{
	TextTable places({ { "LOCATION" },
			   { "SEEN/s", Align::kRight },
			   { "WANTED/s", Align::kRight },
			   { "DELIVERED/s", Align::kRight },
			   { "LOST/s", Align::kRight },
			   { "QUEUED", Align::kRight } });
	for (const Rates &each : locations) {
		places.row();
		places.add(short_location(each.record->number(MOX_CAPTURE_LOCATION_LOCATION)));
		for (double rate : { each.in, each.wanted, each.kept, each.lost })
			places.add(decimal(rate));
		places.add(each.queued);
	}
	TextTable busiest({ { "PROCESS" },
			    { "PID", Align::kRight },
			    { "COOKIE", Align::kRight },
			    { "LOCATION" },
			    { "MATCHED/s", Align::kRight },
			    { "READ/s", Align::kRight },
			    { "DROPPED/s", Align::kRight },
			    { "QUEUED", Align::kRight } });
	for (const Rates &each : sockets) {
		busiest.row();
		busiest.add(each.record->text(MOX_CAPTURE_SOCKET_PROCESS));
		busiest.add(each.record->number(MOX_CAPTURE_SOCKET_PID));
		busiest.add(each.record->number(MOX_CAPTURE_SOCKET_COOKIE));
		busiest.add(short_location(each.record->number(MOX_CAPTURE_SOCKET_LOCATION)));
		for (double rate : { each.in, each.kept, each.lost })
			busiest.add(decimal(rate));
		busiest.add(each.queued);
	}
	std::string text;
	places.print(text);
	text += '\n';
	busiest.print(text);
	return text;
}

void write_rate(JsonWriter &json, std::string_view name, double value)
{
	json.key(name);
	json.number(value);
}

std::string json_of(double seconds, const std::vector<Rates> &locations,
		    const std::vector<Rates> &sockets)
{
	std::string text;
	JsonWriter json(text, JsonWriter::Style::kCompact);
	json.begin_object();
	write_rate(json, "seconds", seconds);
	json.key("locations");
	json.begin_array();
	for (const Rates &each : locations) {
		json.begin_object();
		json.member("location",
			    mox::location_name(static_cast<std::uint32_t>(
				    each.record->number(MOX_CAPTURE_LOCATION_LOCATION))));
		write_rate(json, "seen", each.in);
		write_rate(json, "wanted", each.wanted);
		write_rate(json, "kept", each.kept);
		write_rate(json, "lost", each.lost);
		json.member("queued", each.queued);
		json.end_object();
	}
	json.end_array();
	json.key("sockets");
	json.begin_array();
	for (const Rates &each : sockets) {
		json.begin_object();
		write_members(json, *each.record,
			      ~bits_of(MOX_CAPTURE_SOCKET_COOKIE, MOX_CAPTURE_SOCKET_PID,
				       MOX_CAPTURE_SOCKET_PROCESS, MOX_CAPTURE_SOCKET_LOCATION));
		write_rate(json, "matched", each.in);
		write_rate(json, "read", each.kept);
		write_rate(json, "dropped", each.lost);
		json.member("queued", each.queued);
		json.end_object();
	}
	json.end_array();
	json.end_object();
	return text + "\n";
}

} // namespace

Status watch(const Options &options, CaptureClient &client, const World &world)
{
	auto sample = [&] {
		Sample now;
		now.time = world.clock();
		now.locations = client.dump(MOX_CAPTURE_CMD_LOCATIONS,
					    locations_request(options.selection));
		keep_locations(now.locations, options.selection);
		now.sockets = client.dump(MOX_CAPTURE_CMD_SOCKETS,
					  selection_request(options.selection));
		return now;
	};
	const Milliseconds interval(static_cast<long long>(options.interval * 1000));
	Sample before = sample();
	for (std::uint64_t shown = 0; options.count == 0 || shown < options.count; ++shown) {
		// A signal may have come while the sample was received.
		if (!world.stopped())
			world.sleep(interval);
		if (world.stopped())
			break;
		Sample after = sample();
		double seconds = std::max<double>(
					 static_cast<double>((after.time - before.time).count()),
					 1) /
				 1000;
		auto locations = rates_of(before.locations, after.locations, seconds,
					  totals_of_location);
		auto sockets = rates_of(before.sockets, after.sockets, seconds, totals_of_socket);
		std::size_t most = std::min(kBusiest, sockets.size());
		std::partial_sort(sockets.begin(), sockets.begin() + static_cast<long>(most),
				  sockets.end(),
				  [](const Rates &a, const Rates &b) { return a.in > b.in; });
		sockets.resize(most);
		if (options.json)
			world.print(json_of(seconds, locations, sockets));
		else if (world.terminal)
			world.print("\x1b[H\x1b[J" + text_of(locations, sockets));
		else
			world.print(text_of(locations, sockets) + "\n");
		world.flush();
		before = std::move(after);
	}
	return status_ok;
}

} // namespace moxctl
