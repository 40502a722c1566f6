// SPDX-License-Identifier: GPL-2.0-only
// The operators' channel as the tests expect it: debug switches and the debug packet filter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace contract {

/// Bytes of the array of debug switches.
inline constexpr uint32_t kSwitches = 19;

/// The switches that a debug type sets, from and to; none: an empty range.
struct SwitchRange {
	uint32_t from, to;
};
constexpr SwitchRange switches_of(uint32_t debug_type)
{
	switch (debug_type) {
	case 9:
		return { 1, 8 };
	case 18:
		return { 10, 17 };
	}
	return debug_type < 18 ? SwitchRange{ debug_type, debug_type } : SwitchRange{ 1, 0 };
}

/// Debug types that switch the hooks of a location; the one behind them switches all, in order.
constexpr uint32_t hook_switch(uint32_t location)
{
	return 18 + location;
}
inline constexpr uint32_t kEveryHookSwitch = 27;

/// A field of the debug packet filter.
struct FilterField {
	uint32_t flag;
	size_t offset, length;
	const char *name;
};
inline constexpr FilterField kFilterFields[] = {
	{ 0x002, 8, 4, "vid" },       { 0x004, 12, 6, "src_mac" },   { 0x008, 18, 6, "dst_mac" },
	{ 0x010, 24, 4, "src_intf" }, { 0x020, 28, 4, "dst_intf" },  { 0x040, 32, 4, "src_ipv4" },
	{ 0x080, 36, 4, "dst_ipv4" }, { 0x100, 40, 16, "src_ipv6" }, { 0x200, 56, 16, "dst_ipv6" },
};
inline constexpr uint32_t kAllFilterFlags = 0x3fe;
inline constexpr size_t kFilterBytes = 72;

/// The debug line of a field, without tag. Unlike every other line it ends with "\r\n".
inline std::string filter_line(const FilterField &field, const std::string &value)
{
	return std::string("    Filter: ") + field.name + " " + value + "\r\n";
}

} // namespace contract
