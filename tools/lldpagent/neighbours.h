/* SPDX-License-Identifier: GPL-2.0-only */
/* The neighbours of each port until their TTL runs out. */
#ifndef LLDPAGENT_NEIGHBOURS_H
#define LLDPAGENT_NEIGHBOURS_H

#include "lldpdu.h"

#include <chrono>
#include <map>
#include <tuple>

namespace lldp {

/** Time of a clock that does not follow the wall clock. Functions take it as an argument, so that tests can set it. */
using Time = std::chrono::steady_clock::time_point;

struct Neighbour {
	Lldpdu pdu;
	Time heard;   /**< of its last announcement */
	Time expires; /**< heard and its TTL */
};

/** What an announcement did to the table. */
enum class Change {
	kAdded,
	kRefreshed, /**< in the table, with the same content */
	kChanged,   /**< in the table, with new content */
	kRemoved,   /**< a shutdown of a neighbour in the list */
	kUnknown,   /**< a shutdown of another one */
	kRefused,   /**< new, and its port is at its limit */
};

/** A neighbour is identified by the port that receives its frames, its chassis id and its port id. */
class NeighbourTable {
public:
	using Key = std::tuple<std::uint32_t, Id, Id>;
	using Map = std::map<Key, Neighbour>;

	/** A limit for each port: a station that invents neighbours must not displace those of other ports. */
	explicit NeighbourTable(std::size_t most_of_a_port) : most_of_a_port_(most_of_a_port) {}

	/** Enters an announcement that was received on an interface. */
	Change update(std::uint32_t ifindex, Lldpdu pdu, Time now);

	/** Removes those whose TTL has run out, and returns them. */
	std::vector<Map::node_type> age(Time now);

	/** When the next one runs out; nothing while there is none. */
	std::optional<Time> next_expiry() const;

	const Map &all() const { return neighbours_; }

private:
	std::size_t most_of_a_port_;
	Map neighbours_;
};

} // namespace lldp

#endif
