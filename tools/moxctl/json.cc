/* SPDX-License-Identifier: GPL-2.0-only */
#include "json.h"

#include "mox/rule.h"
#include "report_lines.h"

#include <arpa/inet.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace moxctl {
namespace {

using Json = nlohmann::ordered_json;

Json json_of(const RuleData &rule);
Json json_of(const Socket &socket);
Json json_of(const Match &match);
Json json_of(const FilterEntry &entry);
Json json_of(const CpuQueue &queue);

Json code_value(const std::string &text)
{
	unsigned code = 0, sub_code = 0;
	if (std::sscanf(text.c_str(), "code: %u, subcode: %u", &code, &sub_code) != 2)
		return text;
	return { { "code", code }, { "subcode", sub_code } };
}

Json decimal_value(mox::ValueKind kind, const std::string &text)
{
	long long number = std::strtoll(text.c_str(), nullptr, 10);
	switch (kind) {
	case mox::ValueKind::kArpOperation:
		return ntohs(static_cast<std::uint16_t>(number));
	case mox::ValueKind::kAttribute:
		return static_cast<std::uint32_t>(number);
	default:
		return number;
	}
}

Json value_of(const std::string &type, const std::string &text)
{
	auto types = mox::rule_types();
	auto row = std::find_if(types.begin(), types.end(),
				[&](const mox::RuleType &each) { return each.full == type; });
	if (row == types.end() || text == "illegal regular type!")
		return text;
	switch (row->kind) {
	case mox::ValueKind::kCode:
		return code_value(text);
	case mox::ValueKind::kMac:
	case mox::ValueKind::kEtherType:
		return text;
	default:
		return decimal_value(row->kind, text);
	}
}

Json json_of(const RuleData &rule)
{
	Json values = Json::array();
	for (const std::string &value : rule.values)
		values.push_back(value_of(rule.type, value));
	return { { "type", rule.type }, { "values", std::move(values) } };
}

template <typename Part> Json list_of(const std::vector<Part> &parts)
{
	Json list = Json::array();
	for (const Part &part : parts)
		list.push_back(json_of(part));
	return list;
}

Json json_of(const Counters &counters)
{
	Json object = Json::object();
	for (const auto &[name, value] : counters)
		object[name] = value;
	return object;
}

Json json_of(const Socket &socket)
{
	return { { "process", socket.process },
		 { "pid", socket.pid },
		 { "vsd", socket.vsd },
		 { "running", socket.running },
		 { "control_data", socket.control_data },
		 { "ifindex", socket.interface },
		 { "location", socket.location },
		 { "treatment", socket.treatment },
		 { "rules", list_of(socket.rules) },
		 { "counters", json_of(socket.counters) } };
}

Json json_of(const Match &match)
{
	return { { "process", match.process },
		 { "treatment", match.treatment },
		 { "rules", list_of(match.rules) } };
}

Json json_of(const FilterEntry &entry)
{
	Json object = json_of(entry.rule);
	object["matches"] = list_of(entry.matches);
	return object;
}

Json json_of(const CpuQueue &queue)
{
	return { { "cpu", queue.cpu }, { "efbuffs", queue.count } };
}

Json json_of(const LocationReport &location, unsigned kind)
{
	Json object = { { "location", location.name }, { "queues", list_of(location.queues) } };
	if (kind & report_rules) {
		object["sockets"] = list_of(location.sockets);
		object["filter_list"] = list_of(location.filters);
	}
	return object;
}

} // namespace

std::string to_json(const Report &report, unsigned kind)
{
	Json object = Json::object();
	if (kind & (report_rules | report_queues)) {
		Json locations = Json::array();
		for (const LocationReport &location : report.locations)
			locations.push_back(json_of(location, kind));
		object["locations"] = std::move(locations);
	}
	if (kind & report_process)
		object["sockets"] = list_of(report.sockets);
	if (kind & report_memory) {
		Json &memory = object["memory"] = Json::object();
		for (const auto &[section, counters] : report.memory)
			memory[section] = json_of(counters);
	}
	if (kind & report_thread)
		object["thread"] = json_of(report.thread);
	object["complete"] = report.problems.empty();
	object["problems"] = report.problems;
	// A process name may hold any bytes, among them controls of a terminal: ASCII alone has none that JSON leaves.
	return object.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

} // namespace moxctl
