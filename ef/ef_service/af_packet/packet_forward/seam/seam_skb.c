// SPDX-License-Identifier: GPL-2.0
/* Socket buffers. */
#include <linux/skbuff.h>
#include <net/dst.h>
#include <net/sock.h>

#include "seam.h"

struct sk_buff *seam_skb_alloc(u32 len)
{
	return __alloc_skb(len, GFP_ATOMIC, 0, NUMA_NO_NODE);
}

struct sk_buff *seam_skb_clone(struct sk_buff *skb)
{
	return skb_clone(skb, GFP_ATOMIC);
}

void *seam_skb_put(struct sk_buff *skb, u32 len)
{
	return skb_put(skb, len);
}

void *seam_skb_pull(struct sk_buff *skb, u32 len)
{
	return skb_pull(skb, len);
}

void seam_skb_set_meta(struct sk_buff *skb, u32 net_offset, u32 ifindex, u16 vlan_id)
{
	skb_reset_mac_header(skb);
	skb_set_network_header(skb, net_offset);
	skb->skb_iif = ifindex;
	skb->vlan_tci = vlan_id;
	skb->dev = NULL;
}

void *seam_skb_cb(struct sk_buff *skb)
{
	BUILD_BUG_ON(sizeof(skb->cb) < sizeof(struct mox_packet_ctrl_info));
	return skb->cb;
}

u32 seam_skb_len(const struct sk_buff *skb)
{
	return skb->len;
}

u32 seam_skb_truesize(const struct sk_buff *skb)
{
	return skb->truesize;
}

u16 seam_skb_protocol(const struct sk_buff *skb)
{
	return (__force u16)skb->protocol;
}

int seam_skb_nonlinear(const struct sk_buff *skb)
{
	return skb_is_nonlinear(skb);
}

int seam_skb_pskb_trim(struct sk_buff *skb, u32 len)
{
	return ___pskb_trim(skb, len);
}

void seam_skb_cut(struct sk_buff *skb, u32 len)
{
	skb->len = len;
	skb_set_tail_pointer(skb, len);
}

u32 seam_skb_users(const struct sk_buff *skb)
{
	return refcount_read(&skb->users);
}

void seam_consume_skb(struct sk_buff *skb)
{
	consume_skb(skb);
}

void seam_skb_set_owner_r(struct sk_buff *skb, struct sock *sk)
{
	skb_set_owner_r(skb, sk);
}

void seam_skb_dst_drop(struct sk_buff *skb)
{
	skb_dst_drop(skb);
}
