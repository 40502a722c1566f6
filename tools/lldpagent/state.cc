/* SPDX-License-Identifier: GPL-2.0-only */
#include "state.h"

#include "state_parts.h"
#include "text.h"

#include <cstdio>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace lldp {
namespace {

void describe(std::ostream &out, const std::string &port, const Neighbour &neighbour, Time now)
{
	const Lldpdu &pdu = neighbour.pdu;
	auto line = [&out](const char *what, const std::string &value) {
		char head[32];
		std::snprintf(head, sizeof(head), "  %-19s ", what);
		out << head << value << "\n";
	};
	out << port << ": " << chassis_text(pdu.chassis) << ", " << port_text(pdu.port) << "\n";
	line("heard", std::to_string(seconds_of(now - neighbour.heard)) + " s ago, TTL " +
			      std::to_string(pdu.ttl) + " s, " +
			      std::to_string(seconds_left(neighbour, now)) + " s left");
	if (pdu.system_name)
		line("system name", printable(*pdu.system_name));
	if (pdu.system_description)
		line("system description", printable(*pdu.system_description));
	if (pdu.port_description)
		line("port description", printable(*pdu.port_description));
	if (pdu.capabilities)
		line("capabilities", capabilities_text(*pdu.capabilities));
	for (const ManagementAddress &each : pdu.management)
		line("management address", address_text(each.family, each.address));
}

} // namespace

std::string state_as_text(const Agent &agent, Time now)
{
	std::ostringstream out;
	out << "Neighbours: " << agent.neighbours().all().size() << "\n";
	for (const auto &[key, neighbour] : agent.neighbours().all())
		describe(out, agent.port_name(std::get<0>(key)), neighbour, now);

	out << "Counters:\n";
	out << std::left << std::setw(14) << "  port" << std::right << std::setw(6) << "index"
	    << std::setw(19) << "mac";
	for (const CounterName &each : kCounterNames)
		out << "  " << each.heading;
	out << "\n";
	for (const PortState &port : agent.ports()) {
		out << "  " << std::left << std::setw(12) << printable(port.port.name) << std::right
		    << std::setw(6) << port.port.ifindex << std::setw(19) << hex(port.mac);
		for (const CounterName &each : kCounterNames)
			out << "  " << std::setw(static_cast<int>(std::strlen(each.heading)))
			    << port.counters.*each.member;
		out << "\n";
	}
	if (agent.strays() != 0)
		out << "Frames of interfaces that are no ports of this agent: " << agent.strays()
		    << "\n";
	return out.str();
}

} // namespace lldp
