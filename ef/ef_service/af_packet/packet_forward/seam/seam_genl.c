// SPDX-License-Identifier: GPL-2.0-only
/*
 * The generic netlink family of the operators' channel.
 *
 * Requests carry a raw record in an attribute whose type and length the module
 * does not check, so the kernel must not validate attributes either: no policy,
 * and from 5.2 on, where validation became strict, liberal validation. 6.1
 * refuses both for operations from resv_start_op on, hence resv_start_op. What
 * the kernel itself still refuses, in every version:
 *
 *   nlmsg_len     what happens
 *   0 to 15       the rest of the datagram is dropped, without an answer
 *   16 to 19      -EINVAL: no generic netlink header
 *   20 to 23      passed on; mox_packet_msg_recv answers -1
 *   24 and more   passed on, if the datagram has that many bytes
 *
 * and a command other than 0 or a dump request (-EOPNOTSUPP), and a socket of
 * another network namespace (-ENOENT). Trailing bytes that form no attribute
 * make the kernel warn ("bytes leftover after parsing attributes"), no more.
 */
#include <linux/module.h>
#include <net/genetlink.h>
#include <net/net_namespace.h>
#include <net/netlink.h>

#include "seam_compat.h"
#include "seam_control.h"

static int seam_genl_doit(struct sk_buff *skb, struct genl_info *info)
{
	return mox_packet_msg_recv(skb, info);
}

static const struct genl_ops mox_packet_genl_ops[] = {
	{ .cmd = MOX_PACKET_GENL_CMD, .doit = seam_genl_doit, SEAM_GENL_LIBERAL },
};

static struct genl_family mox_packet_genl_family = {
	.name = MOX_PACKET_GENL_NAME,
	.version = MOX_PACKET_GENL_VERSION,
	.maxattr = MOX_PACKET_GENL_ATTR,
	.netnsok = false,
	/* The kernel's one mutex for all families would let a slow report hold up the others. */
	.parallel_ops = true,
	.ops = mox_packet_genl_ops,
	.n_ops = ARRAY_SIZE(mox_packet_genl_ops),
	SEAM_GENL_RESV_START.module = THIS_MODULE,
};

int seam_genl_register(void)
{
	return genl_register_family(&mox_packet_genl_family);
}

void seam_genl_unregister(void)
{
	genl_unregister_family(&mox_packet_genl_family);
}

const void *seam_genl_message(const struct genl_info *info)
{
	return info->nlhdr;
}

int seam_genl_from_admin(const struct sk_buff *request)
{
	return netlink_capable(request, CAP_NET_ADMIN);
}

u32 seam_genl_client(const struct genl_info *info)
{
	return info->snd_portid;
}

struct sk_buff *seam_genl_alloc(void)
{
	return nlmsg_new(20, GFP_KERNEL);
}

void *seam_genl_put(struct sk_buff *skb, u32 client)
{
	return genlmsg_put(skb, client, 0, &mox_packet_genl_family, 0, MOX_PACKET_GENL_CMD);
}

int seam_genl_put_empty(struct sk_buff *skb, int type)
{
	return nla_put(skb, type, 0, NULL);
}

void seam_genl_end(struct sk_buff *skb, void *message)
{
	genlmsg_end(skb, message);
}

int seam_genl_unicast(struct sk_buff *skb, u32 client)
{
	return netlink_unicast(init_net.genl_sock, skb, client, MSG_DONTWAIT);
}

void seam_genl_free(struct sk_buff *skb)
{
	nlmsg_free(skb);
}
