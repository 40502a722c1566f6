/* SPDX-License-Identifier: GPL-2.0-only */
/* Why a frame does not arrive, or is not sent: the counters and verdicts of "mox_capture", each with its remedy. */
#ifndef MOXCTL_CAPTURE_REASONS_H
#define MOXCTL_CAPTURE_REASONS_H

#include "capture_record.h"

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace moxctl {

/** A counter, a verdict, or both of the same event. docs/troubleshooting.md has the same rows. */
struct ReasonRow {
	Set set;                 /**< of the counter; kNone: a verdict alone */
	std::uint16_t attribute; /**< its number; 0: a verdict alone */
	std::uint32_t verdict;   /**< 0: a counter alone */
	bool loss;               /**< the counter counts frames that were lost */
	std::string_view remedy;

	/** The counter's name as JSON has it, or empty. */
	std::string counter() const;
	/** The counter's meaning in the header, or the verdict's. */
	std::string_view meaning() const;
};

/** All rows: locations first, then sockets, then verdicts alone. */
std::span<const ReasonRow> capture_reasons();

/** The row of a verdict; null beyond the table. */
const ReasonRow *reason_of_verdict(std::uint32_t verdict);

/** Counters of a socket for frames that were offered to it and dropped. */
inline constexpr std::uint16_t kReceiveDrops[] = {
	MOX_CAPTURE_COUNTERS_FILTER_DROPS,
	MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS,
	MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS,
	MOX_CAPTURE_COUNTERS_MEMORY_DROPS,
};

/** Frames that one sum of a ledger has and its parts do not have, or have no more. */
struct InFlight {
	std::string_view sum; /**< the sum, as JSON has the counters' names */
	std::int64_t frames;
};

/**
 * The sums of a ledger, of the sets LOCATION or SOCKET, that do not balance: counters are read while frames pass. A sum
 * whose counters the module does not have is left out.
 */
std::vector<InFlight> in_flight(const Record &record);

} // namespace moxctl

#endif
