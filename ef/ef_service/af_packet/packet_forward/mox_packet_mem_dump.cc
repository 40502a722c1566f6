// SPDX-License-Identifier: GPL-2.0
/* The memory report: what rules hold, by rule type, and socket buffers. */
#include "report.hpp"
#include "socket.hpp"
#include "thread.hpp"

namespace {

/* Entries of the arrays behind those of the rule types. */
constexpr u32 kStatEntries = 20;
constexpr u32 kStatCopies = 21;
constexpr u32 kStatFailed = 22;

/* The statistics arrays that a line is about. */
enum StatSet : u8 { kItems = 1, kDatas = 2, kBoth = kItems | kDatas };

/* A line and the entry of a statistics array that it shows. */
struct StatLine {
	const char *format;
	u32 entry;
	StatSet sets;
};

/*
 * Not in the order of the types: operators' scripts know the lines by their
 * place. The types without a value have data only while such a rule is made,
 * hence no line among the data.
 */
constexpr StatLine kStatLines[] = {
	{ "PACKET_CODE:  %lu\n", PACKET_PACKET_CODE_EQUAL, kBoth },
	{ "DST MAC:      %lu\n", PACKET_DEST_MAC_EQUAL, kBoth },
	{ "SRC MAC:      %lu\n", PACKET_SRC_MAC_EQUAL, kBoth },
	{ "ETH PRO:      %lu\n", PACKET_ETH_PROT_EQUAL, kBoth },
	{ "SNAP PRO:     %lu\n", PACKET_SNAP_ETH_TYPE_EQUAL, kBoth },
	{ "IPV4 PRO:     %lu\n", PACKET_IPv4_PROT_EQUAL, kBoth },
	{ "IPV6 PRO:     %lu\n", PACKET_IPv6_PROT_EQUAL, kBoth },
	{ "DST PORT NUM: %lu\n", PACKET_IPv4_DEST_PORT_EQUAL, kBoth },
	{ "SRC PORT NUM: %lu\n", PACKET_IPv4_SRC_PORT_EQUAL, kBoth },
	{ "SRC INTF:     %lu\n", PACKET_SRC_INTF_EQUAL, kBoth },
	{ "IPV6 DST PORT:%lu\n", PACKET_IPv6_DEST_PORT_EQUAL, kBoth },
	{ "PID TYPE:     %lu\n", PACKET_PID_T, kBoth },
	{ "ICMPV6 TYPE:  %lu\n", PACKET_ICMPV6_TYPE_EQUAL, kBoth },
	{ "ARP TYPE:     %lu\n", PACKET_ARP_TYPE, kBoth },
	{ "IPv4 MCAST:   %lu\n", PACKET_IPv4_MCAST_TRAFFIC, kItems },
	{ "IPv6 MCAST:   %lu\n", PACKET_IPv6_MCAST_TRAFFIC, kItems },
	{ "WLAN MGNT:    %lu\n", PACKET_WLAN_MGNT, kItems },
	{ "EAPOL TYPE:   %lu\n", PACKET_EAPOL_TYPE_EQUAL, kBoth },
	{ "EAPOL WPS TYPE:%lu\n", PACKET_EAPOL_TYPE_WPS, kBoth },
	{ "PACKET ALL:   %lu\n", PACKET_ALL, kItems },
	{ "FILTER LIST:  %lu\n", kStatEntries, kDatas },
	{ "REGULAR:      %lu\n", kStatCopies, kDatas },
	{ "ALLOC FAILED: %lu\n", kStatFailed, kBoth },
};

unsigned long as_long(const u32 &counter)
{
	return load(counter);
}

void tell_stats(StatSet set, const u32 (&stats)[23])
{
	for (const StatLine &line : kStatLines)
		if (line.sets & set)
			REPORT_LINE(line.format, as_long(stats[line.entry]));
}

} // namespace

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
	tell_stats(kItems, g_regular_item_stats);
}

void mox_packet_dump_data_mem(void)
{
	REPORT_LINE("\n--------------------- DATA MEM ---------------------\n");
	tell_stats(kDatas, g_regular_data_stats);
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
