/* SPDX-License-Identifier: GPL-2.0-only */
/* The agent: what it announces, when and on which port, and how it handles received frames. Independent of sockets. */
#ifndef LLDPAGENT_AGENT_H
#define LLDPAGENT_AGENT_H

#include "line_limit.h"
#include "neighbours.h"

#include <functional>

namespace lldp {

struct Port {
	std::uint32_t ifindex = 0; /**< the platform's */
	std::string name;          /**< the port id that is announced */
	auto operator<=>(const Port &) const = default;
};

/** What the agent announces of the device, and how often. */
struct Identity {
	std::optional<Mac> chassis; /**< nothing: the MAC address of the first port */
	std::string name;
	std::string description;
	std::optional<Capabilities> capabilities;
	std::vector<ManagementAddress> management;
	unsigned interval = 30; /**< seconds between announcements, 1 to 3600 */
	unsigned hold = 4;      /**< announcements that fit into a TTL, 1 to 100 */
};

/** Sends frames out of ports. */
class Wire {
public:
	virtual ~Wire() = default;
	/** Sends a frame out of the port. 0, or an errno. */
	virtual int send(std::uint32_t ifindex, View frame) = 0;
};

/** Counted for each port since the start. */
struct Counters {
	std::uint64_t sent = 0; /**< announcements and shutdowns that the platform accepted */
	std::uint64_t send_failures = 0;
	std::uint64_t received = 0;  /**< LLDP frames, the discarded ones included */
	std::uint64_t discarded = 0; /**< of these, malformed ones */
	std::uint64_t refused = 0;   /**< of these, from neighbours beyond the limit */
	std::uint64_t tlvs_discarded = 0;
	std::uint64_t tlvs_unrecognised = 0;
	std::uint64_t aged = 0; /**< neighbours whose TTL ran out */
};

struct PortState {
	Port port;
	Mac mac{};
	int send_error = 0; /**< of the last send; 0: it went well */
	Counters counters;
	LineLimit lines; /**< about neighbours: a station can cause one with every frame */
};

class Agent {
public:
	/** Takes a line for the operator, without a newline. */
	using Log = std::function<void(const std::string &line)>;

	/** ports is not empty, no index and no name is there twice, macs has the address of each. wire has to outlive it. */
	Agent(Identity identity, const std::vector<Port> &ports, const std::vector<Mac> &macs,
	      std::size_t most_of_a_port, Wire &wire, Log log);

	/** Does what is due: announcements on every port, the first at once, and ageing. */
	void run(Time now);
	/** When run is to be called next, at the latest. */
	Time due() const;

	/** A frame that came in on an interface. One of an interface that is no port counts as stray. */
	void receive(std::uint32_t ifindex, View frame, Time now);

	/** Announces a shutdown on every port, and logs how many lines were left out until then. */
	void shut_down();

	const Identity &identity() const { return identity_; }
	const std::vector<PortState> &ports() const { return ports_; }
	const NeighbourTable &neighbours() const { return neighbours_; }
	std::uint64_t strays() const { return strays_; }
	/** Name of one of the ports; never fails for a key of the table. */
	const std::string &port_name(std::uint32_t ifindex) const;

private:
	Lldpdu announcement_of(const PortState &port) const;
	void send(PortState &port, const Lldpdu &pdu);
	/** Logs a line about a neighbour, if the port's limit allows it. */
	void log_neighbour(PortState &port, const std::string &line, Time now);
	/** Logs how many lines were left out, if the minute is over. */
	void log_left_out(PortState &port, Time now);
	PortState *find(std::uint32_t ifindex);

	Identity identity_;
	std::vector<PortState> ports_;
	NeighbourTable neighbours_;
	Wire &wire_;
	Log log_;
	std::optional<Time> next_announcement_; /**< nothing: at once */
	std::uint64_t strays_ = 0;
};

} // namespace lldp

#endif
