/* SPDX-License-Identifier: GPL-2.0-only */
#include "request.h"

#include <cstddef>
#include <cstring>

namespace moxctl {
namespace {

constexpr std::size_t kHeadSize = offsetof(mox_packet_request, body);

/** The record's first bytes: the head and body_size bytes of the body. */
Request cut(const mox_packet_request &record, std::size_t body_size)
{
	Request bytes(kHeadSize + body_size);
	std::memcpy(bytes.data(), &record, bytes.size());
	return bytes;
}

mox_packet_request record_of(std::uint32_t type)
{
	// Assignment of {} would clear the union's first member alone.
	mox_packet_request record;
	std::memset(&record, 0, sizeof(record));
	record.msg_type = static_cast<std::uint16_t>(type);
	return record;
}

Request plain(std::uint32_t type)
{
	return cut(record_of(type), 0);
}

Request process(const Options &options)
{
	if (options.process.empty()) {
		mox_packet_request record = record_of(MOX_MSG_SHOW_PID);
		record.body.pid = options.pid;
		return cut(record, sizeof(record.body.pid));
	}
	mox_packet_request record = record_of(MOX_MSG_SHOW_NAME);
	options.process.copy(record.body.name, sizeof(record.body.name) - 1);
	return cut(record, sizeof(record.body.name));
}

Request debug_switch(std::uint32_t type, bool is_open)
{
	mox_packet_request record = record_of(MOX_MSG_DEBUG);
	record.body.debug.type = type;
	record.body.debug.is_open = is_open;
	return cut(record, sizeof(record.body.debug));
}

Request filter(const mox_packet_filter &filter)
{
	mox_packet_request record = record_of(MOX_MSG_FILTER);
	record.body.filter = filter;
	return cut(record, sizeof(record.body.filter));
}

} // namespace

std::vector<Request> requests_of(const Options &options)
{
	switch (options.action) {
	case Action::kShowRules:
		if (options.location == 0)
			return { plain(MOX_MSG_SHOW_ALL) };
		return { plain(MOX_MSG_SHOW_FIRST + options.location - 1) };
	case Action::kShowQueues:
		return { plain(MOX_MSG_SHOW_QUEUES) };
	case Action::kShowMemory:
		return { plain(MOX_MSG_SHOW_MEMORY) };
	case Action::kShowThread:
		return { plain(MOX_MSG_SHOW_THREAD) };
	case Action::kShowProcess:
		return { process(options) };
	case Action::kFilter:
		return { filter(options.filter) };
	case Action::kTech:
		return { plain(MOX_MSG_TECH) };
	default:
		break;
	}
	std::vector<Request> requests;
	for (std::uint32_t type : options.switches)
		requests.push_back(debug_switch(type, options.is_open));
	return requests;
}

} // namespace moxctl
