// SPDX-License-Identifier: GPL-2.0
/* The memory report: what rules hold, by rule type, and socket buffers. */
#include "report.hpp"
#include "socket.hpp"
#include "thread.hpp"

namespace {

/* A line and the entry of a statistics array that it shows. */
struct StatLine {
	const char *format;
	u32 entry;
};

/* Entries of the arrays behind those of the rule types. */
constexpr u32 kStatEntries = 20;
constexpr u32 kStatCopies = 21;
constexpr u32 kStatFailed = 22;

/* Not in the order of the types: operators' scripts know the lines by their place. */
constexpr StatLine kItemLines[] = {
	{ "PACKET_CODE:  %lu\n", PACKET_PACKET_CODE_EQUAL },
	{ "DST MAC:      %lu\n", PACKET_DEST_MAC_EQUAL },
	{ "SRC MAC:      %lu\n", PACKET_SRC_MAC_EQUAL },
	{ "ETH PRO:      %lu\n", PACKET_ETH_PROT_EQUAL },
	{ "SNAP PRO:     %lu\n", PACKET_SNAP_ETH_TYPE_EQUAL },
	{ "IPV4 PRO:     %lu\n", PACKET_IPv4_PROT_EQUAL },
	{ "IPV6 PRO:     %lu\n", PACKET_IPv6_PROT_EQUAL },
	{ "DST PORT NUM: %lu\n", PACKET_IPv4_DEST_PORT_EQUAL },
	{ "SRC PORT NUM: %lu\n", PACKET_IPv4_SRC_PORT_EQUAL },
	{ "SRC INTF:     %lu\n", PACKET_SRC_INTF_EQUAL },
	{ "IPV6 DST PORT:%lu\n", PACKET_IPv6_DEST_PORT_EQUAL },
	{ "PID TYPE:     %lu\n", PACKET_PID_T },
	{ "ICMPV6 TYPE:  %lu\n", PACKET_ICMPV6_TYPE_EQUAL },
	{ "ARP TYPE:     %lu\n", PACKET_ARP_TYPE },
	{ "IPv4 MCAST:   %lu\n", PACKET_IPv4_MCAST_TRAFFIC },
	{ "IPv6 MCAST:   %lu\n", PACKET_IPv6_MCAST_TRAFFIC },
	{ "WLAN MGNT:    %lu\n", PACKET_WLAN_MGNT },
	{ "EAPOL TYPE:   %lu\n", PACKET_EAPOL_TYPE_EQUAL },
	{ "EAPOL WPS TYPE:%lu\n", PACKET_EAPOL_TYPE_WPS },
	{ "PACKET ALL:   %lu\n", PACKET_ALL },
	{ "ALLOC FAILED: %lu\n", kStatFailed },
};

/* The types without a value have data only while such a rule is made: no line. */
constexpr StatLine kDataLines[] = {
	{ "PACKET_CODE:  %lu\n", PACKET_PACKET_CODE_EQUAL },
	{ "DST MAC:      %lu\n", PACKET_DEST_MAC_EQUAL },
	{ "SRC MAC:      %lu\n", PACKET_SRC_MAC_EQUAL },
	{ "ETH PRO:      %lu\n", PACKET_ETH_PROT_EQUAL },
	{ "SNAP PRO:     %lu\n", PACKET_SNAP_ETH_TYPE_EQUAL },
	{ "IPV4 PRO:     %lu\n", PACKET_IPv4_PROT_EQUAL },
	{ "IPV6 PRO:     %lu\n", PACKET_IPv6_PROT_EQUAL },
	{ "DST PORT NUM: %lu\n", PACKET_IPv4_DEST_PORT_EQUAL },
	{ "SRC PORT NUM: %lu\n", PACKET_IPv4_SRC_PORT_EQUAL },
	{ "SRC INTF:     %lu\n", PACKET_SRC_INTF_EQUAL },
	{ "IPV6 DST PORT:%lu\n", PACKET_IPv6_DEST_PORT_EQUAL },
	{ "PID TYPE:     %lu\n", PACKET_PID_T },
	{ "ICMPV6 TYPE:  %lu\n", PACKET_ICMPV6_TYPE_EQUAL },
	{ "ARP TYPE:     %lu\n", PACKET_ARP_TYPE },
	{ "EAPOL TYPE:   %lu\n", PACKET_EAPOL_TYPE_EQUAL },
	{ "EAPOL WPS TYPE:%lu\n", PACKET_EAPOL_TYPE_WPS },
	{ "FILTER LIST:  %lu\n", kStatEntries },
	{ "REGULAR:      %lu\n", kStatCopies },
	{ "ALLOC FAILED: %lu\n", kStatFailed },
};

unsigned long as_long(const u32 &counter)
{
	return load(counter);
}

template <size_t N> void tell_stats(const StatLine (&lines)[N], const u32 (&stats)[23])
{
	for (const StatLine &line : lines)
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
	tell_stats(kItemLines, g_regular_item_stats);
}

void mox_packet_dump_data_mem(void)
{
	REPORT_LINE("\n--------------------- DATA MEM ---------------------\n");
	tell_stats(kDataLines, g_regular_data_stats);
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
