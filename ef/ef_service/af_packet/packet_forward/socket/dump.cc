// SPDX-License-Identifier: GPL-2.0-only
#include "socket/dump.hpp"

#include "base/report.hpp"
#include "base/socket_record.hpp"
#include "rules/print.hpp"
#include "base/counters.hpp"

namespace mox {

void dump_socket_begin(mox_packet_sock *po)
{
	REPORT_LINE("\n------------ dump sock ------------\n");
	REPORT_LINE("process:       %s\n", po->process);
	REPORT_LINE("vsd:           %u\n", po->vsd);
	REPORT_LINE("pid:           %d\n", po->pid);
	REPORT_LINE("running:       %s\n", po_flag(po, PO_RUNNING) ? "running" : "stop");
	REPORT_LINE("ctrldata:      %s\n", po_flag(po, PO_CTRL_INFO) ? "require" : "unrequire");
	REPORT_LINE("ifindex:       %u\n", load(po->ifindex));
	REPORT_LINE("regulars:\n");
}

void dump_socket_end(mox_packet_sock *po, u32 references)
{
	sock *sk = sk_of(po);

	for (u8 row : kCounterLines)
		REPORT_LINE(MOX_COLUMN(MOX_PACKET_COUNTER_COLUMN) "%u\n", kCounters[row].label,
			    load(po->counters.*kCounters[row].field));
	REPORT_LINE("skbs to be recv:        %u\n", seam_rcvq_len(sk));
	REPORT_LINE("skbs to be send:        %u\n", seam_writeq_len(sk));
	REPORT_LINE("sk refcnt:              %u\n", seam_sk_refcnt(sk) - references);
}

} // namespace mox

using namespace mox;

extern "C" void mox_packet_sock_dump(mox_packet_sock *po)
{
	dump_socket_begin(po);
	mox_packet_dump_regular(&po->regular);
	dump_socket_end(po, 0);
}
