/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_sets.h"

#include <cctype>

namespace moxctl {
namespace {

#define KIND_U8 Kind::kU8, Set::kNone
#define KIND_U16 Kind::kU16, Set::kNone
#define KIND_U32 Kind::kU32, Set::kNone
#define KIND_S32 Kind::kS32, Set::kNone
#define KIND_U64 Kind::kU64, Set::kNone
#define KIND_STRING Kind::kString, Set::kNone
#define KIND_BINARY Kind::kBinary, Set::kNone
#define KIND_FLAG Kind::kFlag, Set::kNone
#define KIND_NEST_COUNTERS Kind::kNest, Set::kCounters
#define KIND_NEST_VALUE Kind::kNest, Set::kValue

#define ROW(name, number, kind, meaning) { number, #name, KIND_##kind, meaning },

constexpr AttributeRow kRequest[] = { MOX_CAPTURE_REQUEST_TABLE(ROW) };
constexpr AttributeRow kInfo[] = { MOX_CAPTURE_INFO_TABLE(ROW) };
constexpr AttributeRow kLocation[] = { MOX_CAPTURE_LOCATION_TABLE(ROW) };
constexpr AttributeRow kSocket[] = { MOX_CAPTURE_SOCKET_TABLE(ROW) };
constexpr AttributeRow kRule[] = { MOX_CAPTURE_RULE_TABLE(ROW) };
constexpr AttributeRow kValue[] = { MOX_CAPTURE_VALUE_TABLE(ROW) };
constexpr AttributeRow kQueue[] = { MOX_CAPTURE_QUEUE_TABLE(ROW) };
constexpr AttributeRow kMemory[] = { MOX_CAPTURE_MEMORY_TABLE(ROW) };
constexpr AttributeRow kThread[] = { MOX_CAPTURE_THREAD_TABLE(ROW) };
constexpr AttributeRow kTrace[] = { MOX_CAPTURE_TRACE_TABLE(ROW) };

// The counters' meanings are in the tables of the counters, by field.
#define MEANING(field, label, line, text) constexpr std::string_view meaning_of_##field = text;
MOX_PACKET_COUNTER_TABLE(MEANING)
#undef MEANING
#define MEANING(field, text) constexpr std::string_view meaning_of_##field = text;
MOX_CAPTURE_LEDGER_TABLE(MEANING)
#undef MEANING
#define COUNTER_ROW(name, number, kind, field) { number, #name, KIND_##kind, meaning_of_##field },
constexpr AttributeRow kCounters[] = { MOX_CAPTURE_COUNTERS_TABLE(COUNTER_ROW) };

template <std::size_t size> constexpr bool numbers_run_from_1(const AttributeRow (&rows)[size])
{
	for (std::size_t i = 0; i < size; ++i)
		if (rows[i].number != i + 1)
			return false;
	return size < 64; // Record has a bit for each
}
static_assert(numbers_run_from_1(kRequest) && numbers_run_from_1(kInfo) &&
	      numbers_run_from_1(kLocation) && numbers_run_from_1(kSocket) &&
	      numbers_run_from_1(kRule) && numbers_run_from_1(kValue) &&
	      numbers_run_from_1(kQueue) && numbers_run_from_1(kMemory) &&
	      numbers_run_from_1(kThread) && numbers_run_from_1(kTrace) &&
	      numbers_run_from_1(kCounters));

struct SetRow {
	Set set;
	std::string_view name;
	std::span<const AttributeRow> attributes;
};

constexpr SetRow kSets[] = {
	{ Set::kNone, "NONE", {} },
	{ Set::kRequest, "REQUEST", kRequest },
	{ Set::kInfo, "INFO", kInfo },
	{ Set::kLocation, "LOCATION", kLocation },
	{ Set::kCounters, "COUNTERS", kCounters },
	{ Set::kSocket, "SOCKET", kSocket },
	{ Set::kRule, "RULE", kRule },
	{ Set::kValue, "VALUE", kValue },
	{ Set::kQueue, "QUEUE", kQueue },
	{ Set::kMemory, "MEMORY", kMemory },
	{ Set::kThread, "THREAD", kThread },
	{ Set::kTrace, "TRACE", kTrace },
};

constexpr bool in_order()
{
	for (std::size_t i = 0; i < std::size(kSets); ++i)
		if (static_cast<std::size_t>(kSets[i].set) != i)
			return false;
	return true;
}
static_assert(in_order());

constexpr Set kReplyNONE = Set::kNone, kReplyINFO = Set::kInfo, kReplyLOCATION = Set::kLocation,
	      kReplySOCKET = Set::kSocket, kReplyRULE = Set::kRule, kReplyQUEUE = Set::kQueue,
	      kReplyMEMORY = Set::kMemory, kReplyTHREAD = Set::kThread, kReplyTRACE = Set::kTrace;
constexpr How kHowDO = How::kDo, kHowDUMP = How::kDump, kHowEVENT = How::kEvent;

#define COMMAND_ROW(name, number, how, reply, meaning) \
	{ number, #name, kHow##how, kReply##reply, meaning },
constexpr CommandRow kCommands[] = { MOX_CAPTURE_CMD_TABLE(COMMAND_ROW) };

#define VERDICT_ROW(name, number, meaning) { number, #name, meaning },
constexpr VerdictRow kVerdicts[] = { MOX_CAPTURE_VERDICT_TABLE(VERDICT_ROW) };

constexpr bool verdicts_and_commands_run_from_1()
{
	for (std::size_t i = 0; i < std::size(kVerdicts); ++i)
		if (kVerdicts[i].number != i + 1)
			return false;
	for (std::size_t i = 0; i < std::size(kCommands); ++i)
		if (kCommands[i].number != i + 1)
			return false;
	return true;
}
static_assert(verdicts_and_commands_run_from_1(), "readers use number - 1 as an index");

} // namespace

std::span<const AttributeRow> attributes_of(Set set)
{
	return kSets[static_cast<std::size_t>(set)].attributes;
}

std::string_view set_name(Set set)
{
	return kSets[static_cast<std::size_t>(set)].name;
}

std::span<const CommandRow> capture_commands()
{
	return kCommands;
}

std::span<const VerdictRow> capture_verdicts()
{
	return kVerdicts;
}

std::string lower_name(std::string_view name)
{
	std::string text(name);
	for (char &c : text)
		c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
	return text;
}

} // namespace moxctl
