// SPDX-License-Identifier: GPL-2.0-only
// The memory report, word by word.
#include "contract/reports.h"
#include "control_fixture.h"

namespace {

class MemoryReport : public ControlTest {};

TEST_F(MemoryReport, every_counter_at_its_label)
{
	u32 saved[2][contract::kRecordCounters];
	memcpy(saved[0], g_regular_item_stats, sizeof saved[0]);
	memcpy(saved[1], g_regular_data_stats, sizeof saved[1]);
	contract::MemoryCounters wanted{
		.buffers_alloc = 4294967294u, .buffers_free = 12, .skbs_alloc = 77, .skbs_free = -1
	};
	for (u32 i = 0; i < contract::kRecordCounters; i++) {
		g_regular_item_stats[i] = wanted.items[i] = 100 + i;
		g_regular_data_stats[i] = wanted.data[i] = 200 + i;
	}
	g_regular_data_stats[PACKET_ARP_TYPE] = wanted.data[PACKET_ARP_TYPE] = 4294967295u;
	g_packet_regular_data_alloc = wanted.buffers_alloc;
	g_packet_regular_data_free = wanted.buffers_free;
	g_alloc_skb_num = wanted.skbs_alloc;
	g_free_skb_num = wanted.skbs_free;
	EXPECT_EQ(printed([] { mox_packet_dump_mem(); }),
		  contract::joined(contract::memory_pieces(wanted)));
	memcpy(g_regular_item_stats, saved[0], sizeof saved[0]);
	memcpy(g_regular_data_stats, saved[1], sizeof saved[1]);
	g_packet_regular_data_alloc = g_packet_regular_data_free = 0;
}

TEST_F(MemoryReport, the_three_parts_are_reports_of_their_own)
{
	std::string whole = printed([] { mox_packet_dump_mem(); });
	std::string parts = printed([] { mox_packet_regular_data_mem_dump(); }) +
			    printed([] { mox_packet_dump_item_mem(); }) +
			    printed([] { mox_packet_dump_data_mem(); });
	EXPECT_EQ(whole, parts + "---------------  SKB NUM ----------------\n"
				 "AF-PACKET alloc 0 skbs\nAF-PACKET free  0 skbs\n");
}

} // namespace
