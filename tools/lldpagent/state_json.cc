/* SPDX-License-Identifier: GPL-2.0-only */
#include "state.h"

#include "state_parts.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string_view>
#include <utility>

namespace lldp {
namespace {

using Json = nlohmann::ordered_json;

/** The bytes of a neighbour's text, which need not be UTF-8, as the characters U+0000 to U+00FF. */
std::string characters(std::string_view bytes)
{
	std::string text;
	for (char c : bytes) {
		auto byte = static_cast<unsigned char>(c);
		if (byte < 0x80) {
			text += c;
		} else {
			text += static_cast<char>(0xc0 | byte >> 6);
			text += static_cast<char>(0x80 | (byte & 0x3f));
		}
	}
	return text;
}

Json list_of_names(std::uint16_t bits)
{
	Json list = Json::array();
	std::istringstream names(capability_names(bits));
	for (std::string name; std::getline(names, name, ',');)
		list.push_back(name);
	return list;
}

Json json_of(const std::string &port, const Neighbour &neighbour, Time now)
{
	const Lldpdu &pdu = neighbour.pdu;
	Json object = {
		{ "port", characters(port) },
		{ "chassis", characters(chassis_text(pdu.chassis)) },
		{ "neighbour_port", characters(port_text(pdu.port)) },
		{ "ttl", pdu.ttl },
		{ "heard_ago", seconds_of(now - neighbour.heard) },
		{ "expires_in", seconds_left(neighbour, now) },
	};
	if (pdu.port_description)
		object["port_description"] = characters(*pdu.port_description);
	if (pdu.system_name)
		object["system_name"] = characters(*pdu.system_name);
	if (pdu.system_description)
		object["system_description"] = characters(*pdu.system_description);
	if (pdu.capabilities) {
		object["capabilities"] = list_of_names(pdu.capabilities->available);
		object["enabled"] = list_of_names(pdu.capabilities->enabled);
	}
	Json &management = object["management"] = Json::array();
	for (const ManagementAddress &each : pdu.management)
		management.push_back(address_text(each.family, each.address));
	return object;
}

Json json_of(const PortState &port)
{
	Json object = { { "name", characters(port.port.name) },
			{ "ifindex", port.port.ifindex },
			{ "mac", hex(port.mac) } };
	for (const CounterName &each : kCounterNames)
		object[each.name] = port.counters.*each.member;
	return object;
}

/** Control characters as \u00XX throughout: the library has short forms for five of them. */
std::string with_long_escapes(const std::string &json)
{
	static constexpr std::pair<char, std::string_view> kLongForms[] = { { 'b', "u0008" },
									    { 't', "u0009" },
									    { 'n', "u000a" },
									    { 'f', "u000c" },
									    { 'r', "u000d" } };
	std::string text;
	for (std::size_t at = 0; at < json.size(); ++at) {
		text += json[at];
		if (json[at] != '\\')
			continue;
		char kind = json[++at];
		auto form = std::find_if(std::begin(kLongForms), std::end(kLongForms),
					 [kind](const auto &each) { return each.first == kind; });
		text += form == std::end(kLongForms) ? std::string(1, kind)
						     : std::string(form->second);
	}
	return text;
}

} // namespace

std::string state_as_json(const Agent &agent, Time now)
{
	Json neighbours = Json::array(), ports = Json::array();
	for (const auto &[key, neighbour] : agent.neighbours().all())
		neighbours.push_back(json_of(agent.port_name(std::get<0>(key)), neighbour, now));
	for (const PortState &port : agent.ports())
		ports.push_back(json_of(port));
	Json object = { { "neighbours", std::move(neighbours) },
			{ "ports", std::move(ports) },
			{ "strays", agent.strays() } };
	constexpr int kOneLine = -1;
	return with_long_escapes(object.dump(kOneLine, ' ', true)) + "\n";
}

} // namespace lldp
