/* SPDX-License-Identifier: GPL-2.0-only */
#include "agent.h"

#include "text.h"

#include <algorithm>
#include <cstring>

namespace lldp {
namespace {

constexpr unsigned kLongestTtl = 0xffff;

std::string who(const Id &chassis, const Id &port, const Lldpdu *pdu = nullptr)
{
	std::string text = chassis_text(chassis) + " " + port_text(port);
	if (pdu && pdu->system_name)
		text += " (" + printable(*pdu->system_name) + ")";
	return text;
}

} // namespace

Agent::Agent(Identity identity, const std::vector<Port> &ports, const std::vector<Mac> &macs,
	     std::size_t most_of_a_port, Wire &wire, Log log)
	: identity_(std::move(identity)), neighbours_(most_of_a_port), wire_(wire),
	  log_(std::move(log))
{
	for (std::size_t i = 0; i < ports.size(); ++i) {
		PortState state;
		state.port = ports[i];
		state.mac = macs.at(i);
		ports_.push_back(std::move(state));
	}
	if (!identity_.chassis)
		identity_.chassis = macs.at(0);
}

Lldpdu Agent::announcement_of(const PortState &port) const
{
	Lldpdu pdu;
	pdu.chassis = { chassis_mac, Bytes(identity_.chassis->begin(), identity_.chassis->end()) };
	pdu.port = { port_interface_name, Bytes(port.port.name.begin(), port.port.name.end()) };
	// One second more than the announcements take: the last one may be late.
	pdu.ttl = static_cast<std::uint16_t>(
		std::min(identity_.interval * identity_.hold + 1, kLongestTtl));
	pdu.port_description = "interface " + std::to_string(port.port.ifindex);
	pdu.system_name = identity_.name;
	pdu.system_description = identity_.description;
	pdu.capabilities = identity_.capabilities;
	pdu.management = identity_.management;
	for (ManagementAddress &each : pdu.management)
		each.interface = port.port.ifindex;
	return pdu;
}

void Agent::send(PortState &port, const Lldpdu &pdu)
{
	int error = wire_.send(port.port.ifindex, frame_of(port.mac, encode(pdu)));
	if (error)
		++port.counters.send_failures;
	else
		++port.counters.sent;
	// A port whose link is down fails every time: only a change is logged, the counters have the rest.
	if (error && error != port.send_error)
		log_(port.port.name + ": cannot announce: " + std::strerror(error));
	else if (!error && port.send_error)
		log_(port.port.name + ": announcing again");
	port.send_error = error;
}

void Agent::log_left_out(PortState &port, Time now)
{
	std::uint64_t left_out = port.lines.take_left_out(now);
	if (left_out != 0)
		log_(port.port.name + ": " + std::to_string(left_out) +
		     (left_out == 1 ? " more line about neighbours was"
				    : " more lines about neighbours were") +
		     " left out within a minute");
}

void Agent::log_neighbour(PortState &port, const std::string &line, Time now)
{
	log_left_out(port, now);
	if (port.lines.admit(now))
		log_(port.port.name + ": " + line);
}

void Agent::run(Time now)
{
	if (!next_announcement_ || *next_announcement_ <= now) {
		for (PortState &port : ports_)
			send(port, announcement_of(port));
		// Counted from now and not from the time it was due: after a halt of the machine there must be no burst.
		next_announcement_ = now + std::chrono::seconds(identity_.interval);
	}
	for (const auto &gone : neighbours_.age(now)) {
		const auto &[ifindex, chassis, port] = gone.key();
		PortState *state = find(ifindex);
		if (!state)
			continue;
		++state->counters.aged;
		log_neighbour(*state,
			      "lost " + who(chassis, port, &gone.mapped().pdu) +
				      ": not heard for its TTL of " +
				      std::to_string(gone.mapped().pdu.ttl) + " s",
			      now);
	}
	for (PortState &port : ports_)
		log_left_out(port, now);
}

Time Agent::due() const
{
	if (!next_announcement_)
		return Time::min();
	Time due = *next_announcement_;
	if (auto expiry = neighbours_.next_expiry())
		due = std::min(due, *expiry);
	for (const PortState &port : ports_)
		if (auto end = port.lines.due())
			due = std::min(due, *end);
	return due;
}

void Agent::receive(std::uint32_t ifindex, View frame, Time now)
{
	PortState *port = find(ifindex);
	if (!port) {
		++strays_;
		return;
	}
	++port->counters.received;
	auto bytes = lldpdu_of(frame);
	Decoded decoded;
	if (bytes)
		decoded = decode(*bytes);
	port->counters.tlvs_discarded += decoded.tlvs_discarded;
	port->counters.tlvs_unrecognised += decoded.tlvs_unrecognised;
	if (!decoded.pdu) {
		++port->counters.discarded;
		return;
	}

	Id chassis = decoded.pdu->chassis, port_id = decoded.pdu->port;
	switch (neighbours_.update(ifindex, *decoded.pdu, now)) {
	case Change::kAdded:
		log_neighbour(*port, "found " + who(chassis, port_id, &*decoded.pdu), now);
		break;
	case Change::kChanged:
		log_neighbour(*port, "changed: " + who(chassis, port_id, &*decoded.pdu), now);
		break;
	case Change::kRemoved:
		log_neighbour(*port, "left: " + who(chassis, port_id), now);
		break;
	case Change::kRefused:
		++port->counters.refused;
		break;
	case Change::kRefreshed:
	case Change::kUnknown:
		break;
	}
}

void Agent::shut_down()
{
	for (PortState &port : ports_) {
		send(port, shutdown_of(announcement_of(port)));
		log_left_out(port, Time::max());
	}
}

PortState *Agent::find(std::uint32_t ifindex)
{
	auto port = std::find_if(ports_.begin(), ports_.end(), [ifindex](const PortState &each) {
		return each.port.ifindex == ifindex;
	});
	return port == ports_.end() ? nullptr : &*port;
}

const std::string &Agent::port_name(std::uint32_t ifindex) const
{
	return std::find_if(ports_.begin(), ports_.end(),
			    [ifindex](const PortState &each) {
				    return each.port.ifindex == ifindex;
			    })
		->port.name;
}

} // namespace lldp
