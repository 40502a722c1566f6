/* SPDX-License-Identifier: GPL-2.0-only */
/* Names of what message type MOX_MSG_DEBUG switches: debug switches and hooks. */
#ifndef MOXCTL_SWITCHES_H
#define MOXCTL_SWITCHES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace moxctl {

/**
 * The debug types (enum mox_packet_debug_type) that a name means: "general", "deliver", "receive", these two with
 * "-LOCATION", or "all" for the first three. Throws UsageError listing the allowed names.
 */
std::vector<std::uint32_t> parse_debug_path(std::string_view text);

/**
 * The debug type of a location's hook, or of all hooks. Throws UsageError listing the allowed names, also for the
 * locations that have no hook of their own.
 */
std::uint32_t parse_hook(std::string_view text);

/**
 * The number of a location that has a report: 1 to 8, those included at which nothing can capture. Throws UsageError
 * listing the allowed names.
 */
std::uint32_t parse_reported_location(std::string_view text);

/** Lists for help texts, one indented line each. */
std::string debug_path_help();
std::string hook_help();
std::string reported_location_help();

} // namespace moxctl

#endif
