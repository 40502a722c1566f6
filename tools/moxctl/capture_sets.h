/* SPDX-License-Identifier: GPL-2.0-only */
/* The attributes and commands of the family "mox_capture" as data, made from the tables of mox_capture.h. */
#ifndef MOXCTL_CAPTURE_SETS_H
#define MOXCTL_CAPTURE_SETS_H

#include "mox_capture.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace moxctl {

enum class Kind { kU8, kU16, kU32, kS32, kU64, kString, kBinary, kFlag, kNest };

enum class Set {
	kNone, /**< a reply without attributes */
	kRequest,
	kInfo,
	kLocation,
	kCounters,
	kSocket,
	kRule,
	kValue,
	kQueue,
	kMemory,
	kThread,
	kTrace,
};

/** One attribute of a set. */
struct AttributeRow {
	std::uint16_t number;
	std::string_view name; /**< as in the header, upper case */
	Kind kind;
	Set nested; /**< of a nest: its set */
	std::string_view meaning;
};

enum class How { kDo, kDump, kEvent };

struct CommandRow {
	std::uint8_t number;
	std::string_view name;
	How how;
	Set reply;
	std::string_view meaning;
};

struct VerdictRow {
	std::uint32_t number;
	std::string_view name;
	std::string_view meaning;
};

/** The attributes of a set in the order of their numbers, which run from 1 without a gap. */
std::span<const AttributeRow> attributes_of(Set set);
/** The set's name as in the header, upper case. */
std::string_view set_name(Set set);
std::span<const CommandRow> capture_commands();
std::span<const VerdictRow> capture_verdicts();

/** Bytes of a number's payload; 0 for the kinds of other lengths. */
constexpr std::size_t width_of(Kind kind)
{
	switch (kind) {
	case Kind::kU8:
		return 1;
	case Kind::kU16:
		return 2;
	case Kind::kU32:
	case Kind::kS32:
		return 4;
	case Kind::kU64:
		return 8;
	default:
		return 0;
	}
}

/** A name of the header in lower case, as JSON and metrics have it. */
std::string lower_name(std::string_view name);

} // namespace moxctl

#endif
