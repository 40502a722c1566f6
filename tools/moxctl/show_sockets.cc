/* SPDX-License-Identifier: GPL-2.0-only */
#include "show.h"

#include "capture_reasons.h"
#include "capture_values.h"
#include "text_table.h"

namespace moxctl {
namespace {

using Align = TextTable::Align;

std::uint64_t drops_of(const Record &counters)
{
	std::uint64_t drops = 0;
	for (std::uint16_t each : kReceiveDrops)
		drops += counters.number(each);
	return drops;
}

/** What the socket does, in one word. */
std::string_view state_of(const Record &socket)
{
	if (socket.has(MOX_CAPTURE_SOCKET_RUNNING))
		return "running";
	return socket.number(MOX_CAPTURE_SOCKET_LOCATION) == 0 ? "no location" : "stopped";
}

std::string text_of(const Dump &sockets, InterfaceNames &interfaces)
{
	TextTable table({ { "PROCESS" },
			  { "PID", Align::kRight },
			  { "COOKIE", Align::kRight },
			  { "LOCATION" },
			  { "TREATMENT" },
			  { "STATE" },
			  { "INTERFACE" },
			  { "MATCHED", Align::kRight },
			  { "RECEIVED", Align::kRight },
			  { "DROPPED", Align::kRight },
			  { "READ", Align::kRight },
			  { "QUEUED", Align::kRight },
			  { "SENT", Align::kRight } });
	const Record none(Set::kCounters);
	for (const Record &socket : sockets.entries) {
		const Record *nest = socket.nest(MOX_CAPTURE_SOCKET_COUNTERS);
		const Record &counters = nest ? *nest : none;
		table.row();
		table.add(socket.text(MOX_CAPTURE_SOCKET_PROCESS));
		table.add(std::to_string(
			static_cast<std::int64_t>(socket.number(MOX_CAPTURE_SOCKET_PID))));
		table.add(socket.number(MOX_CAPTURE_SOCKET_COOKIE));
		table.add(short_location(socket.number(MOX_CAPTURE_SOCKET_LOCATION)));
		table.add(short_treatment(socket.number(MOX_CAPTURE_SOCKET_TREATMENT)));
		table.add(state_of(socket));
		table.add(interfaces.name(
			static_cast<std::uint32_t>(socket.number(MOX_CAPTURE_SOCKET_IFINDEX))));
		table.add(counters.number(MOX_CAPTURE_COUNTERS_MATCHED));
		table.add(counters.number(MOX_CAPTURE_COUNTERS_RECV_PACKETS));
		table.add(drops_of(counters));
		table.add(counters.number(MOX_CAPTURE_COUNTERS_READ));
		table.add(socket.number(MOX_CAPTURE_SOCKET_QUEUE));
		table.add(counters.number(MOX_CAPTURE_COUNTERS_SEND_PACKETS));
	}
	std::string text;
	table.print(text);
	return text;
}

} // namespace

Status show_sockets(const Options &options, CaptureClient &client, const World &world)
{
	Dump sockets = client.dump(MOX_CAPTURE_CMD_SOCKETS, selection_request(options.selection));
	Problems problems;
	problems.check(sockets, "sockets");
	InterfaceNames interfaces(world.interface_name);
	if (!options.json) {
		world.print(text_of(sockets, interfaces));
		return problems.complain(world);
	}
	std::string text;
	JsonWriter json(text, spill_to(world));
	json.begin_object();
	json.key("sockets");
	json.begin_array();
	for (const Record &socket : sockets.entries) {
		json.begin_object();
		write_members(json, socket);
		json.end_object();
	}
	json.end_array();
	return finish(text, json, problems, world);
}

} // namespace moxctl
