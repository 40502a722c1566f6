// SPDX-License-Identifier: GPL-2.0
/* Reports: a socket, its rule, and the copy thread. */
#include "list.hpp"
#include "names.hpp"
#include "receive.hpp"
#include "report.hpp"
#include "socket.hpp"
#include "thread.hpp"

namespace {

/* A socket's counters in the report's order, which is not the record's. */
struct CounterLine {
	const char *format;
	u32 mox_packet_counters::*counter;
};

constexpr CounterLine kCounterLines[] = {
	{ "sk recv packets:        %u\n", &mox_packet_counters::recv_packets },
	{ "sk filter drops:        %u\n", &mox_packet_counters::filter_drops },
	{ "sk rcvbuff full drops:  %u\n", &mox_packet_counters::rcvbuf_full_drops },
	{ "sk trim fail drops:     %u\n", &mox_packet_counters::trim_fail_drops },
	{ "sk send packet:         %u\n", &mox_packet_counters::send_packets },
	{ "sk sendmsg ill fails:   %u\n", &mox_packet_counters::sendmsg_ill_fails },
	{ "sk macfunc ill fails:   %u\n", &mox_packet_counters::macfunc_ill_fails },
	{ "sk dstintf ill fails:   %u\n", &mox_packet_counters::dstintf_ill_fails },
	{ "sk srcintf ill fails:   %u\n", &mox_packet_counters::srcintf_ill_fails },
	{ "sk intf linkdown fails: %u\n", &mox_packet_counters::intf_linkdown_fails },
	{ "sk alloc efbuff fails:  %u\n", &mox_packet_counters::alloc_efbuff_fails },
	{ "sk pkt copy fails:      %u\n", &mox_packet_counters::pkt_copy_fails },
	{ "sk ef send fails:       %u\n", &mox_packet_counters::ef_send_fails },
};

} // namespace

extern "C" {

void mox_packet_dump_regular_type(u32 type)
{
	if (const char *name = rule_type_name(type))
		REPORT_LINE("%s\n", name);
	else
		REPORT_LINE("illegal regular type!\n");
}

/* The two blanks before the line end are part of the report. */
void mox_packet_dump_regular_data(u32 type, const u8 *value)
{
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		REPORT_LINE("code: %d, subcode: %d  \n", value[0], value[1]);
		break;
	case PACKET_DEST_MAC_EQUAL:
	case PACKET_SRC_MAC_EQUAL:
		REPORT_LINE("%pM  \n", value);
		break;
	case PACKET_ETH_PROT_EQUAL:
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		REPORT_LINE("%04x  \n", host16(field<u16>(value, 0)));
		break;
	case PACKET_IPv4_PROT_EQUAL:
	case PACKET_IPv6_PROT_EQUAL:
	case PACKET_ICMPV6_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_WPS:
		REPORT_LINE("%d  \n", value[0]);
		break;
	case PACKET_IPv4_DEST_PORT_EQUAL:
	case PACKET_IPv4_SRC_PORT_EQUAL:
	case PACKET_IPv6_DEST_PORT_EQUAL:
		REPORT_LINE("%d  \n", host16(field<u16>(value, 0)));
		break;
	case PACKET_SRC_INTF_EQUAL:
		REPORT_LINE("%u  \n", field<u32>(value, 0));
		break;
	case PACKET_PID_T:
		REPORT_LINE("%d  \n", field<s32>(value, 0));
		break;
	case PACKET_ARP_TYPE:
		REPORT_LINE("%d  \n", field<u16>(value, 0));
		break;
	case PACKET_IPv4_MCAST_TRAFFIC:
	case PACKET_IPv6_MCAST_TRAFFIC:
	case PACKET_ALL:
	case PACKET_WLAN_MGNT:
		REPORT_LINE("\n");
		break;
	default:
		REPORT_LINE("illegal regular type!\n");
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

void mox_packet_sock_dump(mox_packet_sock *po)
{
	sock *sk = sk_of(po);

	REPORT_LINE("\n------------ dump sock ------------\n");
	REPORT_LINE("process:       %s\n", po->process);
	REPORT_LINE("vsd:           %u\n", po->vsd);
	REPORT_LINE("pid:           %d\n", po->pid);
	REPORT_LINE("running:       %s\n", po_flag(po, PO_RUNNING) ? "running" : "stop");
	REPORT_LINE("ctrldata:      %s\n", po_flag(po, PO_CTRL_INFO) ? "require" : "unrequire");
	REPORT_LINE("ifindex:       %u\n", po->ifindex);
	REPORT_LINE("regulars:\n");
	mox_packet_dump_regular(&po->regular);
	for (const CounterLine &line : kCounterLines)
		REPORT_LINE(line.format, load(po->counters.*line.counter));
	REPORT_LINE("skbs to be recv:        %u\n", seam_rcvq_len(sk));
	REPORT_LINE("skbs to be send:        %u\n", seam_writeq_len(sk));
	REPORT_LINE("sk refcnt:              %u\n", seam_sk_refcnt(sk));
}

void mox_packet_dump_thread(void)
{
	REPORT_LINE("\n-------------PACKET-COPY-THREAD---------------\n");
	REPORT_LINE("scheduled:          %lu\n",
		    static_cast<unsigned long>(load(g_packet_thread_debug.scheduled)));
	REPORT_LINE("Alloc skb failed:   %lu\n",
		    static_cast<unsigned long>(load(g_packet_thread_debug.alloc_skb_failed)));
}
} // extern "C"
