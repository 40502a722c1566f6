/* SPDX-License-Identifier: GPL-2.0 */
/* Who is behind which port, as long as their announcements hold. */
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
    kRefreshed, /**< known, and says the same */
    kChanged,   /**< known, and says something new */
    kRemoved,   /**< a shutdown of a neighbour in the list */
    kUnknown,   /**< a shutdown of another one */
    kRefused,   /**< new, and its port has as many as it may */
};

/** A neighbour is identified by the port that receives its frames, its chassis id and its port id. */
class NeighbourTable {
public:
    using Key = std::tuple<std::uint32_t, Id, Id>;
    using Map = std::map<Key, Neighbour>;

    /** A limit for each port, since anybody can make up neighbours, and must not crowd out those of other ports. */
    explicit NeighbourTable(std::size_t most_of_a_port) : most_of_a_port_(most_of_a_port) {}

    /** Takes in an announcement that came in on an interface. */
    Change update(std::uint32_t ifindex, Lldpdu pdu, Time now);

    /** Removes those whose TTL has run out, and returns them. */
    std::vector<Map::node_type> age(Time now);

    /** When the next one runs out; nothing while there is none. */
    std::optional<Time> next_expiry() const;

    const Map& all() const { return neighbours_; }

private:
    std::size_t most_of_a_port_;
    Map neighbours_;
};

} // namespace lldp

#endif
