// SPDX-License-Identifier: GPL-2.0
/* The counters of a socket: every one of them, in the record's and in the report's order. */
#pragma once

#include "base/table_order.hpp"
#include "base/sync.hpp"
#include "mox_packet_tables.h"

namespace mox {

struct Counter {
	u32 mox_packet_counters::*field;
	const char *label;
	u8 line;
};

/** In the record's order. */
inline constexpr Counter kCounters[] = {
#define MOX_ROW(field, label, line, meaning) { &mox_packet_counters::field, label, line },
	MOX_PACKET_COUNTER_TABLE(MOX_ROW)
#undef MOX_ROW
};
inline constexpr u32 kCounterCount = sizeof(kCounters) / sizeof(kCounters[0]);

/** The rows in the report's order. */
inline constexpr auto kCounterLines = rows_by_line(kCounters);

/** Sets every counter to 0: the send counters go with the others. Any context. */
inline void clear_counters(mox_packet_counters &counters)
{
	/* Delivery and sends count without a lock: each word is cleared by itself. */
	for (const Counter &counter : kCounters)
		store(counters.*counter.field, 0u);
}

} // namespace mox
