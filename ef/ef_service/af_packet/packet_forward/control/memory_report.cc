// SPDX-License-Identifier: GPL-2.0-only
/* The memory report: what rules hold, by rule type, and socket buffers. */
#include "base/report.hpp"
#include "base/table_order.hpp"
#include "control/reports.hpp"
#include "receive/deliver.hpp"
#include "rules/memory.hpp"
#include "socket/family.hpp"

namespace mox {
namespace {

/* Not in the order of the types: operators' scripts find the lines by their place. */
constexpr auto kTypeLines = rows_by_line(kRuleTypes);

void print_stat(const char *label, u32 counter)
{
	REPORT_LINE(MOX_COLUMN(MOX_PACKET_MEMORY_COLUMN) "%lu\n", label,
		    static_cast<unsigned long>(counter));
}

/** One line for each rule type; values_only: for those that have values. */
void print_type_stats(const u32 (&stats)[MOX_STAT_COUNT], bool values_only)
{
	for (u8 type : kTypeLines)
		if (kRuleTypes[type].has_value() || !values_only)
			print_stat(kRuleTypes[type].label, load(stats[type]));
}

unsigned long as_long(const u32 &counter)
{
	return load(counter);
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_regular_data_mem_dump(void)
{
	/* The blank before the line end is part of the report. */
	REPORT_LINE("------------------ DUMP PACKET DATA MEM ----------------- \n");
	REPORT_LINE("regular data alloc:     %lu\n", as_long(g_packet_regular_data_alloc));
	REPORT_LINE("regular data free:      %lu\n", as_long(g_packet_regular_data_free));
}

void mox_packet_dump_item_mem(void)
{
	REPORT_LINE("\n--------------------- ITEM MEM ---------------------\n");
	print_type_stats(g_regular_item_stats, false);
	print_stat("ALLOC FAILED:", load(g_regular_item_stats[MOX_STAT_FAILED]));
}

void mox_packet_dump_data_mem(void)
{
	REPORT_LINE("\n--------------------- DATA MEM ---------------------\n");
	/* A type without a value has data only while such a rule is made: no line. */
	print_type_stats(g_regular_data_stats, true);
	print_stat("FILTER LIST:", load(g_regular_data_stats[MOX_STAT_ENTRIES]));
	print_stat("REGULAR:", load(g_regular_data_stats[MOX_STAT_COPIES]));
	print_stat("ALLOC FAILED:", load(g_regular_data_stats[MOX_STAT_FAILED]));
}

void mox_packet_dump_mem(void)
{
	mox_packet_regular_data_mem_dump();
	mox_packet_dump_item_mem();
	mox_packet_dump_data_mem();
	REPORT_LINE("---------------  SKB NUM ----------------\n");
	REPORT_LINE("AF-PACKET alloc %d skbs\n", static_cast<int>(load(g_alloc_skb_num)));
	REPORT_LINE("AF-PACKET free  %d skbs\n", static_cast<int>(load(g_free_skb_num)));
}
} // extern "C"
