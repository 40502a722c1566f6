// SPDX-License-Identifier: GPL-2.0-only
/*
 * The counters of a socket: those that reading PACKET_STATISTICS clears, in the record's
 * and in the report's order, and its ledger, which nothing clears.
 */
#pragma once

#include "base/table_order.hpp"
#include "base/total.hpp"

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

/** A counter of a socket by its attribute in the set of counters of mox_capture. */
using Tally = mox_capture_counters_attr;

/* Numbers of the cleared counters' fields in the ledger, which has them first, in their order. */
namespace ledger_order {
#define MOX_ROW(name, number, kind, field) inline constexpr u32 field = number;
MOX_CAPTURE_COUNTERS_TABLE(MOX_ROW)
#undef MOX_ROW
inline constexpr u32 kCleared[] = {
#define MOX_ROW(field, label, line, meaning) field,
	MOX_PACKET_COUNTER_TABLE(MOX_ROW)
#undef MOX_ROW
};
constexpr bool holds()
{
	for (u32 row = 0; row < kCounterCount; row++)
		if (kCleared[row] != row + 1)
			return false;
	return true;
}
static_assert(holds());
} // namespace ledger_order

/** The total of a socket's counter. */
inline mox_total &socket_total(mox_packet_sock *po, Tally which)
{
	return po->ledger.totals[which - 1];
}

inline const mox_total &socket_total(const mox_packet_sock *po, Tally which)
{
	return po->ledger.totals[which - 1];
}

/** Count for a socket, in the ledger and in the counter that a reading clears. Delivery only. */
template <Tally which> [[gnu::always_inline]] inline void tally(mox_packet_sock *po)
{
	if constexpr (which <= kCounterCount)
		bump(po->counters.*kCounters[which - 1].field);
	count(socket_total(po, which));
}

/** The same for what several CPUs may count at once. */
template <Tally which> inline void tally_shared(mox_packet_sock *po)
{
	if constexpr (which <= kCounterCount)
		bump(po->counters.*kCounters[which - 1].field);
	count_shared(socket_total(po, which));
}

/** Sets every counter to 0: the send counters go with the others. Any context. */
inline void clear_counters(mox_packet_counters &counters)
{
	/* Delivery and sends count without a lock: each word is cleared by itself. */
	for (const Counter &counter : kCounters)
		store(counters.*counter.field, 0u);
}

} // namespace mox
