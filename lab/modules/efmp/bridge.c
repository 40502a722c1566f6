// SPDX-License-Identifier: GPL-2.0-only
/*
 * bridge.c - which port a MAC address was last seen at.
 */
#include <linux/etherdevice.h>
#include <linux/jhash.h>
#include <linux/jiffies.h>
#include <linux/rculist.h>
#include <linux/slab.h>
#include "efmp.h"

#define BUCKETS 256
#define ENTRIES_MAX 4096 /* a flood of made-up addresses must not eat the memory */
#define AGE (300 * HZ)   /* as bridges do by default */

struct fdb_entry {
	struct hlist_node hash;
	struct rcu_head rcu;
	struct efmp_port *port;
	unsigned long seen; /* jiffies */
	u8 mac[ETH_ALEN];
};

static struct hlist_head table[BUCKETS];
static DEFINE_SPINLOCK(fdb_lock); /* writers; taken with bottom halves off */
static u32 entries;

static struct hlist_head *bucket(const u8 *mac)
{
	return &table[jhash(mac, ETH_ALEN, 0) % BUCKETS];
}

/* Inside rcu_read_lock(). */
static struct fdb_entry *find(const u8 *mac)
{
	struct fdb_entry *e;

	hlist_for_each_entry_rcu(e, bucket(mac), hash) if (!memcmp(e->mac, mac, ETH_ALEN)) return e;
	return NULL;
}

static void drop(struct fdb_entry *e)
{
	hlist_del_rcu(&e->hash);
	entries--;
	kfree_rcu(e, rcu);
}

void efmp_fdb_learn(const u8 *mac, struct efmp_port *port)
{
	struct fdb_entry *e;

	if (is_multicast_ether_addr(mac) || is_zero_ether_addr(mac))
		return;
	e = find(mac);
	if (e) {
		if (READ_ONCE(e->port) != port)
			WRITE_ONCE(e->port, port);
		WRITE_ONCE(e->seen, jiffies);
		return;
	}

	spin_lock_bh(&fdb_lock);
	if (find(mac) || entries >= ENTRIES_MAX)
		goto out;
	e = kmalloc(sizeof(*e), GFP_ATOMIC | __GFP_NOWARN);
	if (!e)
		goto out; /* frames for it are flooded until the next one */
	memcpy(e->mac, mac, ETH_ALEN);
	e->port = port;
	e->seen = jiffies;
	entries++;
	hlist_add_head_rcu(&e->hash, bucket(mac));
out:
	spin_unlock_bh(&fdb_lock);
}

struct efmp_port *efmp_fdb_find(const u8 *mac)
{
	struct fdb_entry *e;

	if (is_multicast_ether_addr(mac))
		return NULL;
	/* The host's own address is known without learning. */
	if (!memcmp(mac, efmp_host_mac(), ETH_ALEN))
		return efmp_host_port();
	e = find(mac);
	if (!e || time_after(jiffies, READ_ONCE(e->seen) + AGE))
		return NULL;
	return READ_ONCE(e->port);
}

void efmp_fdb_flush(const struct efmp_port *port)
{
	struct fdb_entry *e;
	struct hlist_node *next;
	int i;

	spin_lock_bh(&fdb_lock);
	for (i = 0; i < BUCKETS; i++)
		hlist_for_each_entry_safe(e, next, &table[i], hash) if (!port || e->port == port)
			drop(e);
	spin_unlock_bh(&fdb_lock);
}

u32 efmp_fdb_count(void)
{
	return READ_ONCE(entries);
}
