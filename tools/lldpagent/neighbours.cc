/* SPDX-License-Identifier: GPL-2.0-only */
#include "neighbours.h"

#include <algorithm>

namespace lldp {

Change NeighbourTable::update(std::uint32_t ifindex, Lldpdu pdu, Time now)
{
	Key key{ ifindex, pdu.chassis, pdu.port };
	auto known = neighbours_.find(key);

	if (pdu.ttl == 0) {
		if (known == neighbours_.end())
			return Change::kUnknown;
		neighbours_.erase(known);
		return Change::kRemoved;
	}

	Time expires = now + std::chrono::seconds(pdu.ttl);
	if (known == neighbours_.end()) {
		auto of_port = std::count_if(neighbours_.begin(), neighbours_.end(),
					     [ifindex](const auto &each) {
						     return std::get<0>(each.first) == ifindex;
					     });
		if (static_cast<std::size_t>(of_port) >= most_of_a_port_)
			return Change::kRefused;
		neighbours_.emplace(std::move(key), Neighbour{ std::move(pdu), now, expires });
		return Change::kAdded;
	}
	Change change = known->second.pdu == pdu ? Change::kRefreshed : Change::kChanged;
	known->second = { std::move(pdu), now, expires };
	return change;
}

std::vector<NeighbourTable::Map::node_type> NeighbourTable::age(Time now)
{
	std::vector<Map::node_type> gone;
	for (auto each = neighbours_.begin(); each != neighbours_.end();) {
		auto next = std::next(each);
		if (each->second.expires <= now)
			gone.push_back(neighbours_.extract(each));
		each = next;
	}
	return gone;
}

std::optional<Time> NeighbourTable::next_expiry() const
{
	auto first = std::min_element(neighbours_.begin(), neighbours_.end(),
				      [](const auto &a, const auto &b) {
					      return a.second.expires < b.second.expires;
				      });
	if (first == neighbours_.end())
		return std::nullopt;
	return first->second.expires;
}

} // namespace lldp
