// SPDX-License-Identifier: GPL-2.0-only
// Locations and hooks as the tests expect them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace contract {

enum HookId {
	kLocalHook,
	kLev2Hook,
	kIpv4Hook,
	kIpv6Hook,
	kMplsHook,
	kTrillHook,
	kResvHook,
	kWlanInHook,
	kWlanOutHook,
	kHookIds
};

struct Hook {
	const char *name; ///< in the tests' registration logs
	const char *symbol;
	const char *call; ///< reg_<call> and dereg_<call> of the platform; null: never registered
	/// Argument of that call; of a module record, bytes 12 and 13 of its descriptor (low, high).
	uint32_t point;
	const char *record; ///< name of its module record, if it has one
	uint32_t taken, go_on;
};

inline constexpr Hook kHooks[kHookIds] = {
	{ "local", "mox_packet_local_rcv", "output", 1, nullptr, 3, 0 },
	{ "lev2", "mox_packet_lev2_rcv", "module", 0x1700, "PACKET-LEV2-MODULE", 3, 0 },
	{ "ipv4", "mox_packet_ipv4_rcv", "module", 0x1402, "PACKET-IPV4-MODULE", 3, 0 },
	{ "ipv6", "mox_packet_ipv6_rcv", "module", 0x0a04, "PACKET-IPV6-MODULE", 3, 0 },
	{ "mpls", "mox_packet_mpls_rcv", nullptr, 0, nullptr, 3, 0 },
	{ "trill", "mox_packet_trill_rcv", nullptr, 0, nullptr, 3, 0 },
	{ "resv", "mox_packet_resv_rcv", "recv", 2, nullptr, 0, 0xffffffff },
	{ "wlan", "mox_packet_wlan_in_rcv", "module", 0x0606, "PACKET-WLAN-MODULE", 3, 0 },
	{ "wlan_out", "mox_packet_wlan_out_rcv", "output", 1, nullptr, 3, 0 },
};

/// Answer of a hook that has the platform drop the packet.
inline constexpr uint32_t kDropAnswer = 1;

struct Location {
	const char *name;
	int library; ///< also its index in the reports; -1: none
	int queue;   ///< of a CPU, in the order in which the thread drains them; -1: none
	HookId hook; ///< the first of its hooks
	unsigned hooks;
	bool accepted; ///< by the socket option
};

/// By number.
inline constexpr Location kLocations[] = {
	{ "PACKET_NONE_LOC", -1, -1, kHookIds, 0, true },
	{ "PACKET_LOCAL_LOC", 0, 1, kLocalHook, 1, true },
	{ "PACKET_LEV2_LOC", 1, 0, kLev2Hook, 1, true },
	{ "PACKET_IPv4_LOC", 2, 2, kIpv4Hook, 1, true },
	{ "PACKET_IPv6_LOC", 3, 3, kIpv6Hook, 1, true },
	{ "PACKET_MPLS_LOC", 4, 4, kMplsHook, 1, false },
	{ "PACKET_TRILL_LOC", 5, 5, kTrillHook, 1, false },
	{ "PACKET_RESV_LOC", 6, 6, kResvHook, 1, true },
	{ "PACKET_WLAN_LOC", 7, 7, kWlanInHook, 2, true },
	{ "PACKET_LEV2_RESV_LOC", 6, 6, kResvHook, 1, true },
	{ "PACKET_LEV3_RESV_LOC", 6, 6, kResvHook, 1, true },
};
inline constexpr uint32_t kLocationCount = std::size(kLocations);

/// Locations 1 to 8 have a library and a report of their own.
inline constexpr uint32_t kLibraries = 8;

constexpr const char *location_name(uint32_t location)
{
	return location < kLocationCount ? kLocations[location].name : "Unknown";
}
constexpr int library(uint32_t location)
{
	return location < kLocationCount ? kLocations[location].library : -1;
}

/// The hooks of a location, in the order in which they are registered and deregistered.
constexpr std::span<const Hook> hooks(uint32_t location)
{
	if (location >= kLocationCount)
		return {};
	return { kHooks + kLocations[location].hook, kLocations[location].hooks };
}

/// What the platform is called with when the location gets its hooks, or loses them.
inline std::vector<std::string> hook_calls(uint32_t location, bool on,
					   const char *Hook::*word = &Hook::name)
{
	std::vector<std::string> calls;
	for (const Hook &hook : hooks(location))
		if (hook.call)
			calls.push_back(std::string(on ? "reg_" : "dereg_") + hook.call + " " +
					hook.*word);
	return calls;
}

} // namespace contract
