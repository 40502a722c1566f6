// SPDX-License-Identifier: GPL-2.0-only
/*
 * port.c - network devices as ports: frames come in by the device's receive
 * handler and leave by its transmit queue.
 */
#include <linux/etherdevice.h>
#include <linux/if_arp.h>
#include <linux/nsproxy.h>
#include <linux/rculist.h>
#include <linux/rtnetlink.h>
#include <linux/slab.h>
#include "../lsm_ko/lsm_ko.h"
#include "compat.h"
#include "efmp.h"

LIST_HEAD(efmp_ports);

struct efmp_port *efmp_port_by_ifindex(u32 ifindex)
{
	struct efmp_port *port;

	list_for_each_entry_rcu(port, &efmp_ports,
				list) if ((u32)port->dev->ifindex == ifindex) return port;
	return NULL;
}

struct efmp_port *efmp_port_by_block(const void *intfcb)
{
	struct efmp_port *port;

	if (!intfcb)
		return NULL;
	list_for_each_entry_rcu(port, &efmp_ports, list) if (port->intfcb == intfcb) return port;
	return NULL;
}

/* The interface control block says of the port what its device says. */
static int publish_block(struct efmp_port *port)
{
	struct net_device *dev = port->dev;
	struct moxlab_intf intf = {
		.ifindex = dev->ifindex,
		.set = MOXLAB_INTF_SET_MAC | MOXLAB_INTF_SET_LINK | MOXLAB_INTF_SET_NAME |
		       MOXLAB_INTF_SET_WLAN,
		.link = netif_running(dev) && netif_carrier_ok(dev),
		.wlan = !!(port->flags & MOXLAB_PORT_WLAN),
	};

	ether_addr_copy(intf.mac, dev->dev_addr);
	strncpy(intf.name, dev->name, sizeof(intf.name) - 1);
	return lsm_lab_set(&intf);
}

void efmp_port_update(struct efmp_port *port)
{
	/* A block that exists is changed without allocating; it cannot fail. */
	publish_block(port);
}

int efmp_port_attach(struct efmp_port *port, u32 flags)
{
	int err;

	ASSERT_RTNL();
	port->flags = flags;
	err = publish_block(port);
	if (err)
		return err;
	port->intfcb = lsm_lab_find(port->dev->ifindex);
	dev_hold(port->dev);
	list_add_tail_rcu(&port->list, &efmp_ports);
	return 0;
}

/*
 * Afterwards the port is in no list and behind no learned address, and no reader
 * that found it before still uses it. The caller has stopped its frames already.
 */
void efmp_port_detach(struct efmp_port *port)
{
	ASSERT_RTNL();
	list_del_rcu(&port->list);
	lsm_lab_del(port->dev->ifindex);
	/* A CPU that found the port before may still learn an address for it ... */
	synchronize_rcu();
	efmp_fdb_flush(port);
	/* ... and one that found such an address may still be sending to it. */
	synchronize_rcu();
	dev_put(port->dev);
}

static bool xmit_device(struct efmp_port *port, struct sk_buff *skb)
{
	int result;

	skb->dev = port->dev;
	result = dev_queue_xmit(skb);
	return net_xmit_eval(result) == 0;
}

/* One linear frame, checksums done; consumed. */
static void receive_one(struct efmp_port *port, struct sk_buff *skb)
{
	if (skb->ip_summed == CHECKSUM_PARTIAL && skb_checksum_help(skb)) {
		efmp_count(EFMP_COUNT_NO_MEMORY);
		kfree_skb(skb);
		return;
	}
	efmp_pipeline_skb(port, skb);
}

/*
 * A frame from the wire carries its checksum and is no longer than the wire
 * allows; one from a program on this machine may leave both to the device.
 */
static void receive(struct efmp_port *port, struct sk_buff *skb)
{
	struct sk_buff *segments, *next;

	skb_push(skb, ETH_HLEN);
	if (!skb_is_gso(skb)) {
		receive_one(port, skb);
		return;
	}
	segments = skb_gso_segment(skb, 0);
	if (IS_ERR_OR_NULL(segments)) {
		efmp_count(EFMP_COUNT_MALFORMED);
		kfree_skb(skb);
		return;
	}
	consume_skb(skb);
	for (skb = segments; skb; skb = next) {
		next = skb->next;
		skb->next = NULL;
		receive_one(port, skb);
	}
}

static rx_handler_result_t rx_handler(struct sk_buff **pskb)
{
	struct efmp_port *port = rcu_dereference((*pskb)->dev->rx_handler_data);
	struct sk_buff *skb;

	if ((*pskb)->pkt_type == PACKET_LOOPBACK)
		return RX_HANDLER_PASS;
	skb = skb_share_check(*pskb, GFP_ATOMIC);
	if (!skb) {
		efmp_count(EFMP_COUNT_NO_MEMORY);
		return RX_HANDLER_CONSUMED;
	}
	receive(port, skb);
	return RX_HANDLER_CONSUMED;
}

static int add_device(struct net_device *dev, struct moxlab_port *p)
{
	struct efmp_port *port;
	int err;

	if (dev->type != ARPHRD_ETHER || dev->flags & IFF_LOOPBACK)
		return -EINVAL;
	if (dev == efmp_host_port()->dev)
		return -EBUSY;

	port = kzalloc(sizeof(*port), GFP_KERNEL);
	if (!port)
		return -ENOMEM;
	port->dev = dev;
	port->xmit = xmit_device;
	port->wlan_id = p->wlan_id;
	port->ap_wlan_id = p->ap_wlan_id;
	port->radio_id = p->radio_id;

	/* A bridge hears what is addressed to others. */
	err = dev_set_promiscuity(dev, 1);
	if (err)
		goto free;
	err = efmp_port_attach(port, p->flags & MOXLAB_PORT_WLAN);
	if (err)
		goto quiet;
	err = netdev_rx_handler_register(dev, rx_handler, port);
	if (err)
		goto detach;
	p->ifindex = dev->ifindex;
	return 0;

detach:
	efmp_port_detach(port);
quiet:
	dev_set_promiscuity(dev, -1);
free:
	kfree(port);
	return err;
}

static void del_device(struct efmp_port *port)
{
	struct net_device *dev = port->dev;

	netdev_rx_handler_unregister(dev);
	dev_set_promiscuity(dev, -1);
	efmp_port_detach(port);
	kfree(port);
}

/* Under rtnl: the port of a device, not the host's own. */
static struct efmp_port *device_port(const struct net_device *dev)
{
	struct efmp_port *port;

	list_for_each_entry(port, &efmp_ports,
			    list) if (port->dev == dev &&
				      !(port->flags & MOXLAB_PORT_HOST)) return port;
	return NULL;
}

static struct net_device *find_device(struct moxlab_port *p)
{
	struct net *net = current->nsproxy->net_ns;
	struct net_device *dev;

	p->name[sizeof(p->name) - 1] = '\0';
	dev = p->ifindex ? __dev_get_by_index(net, p->ifindex) : __dev_get_by_name(net, p->name);
	return dev;
}

int efmp_port_add(struct moxlab_port *p)
{
	struct net_device *dev;
	int err = -ENODEV;

	rtnl_lock();
	dev = find_device(p);
	if (dev)
		err = device_port(dev) ? -EEXIST : add_device(dev, p);
	rtnl_unlock();
	return err;
}

int efmp_port_del(struct moxlab_port *p)
{
	struct efmp_port *port = NULL;
	struct net_device *dev;

	rtnl_lock();
	dev = find_device(p);
	if (dev)
		port = device_port(dev);
	if (port)
		del_device(port);
	rtnl_unlock();
	return port ? 0 : -ENODEV;
}

static int device_event(struct notifier_block *nb, unsigned long event, void *info)
{
	struct net_device *dev = netdev_notifier_info_to_dev(info);
	struct efmp_port *port = device_port(dev);

	if (!port && dev == efmp_host_port()->dev)
		port = efmp_host_port();
	if (!port || !port->intfcb)
		return NOTIFY_DONE;

	switch (event) {
	case NETDEV_UNREGISTER:
		if (!(port->flags & MOXLAB_PORT_HOST))
			del_device(port);
		break;
	case NETDEV_UP:
	case NETDEV_DOWN:
	case NETDEV_CHANGE:
	case NETDEV_CHANGENAME:
	case NETDEV_CHANGEADDR:
		efmp_port_update(port);
		break;
	}
	return NOTIFY_DONE;
}

static struct notifier_block device_notifier = { .notifier_call = device_event };

int efmp_ports_read(struct moxlab_read *read)
{
	struct moxlab_port_rec rec;
	struct efmp_port *port;
	u64 seq = 0;
	int err = 0;

	rtnl_lock();
	list_for_each_entry(port, &efmp_ports, list)
	{
		if (++seq < read->from)
			continue;
		memset(&rec, 0, sizeof(rec));
		rec.rec.seq = seq;
		rec.port.ifindex = port->dev->ifindex;
		rec.port.flags = port->flags;
		memcpy(rec.port.name, port->dev->name,
		       min(sizeof(rec.port.name), sizeof(port->dev->name)));
		rec.port.wlan_id = port->wlan_id;
		rec.port.ap_wlan_id = port->ap_wlan_id;
		rec.port.radio_id = port->radio_id;
		rec.rx = atomic64_read(&port->rx);
		rec.tx = atomic64_read(&port->tx);
		rec.tx_drop = atomic64_read(&port->tx_drop);
		err = efmp_read_put(read, &rec.rec, sizeof(rec));
		if (err)
			break;
	}
	rtnl_unlock();
	return err < 0 ? err : 0;
}

void efmp_ports_clear(void)
{
	struct efmp_port *port;

	rtnl_lock();
	list_for_each_entry(port, &efmp_ports, list)
	{
		atomic64_set(&port->rx, 0);
		atomic64_set(&port->tx, 0);
		atomic64_set(&port->tx_drop, 0);
	}
	rtnl_unlock();
}

int efmp_ports_init(void)
{
	return register_netdevice_notifier(&device_notifier);
}

void efmp_ports_exit(void)
{
	struct efmp_port *port, *next;

	unregister_netdevice_notifier(&device_notifier);
	rtnl_lock();
	list_for_each_entry_safe(port, next, &efmp_ports,
				 list) if (!(port->flags & MOXLAB_PORT_HOST)) del_device(port);
	rtnl_unlock();
}
