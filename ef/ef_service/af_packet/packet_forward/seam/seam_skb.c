// SPDX-License-Identifier: GPL-2.0-only
/* Socket buffers. */
#include <linux/skbuff.h>
#include <net/sock.h>

#include "seam.h"

struct sk_buff *seam_skb_of_frame(struct seam_frame *frame)
{
	struct sk_buff *skb = __alloc_skb(frame->len, GFP_ATOMIC, 0, NUMA_NO_NODE);

	if (!skb)
		return NULL;
	__skb_put_data(skb, frame->data, frame->len);
	skb_reset_mac_header(skb);
	skb_set_network_header(skb, frame->net_offset);
	skb->skb_iif = frame->ifindex;
	skb->vlan_tci = frame->vlan_id;
	frame->cb = skb->cb;
	return skb;
}

struct sk_buff *seam_skb_clone(struct sk_buff *skb)
{
	return skb_clone(skb, GFP_ATOMIC);
}

void *seam_skb_pull(struct sk_buff *skb, u32 len)
{
	return skb_pull(skb, len);
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

void seam_skb_set_time(struct sk_buff *skb, u64 time)
{
	skb->tstamp = ns_to_ktime(time);
}

u32 seam_skb_users(const struct sk_buff *skb)
{
	return refcount_read(&skb->users);
}

void seam_consume_skb(struct sk_buff *skb)
{
	consume_skb(skb);
}
