/* SPDX-License-Identifier: GPL-2.0-only */
/* What both forms of the agent's state have in common: the counters' names and how times are shown. */
#ifndef LLDPAGENT_STATE_PARTS_H
#define LLDPAGENT_STATE_PARTS_H

#include "agent.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace lldp {

/** A counter of a port. */
struct CounterName {
	const char *name;    /**< in JSON */
	const char *heading; /**< of its column in the text */
	std::uint64_t Counters::*member;
};

constexpr CounterName kCounterNames[] = {
	{ "sent", "  sent", &Counters::sent },
	{ "send_failures", "failed", &Counters::send_failures },
	{ "received", "received", &Counters::received },
	{ "discarded", "discarded", &Counters::discarded },
	{ "refused", "refused", &Counters::refused },
	{ "tlvs_discarded", "bad TLVs", &Counters::tlvs_discarded },
	{ "tlvs_unrecognised", "unknown TLVs", &Counters::tlvs_unrecognised },
	{ "aged", "aged", &Counters::aged },
};

/** Whole seconds of a span, rounded down. */
inline long seconds_of(Time::duration span)
{
	return static_cast<long>(std::chrono::floor<std::chrono::seconds>(span).count());
}

/**
 * Seconds until a neighbour expires. Never below 0: one that expired a moment ago
 * is in the list until the agent's next turn.
 */
inline long seconds_left(const Neighbour &neighbour, Time now)
{
	return std::max(0l, seconds_of(neighbour.expires - now));
}

} // namespace lldp

#endif
