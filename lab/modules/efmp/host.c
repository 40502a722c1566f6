// SPDX-License-Identifier: GPL-2.0-only
/*
 * host.c - "ap0", the port behind which the device's own network stack stands:
 * its DHCP server and whatever answers a ping are reached through the bridge
 * like any other station.
 */
#include <linux/etherdevice.h>
#include <linux/rtnetlink.h>
#include "compat.h"
#include "efmp.h"

static const u8 host_mac[ETH_ALEN] = { 0x02, 0x4d, 0x4f, 0x58, 0x00, 0x01 };

static struct net_device *host_dev;
static struct efmp_port host_port;

const u8 *efmp_host_mac(void)
{
	return host_dev->dev_addr;
}

struct efmp_port *efmp_host_port(void)
{
	return &host_port;
}

/* The stack sends: to the bridge this is a frame that comes in. */
static netdev_tx_t host_start_xmit(struct sk_buff *skb, struct net_device *dev)
{
	dev->stats.tx_packets++;
	dev->stats.tx_bytes += skb->len;
	skb_tx_timestamp(skb);
	efmp_pipeline_skb(&host_port, skb);
	return NETDEV_TX_OK;
}

/* The bridge sends: to the stack this is a frame that comes in. */
static bool host_xmit(struct efmp_port *port, struct sk_buff *skb)
{
	struct net_device *dev = port->dev;

	if (!netif_running(dev)) {
		kfree_skb(skb);
		return false;
	}
	dev->stats.rx_packets++;
	dev->stats.rx_bytes += skb->len;
	skb->protocol = eth_type_trans(skb, dev);
	return netif_rx(skb) == NET_RX_SUCCESS;
}

static const struct net_device_ops host_ops = {
	.ndo_start_xmit = host_start_xmit,
	.ndo_set_mac_address = eth_mac_addr,
	.ndo_validate_addr = eth_validate_addr,
};

static void host_setup(struct net_device *dev)
{
	ether_setup(dev);
	dev->netdev_ops = &host_ops;
	/* Frames go on at once: there is nothing to wait for in a queue. */
	dev->priv_flags |= IFF_NO_QUEUE;
	efmp_set_nested_xmit(dev);
	efmp_set_mac(dev, host_mac);
}

int efmp_host_init(void)
{
	int err;

	host_dev = alloc_netdev(0, "ap0", NET_NAME_USER, host_setup);
	if (!host_dev)
		return -ENOMEM;
	host_port.dev = host_dev;
	host_port.xmit = host_xmit;

	rtnl_lock();
	err = register_netdevice(host_dev);
	if (!err) {
		err = efmp_port_attach(&host_port, MOXLAB_PORT_HOST);
		if (err)
			unregister_netdevice(host_dev);
	}
	rtnl_unlock();
	if (err)
		free_netdev(host_dev);
	return err;
}

void efmp_host_exit(void)
{
	rtnl_lock();
	/* Closed first: no frame of the stack's is on its way in after that. */
	dev_close(host_dev);
	synchronize_net();
	efmp_port_detach(&host_port);
	unregister_netdevice(host_dev);
	rtnl_unlock();
	free_netdev(host_dev);
}
