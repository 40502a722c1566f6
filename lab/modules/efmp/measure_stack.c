// SPDX-License-Identifier: GPL-2.0-only
/*
 * measure_stack.c - what the kernel's own stack spends on a received frame, which
 * is handed to it as a driver does: with no socket, and with the kernel's packet
 * sockets behind it.
 */
#include <linux/etherdevice.h>
#include <linux/ktime.h>
#include <linux/netdevice.h>
#include <linux/skbuff.h>
#include <linux/slab.h>
#include "efmp.h"

static struct sk_buff *make_skb(struct net_device *dev, const u8 *frame, u32 len)
{
	struct sk_buff *skb = netdev_alloc_skb_ip_align(dev, len);

	if (!skb)
		return NULL;
	skb_put_data(skb, frame, len);
	skb->protocol = eth_type_trans(skb, dev);
	return skb;
}

int efmp_measure_stack(struct moxlab_measure *m, const u8 *frame)
{
	struct net_device *dev = dev_get_by_index(&init_net, m->src_ifindex);
	struct sk_buff **skbs = kcalloc(m->count, sizeof(*skbs), GFP_KERNEL);
	u64 times[3];
	u32 made, n;
	int err = 0;

	if (!dev)
		err = -ENODEV;
	else if (!skbs)
		err = -ENOMEM;
	for (made = 0; !err && made < m->count; made++) {
		skbs[made] = make_skb(dev, frame, m->frame_len);
		if (!skbs[made])
			break;
	}
	if (!err && made == m->count) {
		local_bh_disable();
		times[0] = ktime_get_mono_fast_ns();
		netif_receive_skb(skbs[0]);
		times[1] = ktime_get_mono_fast_ns();
		for (n = 1; n < m->count; n++)
			netif_receive_skb(skbs[n]);
		times[2] = ktime_get_mono_fast_ns();
		local_bh_enable();
		m->first_ns = times[1] - times[0];
		m->rest_ns = times[2] - times[1];
	} else if (!err) {
		err = -ENOMEM;
		while (made--)
			kfree_skb(skbs[made]);
	}
	kfree(skbs);
	if (dev)
		dev_put(dev);
	return err;
}
