// SPDX-License-Identifier: GPL-2.0-only
/* mox_capture: the sockets. */
#include "base/socket_record.hpp"
#include "control/capture.hpp"

namespace mox {
namespace {

/* Sockets of one hold of the registry: about as many as a buffer has room for. */
constexpr u32 kSocketsOfHold = 64;

bool put_socket(sk_buff *skb, const seam_request *request, mox_packet_sock *po,
		const seam_sock_identity &identity)
{
	Message message(skb, request, MOX_CAPTURE_CMD_SOCKETS);
	sock *sk = sk_of(po);

	message.number(MOX_CAPTURE_SOCKET_COOKIE, identity.cookie);
	message.number(MOX_CAPTURE_SOCKET_INODE, identity.inode);
	message.number(MOX_CAPTURE_SOCKET_PID, po->pid);
	message.text(MOX_CAPTURE_SOCKET_PROCESS, po->process, sizeof(po->process));
	message.number(MOX_CAPTURE_SOCKET_UID, identity.uid);
	message.number(MOX_CAPTURE_SOCKET_NETNS, identity.netns);
	message.number(MOX_CAPTURE_SOCKET_TYPE, identity.type);
	message.number(MOX_CAPTURE_SOCKET_LOCATION, load(po->regular.location));
	message.number(MOX_CAPTURE_SOCKET_TREATMENT, load(po->regular.treatment));
	message.flag(MOX_CAPTURE_SOCKET_RUNNING, rule_entered(po));
	message.flag(MOX_CAPTURE_SOCKET_CTRL_INFO, po_flag(po, PO_CTRL_INFO));
	message.flag(MOX_CAPTURE_SOCKET_TIMESTAMPS, identity.stamped);
	message.flag(MOX_CAPTURE_SOCKET_FILTERED, identity.filtered);
	message.number(MOX_CAPTURE_SOCKET_IFINDEX, load(po->ifindex));
	message.number(MOX_CAPTURE_SOCKET_PROTOCOL, load(po->protocol));
	message.number(MOX_CAPTURE_SOCKET_QUEUE, seam_rcvq_len(sk));
	message.number(MOX_CAPTURE_SOCKET_QUEUE_BYTES, static_cast<u32>(seam_sk_rmem(sk)));
	message.number(MOX_CAPTURE_SOCKET_QUEUE_LIMIT, identity.rcvbuf);
	message.number(MOX_CAPTURE_SOCKET_RULE_BYTES, load(po->rule_bytes));
	message.number(MOX_CAPTURE_SOCKET_RULE_WORK, load(po->rule_work));
	put_counters(message, MOX_CAPTURE_SOCKET_COUNTERS,
		     [po](Tally which) { return read_total(socket_total(po, which)); });
	return message.end();
}

struct Visit {
	Dump *dump;
	sk_buff *skb;
	const seam_request *request;
	bool full;
};

/** False when the buffer is full. */
bool visit_socket(void *context, mox_packet_sock *po)
{
	auto *visit = static_cast<Visit *>(context);
	seam_sock_identity identity;

	if (!selects(visit->dump->query, po, &identity))
		return true;
	visit->full = !put_socket(visit->skb, visit->request, po, identity);
	return !visit->full;
}

} // namespace

bool dump_sockets_list(Dump *dump, sk_buff *skb, const seam_request *request)
{
	Visit visit = { dump, skb, request, false };

	while (!registry_visit(&dump->place, kSocketsOfHold, visit_socket, &visit)) {
		if (visit.full || seam_fatal_signal_pending())
			return false;
		seam_cond_resched();
	}
	return true;
}

} // namespace mox
