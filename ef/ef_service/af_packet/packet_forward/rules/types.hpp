// SPDX-License-Identifier: GPL-2.0-only
/* The rule types and treatments as the units read them. */
#pragma once

#include "mox_packet_tables.h"
#include "seam/seam_types.h"

namespace mox {

/** A row of MOX_PACKET_RULE_TYPE_TABLE; the columns are described there. */
struct RuleType {
	const char *name;
	u32 type;
	u8 width;
	u8 compared;
	bool key;
	mox_packet_value_form form;
	const char *label;
	u8 line;

	constexpr bool has_value() const { return compared != 0; }
};

inline constexpr RuleType kRuleTypes[] = {
#define MOX_ROW(type, width, compared, key, form, label, line) \
	{ #type, type, width, compared, key != 0, form, label, line },
	MOX_PACKET_RULE_TYPE_TABLE(MOX_ROW)
#undef MOX_ROW
};
static_assert(sizeof(kRuleTypes) / sizeof(kRuleTypes[0]) == MOX_PACKET_RULE_TYPES);

constexpr bool rule_types_in_order()
{
	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++)
		if (kRuleTypes[type].type != type)
			return false;
	return true;
}
static_assert(rule_types_in_order(), "the row of a type stands at its number");

/** Bytes of the widest element that a rule record can have. */
constexpr u32 widest_element()
{
	u32 widest = 0;
	for (const RuleType &row : kRuleTypes)
		widest = row.width > widest ? row.width : widest;
	return widest;
}

/** The row of a type, or null beyond the last. */
constexpr const RuleType *rule_type(u32 type)
{
	return type < MOX_PACKET_RULE_TYPES ? &kRuleTypes[type] : nullptr;
}

/** Whether rules may be filed under values of a type. PACKET_PID_T excludes packets: never a key. */
constexpr bool type_is_key(u32 type)
{
	return type >= MOX_PACKET_RULE_TYPES || kRuleTypes[type].key;
}

inline constexpr const char *kTreatments[] = {
	"PACKET_TREATMENT_NONE", "PACKET_COPY",       "PACKET_FETCH",
	"PACKET_TRAP",           "PACKET_COPY_LOCAL", "PACKET_FETCH_LOCAL",
};
inline constexpr u32 kHighestTreatment = PACKET_FETCH_LOCAL;
static_assert(sizeof(kTreatments) / sizeof(kTreatments[0]) == kHighestTreatment + 1);

/** "PACKET_COPY" and its like; "Unknown" for a number that has no name. */
constexpr const char *treatment_name(u32 treatment)
{
	return treatment <= kHighestTreatment ? kTreatments[treatment] : "Unknown";
}

/** Treatments that are indexed in the filter list. */
constexpr bool treatment_indexed(u32 treatment)
{
	return treatment >= PACKET_COPY && treatment <= kHighestTreatment;
}

/** Treatments whose copies go to local_match_list. */
constexpr bool treatment_local(u32 treatment)
{
	return treatment == PACKET_COPY_LOCAL || treatment == PACKET_FETCH_LOCAL;
}

} // namespace mox
