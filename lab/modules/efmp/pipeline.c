// SPDX-License-Identifier: GPL-2.0-only
/*
 * pipeline.c - the path of a frame: conversion to an efbuff, hooks, forwarding,
 * transmission.
 */
#include <linux/etherdevice.h>
#include <linux/if_vlan.h>
#include <linux/module.h>
#include <linux/preempt.h>
#include <linux/rculist.h>
#include "../lsm_ko/lsm_ko.h"
#include "efmp.h"

/* What efmp_output_pkt() returns. 2, 3 and 7 never come from this platform. */
enum {
	SEND_NORMAL = 0,
	SEND_DROP = 1,
	SEND_BROADCAST = 4,
	SEND_RESV_BROADCAST = 5,
	SEND_MULTICAST = 6,
};

/* ---- Becoming an efbuff -------------------------------------------------- */

static __be16 ethertype(struct efbuff *b)
{
	return ((struct ethhdr *)efbuff_mac(b))->h_proto;
}

u32 efmp_take_tags(struct efbuff *b, u32 len)
{
	u8 *mac = efbuff_mac(b);

	while (b->vlan_tags < 2 && len >= VLAN_ETH_HLEN && eth_type_vlan(ethertype(b))) {
		__be16 tci;

		memcpy(&tci, mac + ETH_HLEN, sizeof(tci));
		if (b->vlan_tags++)
			b->inner_vlan = tci;
		else
			b->vlan = tci;
		memmove(mac + 2 * ETH_ALEN, mac + 2 * ETH_ALEN + VLAN_HLEN,
			len - 2 * ETH_ALEN - VLAN_HLEN);
		len -= VLAN_HLEN;
	}
	return len;
}

static u8 kind_of(struct efbuff *b)
{
	switch (ethertype(b)) {
	case htons(ETH_P_IP):
		return EFBUFF_KIND_IPV4;
	case htons(ETH_P_IPV6):
		return EFBUFF_KIND_IPV6;
	}
	return EFBUFF_KIND_LEV2;
}

void efmp_fill(struct efbuff *b, u32 len, void *src, const struct efmp_port *port)
{
	b->src_intf = src;
	b->l2_len = ETH_HLEN;
	b->net_offset = b->mac_offset + ETH_HLEN;
	b->kind = kind_of(b);
	b->total_len = len;
	if (src)
		b->l2ifx = b->origifx = ((struct lsm_intfcb *)src)->ifindex;
	if (port && port->flags & MOXLAB_PORT_WLAN) {
		b->radio_id = port->radio_id;
		b->wlan_id = port->wlan_id;
		b->ap_wlan_id = port->ap_wlan_id;
	}
}

void efmp_pipeline_skb(struct efmp_port *port, struct sk_buff *skb)
{
	struct efmp_path path = { .in = port, .run.tag = READ_ONCE(efmp_tag_mode) };
	u32 len = skb->len;
	struct efbuff *b;

	atomic64_inc(&port->rx);
	efmp_count(EFMP_COUNT_SEEN);
	if (len < ETH_HLEN || len > MOXLAB_FRAME_MAX) {
		efmp_count(EFMP_COUNT_MALFORMED);
		kfree_skb(skb);
		return;
	}
	b = efmp_buff_new(EFBUFF_FRAME, len, MOXLAB_OWNER_PLATFORM, &path.run.seq);
	if (!b) {
		efmp_count(EFMP_COUNT_NO_MEMORY);
		kfree_skb(skb);
		return;
	}
	if (skb_copy_bits(skb, 0, efbuff_mac(b), len)) {
		efmp_count(EFMP_COUNT_MALFORMED);
		efmp_buff_free(b);
		kfree_skb(skb);
		return;
	}
	if (skb_vlan_tag_present(skb)) {
		b->vlan = htons(skb_vlan_tag_get(skb));
		b->vlan_tags = 1;
	}
	consume_skb(skb);
	len = efmp_take_tags(b, len);
	efmp_fill(b, len, port->intfcb, port);

	path.run.buf = b;
	local_bh_disable();
	rcu_read_lock();
	efmp_pipeline(&path);
	rcu_read_unlock();
	local_bh_enable();
}

/* ---- Passing the hooks ---------------------------------------------------- */

static bool is_80211(struct efbuff *b)
{
	return b->wlan_flags & EFBUFF_WLAN_80211;
}

static bool has_ethernet(struct efbuff *b)
{
	return b->l2_len && !is_80211(b);
}

static bool is_reserved_lev2(const u8 *mac)
{
	static const u8 group[] = { 0x01, 0x80, 0xc2, 0x00, 0x00 };

	return !memcmp(mac, group, sizeof(group)) && mac[5] <= 0x0f;
}

static bool is_reserved_lev3(const u8 *mac)
{
	static const u8 ipv4[] = { 0x01, 0x00, 0x5e, 0x00, 0x00 };
	static const u8 ipv6[] = { 0x33, 0x33, 0x00, 0x00, 0x00 };

	return !memcmp(mac, ipv4, sizeof(ipv4)) || !memcmp(mac, ipv6, sizeof(ipv6));
}

static bool takes_resv(struct efbuff *b)
{
	const u8 *mac = efbuff_mac(b);

	return has_ethernet(b) && (is_reserved_lev2(mac) || is_reserved_lev3(mac));
}

static bool takes_wlan(struct efbuff *b)
{
	return lsm_lab_is_wlan(b->src_intf) || lsm_lab_is_wlan(b->dst_intf);
}

static bool takes_lev2(struct efbuff *b)
{
	return !is_80211(b);
}

static bool takes_ipv4(struct efbuff *b)
{
	return b->kind == EFBUFF_KIND_IPV4;
}

static bool takes_ipv6(struct efbuff *b)
{
	return b->kind == EFBUFF_KIND_IPV6;
}

static const struct {
	u32 point;
	bool (*takes)(struct efbuff *b);
} before_forwarding[] = {
	{ MOXLAB_POINT_RESV, takes_resv }, { MOXLAB_POINT_WLAN_IN, takes_wlan },
	{ MOXLAB_POINT_LEV2, takes_lev2 }, { MOXLAB_POINT_IPV4, takes_ipv4 },
	{ MOXLAB_POINT_IPV6, takes_ipv6 },
};

static u32 outcome_of(enum efmp_verdict verdict)
{
	return verdict == EFMP_FREED ? MOXLAB_OUT_FREED : MOXLAB_OUT_TAKEN;
}

/* ---- Leaving -------------------------------------------------------------- */

/* Where a frame goes. */
struct way {
	struct efmp_port *only;   /* by this port, */
	void *sink;               /* or by an interface without a device, */
	struct efmp_port *except; /* or by every port but this one */
};

static void set_destination(struct efbuff *b)
{
	const u8 *mac = efbuff_mac(b);
	struct efmp_port *port;

	if (!has_ethernet(b))
		return;
	if (is_reserved_lev2(mac)) {
		b->dst_intf = lsm_lab_find(LSM_RESV_LEV2);
		return;
	}
	if (is_reserved_lev3(mac)) {
		b->dst_intf = lsm_lab_find(LSM_RESV_LEV3);
		return;
	}
	port = efmp_fdb_find(mac);
	if (port) {
		b->dst_intf = port->intfcb;
		b->dst_l2ifx = port->dev->ifindex;
	}
}

/* The reserved blocks are addresses, not ways out: their frames are flooded. */
static bool is_sink(const void *block)
{
	return block && block != lsm_lab_find(LSM_RESV_LEV2) &&
	       block != lsm_lab_find(LSM_RESV_LEV3);
}

/* False when there is none. */
static bool find_way(struct efbuff *b, struct efmp_port *in, struct way *way)
{
	struct efmp_port *port;

	memset(way, 0, sizeof(*way));
	way->except = in;
	way->only = efmp_port_by_block(b->dst_intf);
	if (way->only)
		return way->only != in; /* its station has heard it already */
	if (is_sink(b->dst_intf)) {
		way->sink = b->dst_intf;
		return true;
	}
	list_for_each_entry_rcu(port, &efmp_ports, list) if (port != in) return true;
	return false;
}

/* The frame with its tags back in place; null when there is no memory. */
static struct sk_buff *build_skb_of(struct efbuff *b, struct net_device *dev)
{
	u32 tags = max_t(u32, b->vlan_tags, b->inner_vlan ? 2 : b->vlan ? 1 : 0);
	u32 addresses = 2 * ETH_ALEN;
	const u8 *mac = efbuff_mac(b);
	struct sk_buff *skb;

	skb = alloc_skb(LL_RESERVED_SPACE(dev) + b->total_len + 2 * VLAN_HLEN +
				dev->needed_tailroom,
			GFP_ATOMIC | __GFP_NOWARN);
	if (!skb)
		return NULL;
	skb_reserve(skb, LL_RESERVED_SPACE(dev) + VLAN_HLEN);
	skb_put_data(skb, mac, addresses);
	if (tags == 2) {
		__be16 tag[2] = { htons(ETH_P_8021Q), b->inner_vlan };

		skb_put_data(skb, tag, sizeof(tag));
	}
	skb_put_data(skb, mac + addresses, b->total_len - addresses);
	/* The outer tag travels beside the frame, as the stack has it. */
	if (tags)
		__vlan_hwaccel_put_tag(skb, htons(ETH_P_8021Q), ntohs(b->vlan));
	skb_reset_mac_header(skb);
	skb_set_network_header(skb, ETH_HLEN);
	skb->protocol = ((struct ethhdr *)skb->data)->h_proto;
	skb->dev = dev;
	return skb;
}

static bool leave_by(struct efbuff *b, struct efmp_port *port, bool sent)
{
	u32 max = READ_ONCE(port->dev->mtu) + ETH_HLEN;
	struct sk_buff *skb;

	if (b->total_len < ETH_HLEN || b->total_len > max) {
		efmp_count(EFMP_COUNT_MALFORMED);
		goto drop;
	}
	/* Or it would be on record as having left. */
	if (!netif_running(port->dev))
		goto drop;
	skb = build_skb_of(b, port->dev);
	if (!skb) {
		efmp_count(EFMP_COUNT_NO_MEMORY);
		goto drop;
	}
	/* Recorded before it goes: an answer to it could be recorded first. */
	efmp_left_add(b, port->dev->ifindex, MOXLAB_OUT_LEFT, sent);
	if (!port->xmit(port, skb))
		goto drop;
	atomic64_inc(&port->tx);
	return true;
drop:
	atomic64_inc(&port->tx_drop);
	return false;
}

/* The number of ports that it left by. */
static u32 leave(struct efbuff *b, const struct way *way, bool sent)
{
	struct efmp_port *port;
	u32 left = 0;

	if (way->only) {
		left = leave_by(b, way->only, sent);
		efmp_count(left ? EFMP_COUNT_FORWARDED : EFMP_COUNT_NOWHERE);
		return left;
	}
	if (way->sink) {
		efmp_count(EFMP_COUNT_FORWARDED);
		efmp_left_add(b, ((struct lsm_intfcb *)way->sink)->ifindex, MOXLAB_OUT_LEFT, sent);
		return 1;
	}
	list_for_each_entry_rcu(port, &efmp_ports, list) if (port != way->except)
		left += leave_by(b, port, sent);
	efmp_count(left ? EFMP_COUNT_FLOODED : EFMP_COUNT_NOWHERE);
	return left;
}

/*
 * Runs the output functions, once for a frame even if it leaves by many ports, and
 * for a sent frame even if it leaves by none; then transmits. Frees the buffer.
 */
static u32 go_out(struct efmp_path *path, bool sent)
{
	struct efbuff *b = path->run.buf;
	enum efmp_verdict verdict;
	struct way way;
	bool found = find_way(b, path->in, &way);

	/* A forwarded frame is about to leave only when there is a way. */
	if (found || sent) {
		verdict = efmp_hooks_run(&path->run, MOXLAB_POINT_OUTPUT);
		if (verdict != EFMP_GO_ON)
			return outcome_of(verdict);
	}
	if (found) {
		path->left_ports = leave(b, &way, sent);
	} else {
		efmp_count(EFMP_COUNT_NOWHERE);
		efmp_left_add(b, 0, MOXLAB_OUT_NOWHERE, sent);
	}
	efmp_buff_free(b);
	return path->left_ports ? MOXLAB_OUT_LEFT : MOXLAB_OUT_NOWHERE;
}

u32 efmp_pipeline(struct efmp_path *path)
{
	struct efbuff *b = path->run.buf;
	enum efmp_verdict verdict;
	int i;

	if (path->in && has_ethernet(b))
		efmp_fdb_learn(efbuff_mac(b) + ETH_ALEN, path->in);
	if (!path->dst_fixed)
		set_destination(b);

	for (i = 0; i < ARRAY_SIZE(before_forwarding); i++) {
		if (!before_forwarding[i].takes(b))
			continue;
		verdict = efmp_hooks_run(&path->run, before_forwarding[i].point);
		if (verdict != EFMP_GO_ON)
			return outcome_of(verdict);
	}
	return go_out(path, false);
}

/* ---- Sends ---------------------------------------------------------------- */

static DEFINE_SPINLOCK(override_lock);
static struct moxlab_outcome_override override;

void efmp_send_override(const struct moxlab_outcome_override *o)
{
	spin_lock_bh(&override_lock);
	override = *o;
	spin_unlock_bh(&override_lock);
}

static bool take_override(struct moxlab_outcome_override *o)
{
	bool on;

	spin_lock_bh(&override_lock);
	*o = override;
	on = override.count;
	if (on && override.count != MOXLAB_FOREVER)
		override.count--;
	spin_unlock_bh(&override_lock);
	return on;
}

/* A sender fills the header itself; what it says must lie inside the buffer. */
static bool header_fits(const struct efbuff *b, u32 size)
{
	return b->mac_offset >= EFBUFF_HEADER && b->net_offset >= EFBUFF_HEADER &&
	       b->mac_offset + EFBUFF_MAC_READABLE <= size &&
	       b->net_offset + EFBUFF_NET_READABLE <= size && b->total_len <= size - b->mac_offset;
}

static int send_result(u32 outcome, const u8 *dst)
{
	if (outcome == MOXLAB_OUT_FREED || outcome == MOXLAB_OUT_NOWHERE)
		return SEND_DROP;
	if (is_broadcast_ether_addr(dst))
		return SEND_BROADCAST;
	if (is_reserved_lev2(dst) || is_reserved_lev3(dst))
		return SEND_RESV_BROADCAST;
	return is_multicast_ether_addr(dst) ? SEND_MULTICAST : SEND_NORMAL;
}

int efmp_send(struct efbuff *b, struct efmp_path *path, u32 *outcome)
{
	struct moxlab_outcome_override o;
	u8 dst[ETH_ALEN] __aligned(2);
	bool overridden;
	u32 size;
	int result;

	*outcome = MOXLAB_OUT_NOWHERE;
	efmp_count(EFMP_COUNT_SENDS);
	if (!efmp_buff_adopt(b, &path->run.seq, &size))
		return SEND_DROP;
	overridden = take_override(&o);
	if (!header_fits(b, size)) {
		efmp_misuse(
			MOXLAB_MISUSE_BAD_HEADER,
			"efbuff %u handed over with MAC header at %u, network header at %u, length %u, but %u bytes in all",
			path->run.seq, b->mac_offset, b->net_offset, b->total_len, size);
		efmp_buff_free(b);
		return SEND_DROP;
	}
	if (overridden && !o.send) {
		efmp_buff_free(b);
		return o.outcome;
	}
	memcpy(dst, efbuff_mac(b), ETH_ALEN);
	path->run.buf = b;

	local_bh_disable();
	rcu_read_lock();
	path->in = efmp_port_by_block(b->src_intf);
	/* A named destination is meant, even where the frame comes from. */
	if (efmp_port_by_block(b->dst_intf) == path->in)
		path->in = NULL;
	*outcome = go_out(path, true);
	rcu_read_unlock();
	local_bh_enable();

	result = send_result(*outcome, dst);
	return overridden ? o.outcome : result;
}

int efmp_output_pkt(void *efbuff)
{
	struct efmp_path path = { .run.tag = READ_ONCE(efmp_tag_mode) };
	u32 outcome;

	/* A caller in a softirq may hold what it likes there, one in a process
	 * nothing that keeps it from being scheduled. */
	if (!in_serving_softirq() && (in_atomic() || irqs_disabled()))
		efmp_misuse(MOXLAB_MISUSE_CONTEXT,
			    "a send with preempt count 0x%x, interrupts %s, by %pS",
			    preempt_count(), irqs_disabled() ? "off" : "on",
			    __builtin_return_address(0));
	return efmp_send(efbuff, &path, &outcome);
}
EXPORT_SYMBOL(efmp_output_pkt);
