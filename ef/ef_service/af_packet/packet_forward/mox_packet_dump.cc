// SPDX-License-Identifier: GPL-2.0
/* Reports: a socket, its rule, and the copy thread, to the kernel log line by line. */
#include "list.hpp"
#include "log.hpp"
#include "names.hpp"
#include "receive.hpp"
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
		mox_printk("%s\n", name);
	else
		mox_printk("illegal regular type!\n");
}

/* The two blanks before the line end are part of the report. */
void mox_packet_dump_regular_data(u32 type, const u8 *value)
{
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		mox_printk("code: %d, subcode: %d  \n", value[0], value[1]);
		break;
	case PACKET_DEST_MAC_EQUAL:
	case PACKET_SRC_MAC_EQUAL:
		mox_printk("%pM  \n", value);
		break;
	case PACKET_ETH_PROT_EQUAL:
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		mox_printk("%04x  \n", host16(field<u16>(value, 0)));
		break;
	case PACKET_IPv4_PROT_EQUAL:
	case PACKET_IPv6_PROT_EQUAL:
	case PACKET_ICMPV6_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_WPS:
		mox_printk("%d  \n", value[0]);
		break;
	case PACKET_IPv4_DEST_PORT_EQUAL:
	case PACKET_IPv4_SRC_PORT_EQUAL:
	case PACKET_IPv6_DEST_PORT_EQUAL:
		mox_printk("%d  \n", host16(field<u16>(value, 0)));
		break;
	case PACKET_SRC_INTF_EQUAL:
		mox_printk("%u  \n", field<u32>(value, 0));
		break;
	case PACKET_PID_T:
		mox_printk("%d  \n", field<s32>(value, 0));
		break;
	case PACKET_ARP_TYPE:
		mox_printk("%d  \n", field<u16>(value, 0));
		break;
	case PACKET_IPv4_MCAST_TRAFFIC:
	case PACKET_IPv6_MCAST_TRAFFIC:
	case PACKET_ALL:
	case PACKET_WLAN_MGNT:
		mox_printk("\n");
		break;
	default:
		mox_printk("illegal regular type!\n");
		break;
	}
}

void mox_packet_dump_regular(const packet_regular *regular)
{
	for (const regular_item *item : items_of(regular)) {
		mox_printk("regular type:  ");
		mox_packet_dump_regular_type(item->type);
		mox_printk("regular data:  ");
		bool first = true;
		for (const regular_data *datum : datas_of(item)) {
			if (!first)
				mox_printk("               ");
			first = false;
			mox_packet_dump_regular_data(item->type, datum->value);
		}
		mox_printk("\n");
	}
	mox_printk("PACKET LOC:         %s\n", location_name(regular->location));
	mox_printk("PACKET TREATMENT:   %s\n", treatment_name(regular->treatment));
}

void mox_packet_sock_dump(mox_packet_sock *po)
{
	sock *sk = sk_of(po);

	mox_printk("\n------------ dump sock ------------\n");
	mox_printk("process:       %s\n", po->process);
	mox_printk("vsd:           %u\n", po->vsd);
	mox_printk("pid:           %d\n", po->pid);
	mox_printk("running:       %s\n", po_flag(po, PO_RUNNING) ? "running" : "stop");
	mox_printk("ctrldata:      %s\n", po_flag(po, PO_CTRL_INFO) ? "require" : "unrequire");
	mox_printk("ifindex:       %u\n", po->ifindex);
	mox_printk("regulars:\n");
	mox_packet_dump_regular(&po->regular);
	for (const CounterLine &line : kCounterLines)
		mox_printk(line.format, load(po->counters.*line.counter));
	mox_printk("skbs to be recv:        %u\n", seam_rcvq_len(sk));
	mox_printk("skbs to be send:        %u\n", seam_writeq_len(sk));
	mox_printk("sk refcnt:              %u\n", seam_sk_refcnt(sk));
}

void mox_packet_dump_thread(void)
{
	mox_printk("\n-------------PACKET-COPY-THREAD---------------\n");
	mox_printk("scheduled:          %lu\n",
		   static_cast<unsigned long>(load(g_packet_thread_debug.scheduled)));
	mox_printk("Alloc skb failed:   %lu\n",
		   static_cast<unsigned long>(load(g_packet_thread_debug.alloc_skb_failed)));
}
} // extern "C"
