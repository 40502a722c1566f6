// SPDX-License-Identifier: GPL-2.0
#include "rules/print.hpp"

#include "base/report.hpp"
#include "locations/table.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

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
	for (const regular_item *item : items_of(regular)) {
		REPORT_LINE("regular type:  ");
		mox_packet_dump_regular_type(item->type);
		REPORT_LINE("regular data:  ");
		bool first = true;
		for (const regular_data *datum : datas_of(item)) {
			if (!first)
				REPORT_LINE("               ");
			first = false;
			mox_packet_dump_regular_data(item->type, datum->value);
		}
		REPORT_LINE("\n");
	}
	REPORT_LINE("PACKET LOC:         %s\n", location_name(regular->location));
	REPORT_LINE("PACKET TREATMENT:   %s\n", treatment_name(regular->treatment));
}
} // extern "C"
