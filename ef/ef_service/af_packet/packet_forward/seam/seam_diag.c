// SPDX-License-Identifier: GPL-2.0-only
/*
 * The capture sockets in the kernel's socket diagnosis, which ss asks for family 17. The
 * message is that of the kernel's own packet sockets, which has no fields for a location
 * and a treatment: they are where it has a ring's version and a copy threshold.
 */
#include <linux/module.h>
#include <linux/netlink.h>
#include <linux/packet_diag.h>
#include <linux/sock_diag.h>
#include <net/netlink.h>
#include <net/sock.h>

#include "seam_capture.h"
#include "seam_compat.h"

static int seam_diag_dump(struct sk_buff *skb, struct netlink_callback *cb)
{
	BUILD_BUG_ON(sizeof(struct seam_diag_place) > sizeof(cb->args));
	mox_packet_diag_dump(skb, cb, sock_net(skb->sk), (struct seam_diag_place *)cb->args);
	return skb->len;
}

static int seam_diag_handle(struct sk_buff *skb, struct nlmsghdr *header)
{
	struct netlink_dump_control control = { .dump = seam_diag_dump };
	const struct packet_diag_req *request = nlmsg_data(header);

	if (nlmsg_len(header) < (int)sizeof(*request) || request->sdiag_protocol)
		return -EINVAL;
	if (!(header->nlmsg_flags & NLM_F_DUMP))
		return -EOPNOTSUPP;
	return netlink_dump_start(sock_net(skb->sk)->diag_nlsk, skb, header, &control);
}

static const struct sock_diag_handler mox_packet_diag_handler = { .family = AF_PACKET,
								  .dump = seam_diag_handle,
								  SEAM_DIAG_OWNER };

int seam_diag_register(void)
{
#ifndef SEAM_HAS_DIAG_OWNER
	/* What else would stand in front of it is an owner that Kbuild has missed. */
	BUILD_BUG_ON(offsetof(struct sock_diag_handler, family) != 0);
#endif
	return sock_diag_register(&mox_packet_diag_handler);
}

void seam_diag_unregister(void)
{
	sock_diag_unregister(&mox_packet_diag_handler);
}

int seam_diag_put(struct sk_buff *skb, struct netlink_callback *cb,
		  const struct seam_diag_socket *socket, struct sock *sk)
{
	const struct packet_diag_req *request = nlmsg_data(cb->nlh);
	struct nlmsghdr *header = nlmsg_put(skb, NETLINK_CB(cb->skb).portid, cb->nlh->nlmsg_seq,
					    SOCK_DIAG_BY_FAMILY, sizeof(struct packet_diag_msg),
					    NLM_F_MULTI);
	struct packet_diag_msg *message;

	if (!header)
		return -EMSGSIZE;
	message = nlmsg_data(header);
	*message = (struct packet_diag_msg){
		.pdiag_family = AF_PACKET,
		.pdiag_type = sk->sk_type,
		.pdiag_num = socket->protocol,
		.pdiag_ino = sock_i_ino(sk),
	};
	sock_diag_save_cookie(sk, message->pdiag_cookie);
	if (request->pdiag_show & PACKET_SHOW_INFO) {
		const struct packet_diag_info info = {
			.pdi_index = socket->ifindex,
			.pdi_version = socket->location,
			.pdi_copy_thresh = socket->treatment,
			.pdi_flags = socket->running ? PDI_RUNNING : 0,
		};
		const u32 uid = from_kuid_munged(sk_user_ns(NETLINK_CB(cb->skb).sk),
						 seam_compat_user(sk));

		if (nla_put(skb, PACKET_DIAG_INFO, sizeof(info), &info) ||
		    nla_put_u32(skb, PACKET_DIAG_UID, uid))
			goto no_room;
	}
	if ((request->pdiag_show & PACKET_SHOW_MEMINFO) &&
	    sock_diag_put_meminfo(sk, skb, PACKET_DIAG_MEMINFO))
		goto no_room;
	nlmsg_end(skb, header);
	return 0;

no_room:
	nlmsg_cancel(skb, header);
	return -EMSGSIZE;
}
