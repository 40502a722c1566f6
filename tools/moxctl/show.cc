/* SPDX-License-Identifier: GPL-2.0-only */
#include "show.h"

#include "mox_packet.h"

namespace moxctl {

CaptureRequest selection_request(const Selection &selection)
{
	CaptureRequest request;
	if (selection.location != 0)
		request.add(MOX_CAPTURE_REQUEST_LOCATION, selection.location);
	if (selection.pid)
		request.add(MOX_CAPTURE_REQUEST_PID, *selection.pid);
	if (selection.cookie)
		request.add(MOX_CAPTURE_REQUEST_COOKIE, *selection.cookie);
	return request;
}

CaptureRequest locations_request(const Selection &selection)
{
	Selection ledgers{ .location = selection.location };
	if (library_of(selection.location) != selection.location)
		ledgers.location = 0;
	return selection_request(ledgers);
}

void keep_locations(Dump &locations, const Selection &selection)
{
	if (selection.location == 0)
		return;
	std::erase_if(locations.entries, [&](const Record &record) {
		std::uint64_t location = record.number(MOX_CAPTURE_LOCATION_LOCATION);
		return location != selection.location && location != library_of(selection.location);
	});
}

std::uint32_t library_of(std::uint64_t location)
{
	if (location == PACKET_LEV2_RESV_LOC || location == PACKET_LEV3_RESV_LOC)
		return PACKET_RESV_LOC;
	return static_cast<std::uint32_t>(location);
}

JsonWriter::Spill spill_to(const World &world)
{
	return [&world](std::string &text) {
		world.print(text);
		text.clear();
	};
}

void Problems::check(const Dump &dump, const char *what)
{
	if (dump.interrupted)
		add(std::string("the ") + what + " changed while they were read, " +
		    std::to_string(kDumpAttempts) +
		    " times in a row: an entry may be missing, or there twice");
}

void Problems::write(JsonWriter &json) const
{
	json.member("complete", texts_.empty());
	json.key("problems");
	json.begin_array();
	for (const std::string &text : texts_)
		json.text(text);
	json.end_array();
}

Status Problems::complain(const World &world) const
{
	for (const std::string &text : texts_)
		world.complain("the report is incomplete: " + text);
	return texts_.empty() ? status_ok : status_incomplete;
}

Status finish(std::string &text, JsonWriter &json, const Problems &problems, const World &world)
{
	problems.write(json);
	json.end_object();
	text += '\n';
	world.print(text);
	return problems.complain(world);
}

} // namespace moxctl
