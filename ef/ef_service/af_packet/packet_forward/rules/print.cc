// SPDX-License-Identifier: GPL-2.0-only
#include "rules/print.hpp"

#include "base/report.hpp"
#include "locations/table.hpp"
#include "rules/memory.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

namespace mox {

namespace {

/* Values of a socket's rule that are printed before another task may run. */
constexpr u32 kLinesOfTurn = 64;

} // namespace

RulePosition::RulePosition(const packet_regular *regular)
	: item(regular ? regular->items.next : nullptr), datum(nullptr)
{
}

bool dump_rule_items(const packet_regular *regular, RulePosition *at)
{
	u32 lines = 0;

	for (; at->item != &regular->items; at->item = at->item->next) {
		auto *item = record_of<const regular_item, offsetof(regular_item, node)>(at->item);
		if (!at->datum) {
			REPORT_LINE("regular type:  ");
			mox_packet_dump_regular_type(item->type);
			REPORT_LINE("regular data:  ");
			at->datum = item->datas.next;
		}
		for (; at->datum != &item->datas; at->datum = at->datum->next) {
			if (ReportPage::full() || ++lines % kLinesOfTurn == 0)
				return false;
			auto *datum = record_of<const regular_data, offsetof(regular_data, node)>(
				at->datum);
			if (at->datum != item->datas.next)
				REPORT_LINE("               ");
			mox_packet_dump_regular_data(item->type, datum->value);
		}
		REPORT_LINE("\n");
		at->datum = nullptr;
	}
	return true;
}

void dump_rule_end(const packet_regular *regular)
{
	REPORT_LINE("PACKET LOC:         %s\n", location_name(load(regular->location)));
	REPORT_LINE("PACKET TREATMENT:   %s\n", treatment_name(load(regular->treatment)));
}

bool dump_copy_items(const packet_regular *copy, RulePosition *at)
{
	for (; at->item != &copy->items; at->item = at->item->next) {
		auto *item = record_of<const regular_item, offsetof(regular_item, node)>(at->item);
		if (!at->datum) {
			REPORT_LINE("    regular type:  ");
			mox_packet_dump_regular_type(item->type);
			if (mox_packet_item_empty(item)) {
				REPORT_LINE("    regular data:  ");
				REPORT_LINE("\n");
			}
			at->datum = item->datas.next;
		}
		for (; at->datum != &item->datas; at->datum = at->datum->next) {
			if (ReportPage::full())
				return false;
			auto *datum = record_of<const regular_data, offsetof(regular_data, node)>(
				at->datum);
			REPORT_LINE("    regular data:  ");
			mox_packet_dump_regular_data(item->type, datum->value);
		}
		at->datum = nullptr;
	}
	return true;
}

} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_dump_regular_type(u32 type)
{
	if (const RuleType *row = rule_type(type))
		REPORT_LINE("%s\n", row->name);
	else
		REPORT_LINE("illegal regular type!\n");
}

/* The two blanks before the line end are part of the report. */
void mox_packet_dump_regular_data(u32 type, const u8 *value)
{
	const RuleType *row = rule_type(type);

	if (!row) {
		REPORT_LINE("illegal regular type!\n");
		return;
	}
	switch (row->form) {
	case MOX_FORM_NONE:
		REPORT_LINE("\n");
		break;
	case MOX_FORM_CODE:
		REPORT_LINE("code: %d, subcode: %d  \n", value[0], value[1]);
		break;
	case MOX_FORM_MAC:
		REPORT_LINE("%pM  \n", value);
		break;
	case MOX_FORM_ETHER_TYPE:
		REPORT_LINE("%04x  \n", host16(field<u16>(value, 0)));
		break;
	case MOX_FORM_BYTE:
		REPORT_LINE("%d  \n", value[0]);
		break;
	case MOX_FORM_PORT:
		REPORT_LINE("%d  \n", host16(field<u16>(value, 0)));
		break;
	case MOX_FORM_U16:
		REPORT_LINE("%d  \n", field<u16>(value, 0));
		break;
	case MOX_FORM_U32:
		REPORT_LINE("%u  \n", field<u32>(value, 0));
		break;
	case MOX_FORM_S32:
		REPORT_LINE("%d  \n", field<s32>(value, 0));
		break;
	}
}

void mox_packet_dump_regular(const packet_regular *regular)
{
	RulePosition position(regular);

	while (!dump_rule_items(regular, &position) && !seam_fatal_signal_pending())
		seam_cond_resched();
	dump_rule_end(regular);
}
} // extern "C"
