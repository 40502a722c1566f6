/* SPDX-License-Identifier: GPL-2.0-only */
/* The text that moxsend prints, in whole lines. */
#ifndef MOXSEND_FORMAT_H
#define MOXSEND_FORMAT_H

#include "sender.h"

#include <cstdint>
#include <optional>
#include <string>

namespace moxsend {

/** For people: what was sent, and a line for each kind of failure. */
std::string format_summary(const Counters &counters);
/** For scripts: name=value words. */
std::string format_counters(const Counters &counters);
/** Progress; total is in frames. Without an end of line. */
std::string format_progress(const Counters &counters, const std::optional<std::uint64_t> &total);

/** Where a frame would go and with what record, as a comment of a file of hexadecimal digits; empty: nothing to say. */
std::string format_request(const mox::SendRequest &request);

} // namespace moxsend

#endif
