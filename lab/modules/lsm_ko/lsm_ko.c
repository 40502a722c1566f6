// SPDX-License-Identifier: GPL-2.0-only
/*
 * lsm_ko - interface control blocks for the lab. Blocks are made and changed by
 * the lab's efmp and never freed before unload: the holder of one may go on
 * reading it after it was removed from the lookup.
 */
#include <linux/etherdevice.h>
#include <linux/hash.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/rculist.h>
#include <linux/slab.h>
#include "../common/failpoint.h"
#include "lsm_ko.h"

#define TABLE_BITS 7
#define BLOCKS_MAX 4096 /* blocks stay until unload: bound what a test can pin */
#define UNSPECIFIED \
	0xa5 /* fills what the contract leaves open, so that a
			  * reader at a wrong offset does not see zeroes */

struct block {
	struct lsm_intfcb cb; /* first: its address is what others hold */
	struct hlist_node hash;
	struct list_head all;
	u32 wlan;
	bool known;
};

static struct hlist_head table[1 << TABLE_BITS];
static LIST_HEAD(blocks); /* in order of birth */
static u32 block_count;
/* Guards the lists, the count and every change of a block. Readers go without. */
static DEFINE_MUTEX(change_lock);
static struct failpoint intfcb_fail = FAILPOINT_INIT(intfcb_fail);

/* Blocks never leave the table, so a found one needs no read-side section. */
static struct block *find_block(u32 ifindex)
{
	struct block *b;

	rcu_read_lock();
	hlist_for_each_entry_rcu(b, &table[hash_32(ifindex, TABLE_BITS)], hash)
	{
		if (b->cb.ifindex == ifindex)
			break;
	}
	rcu_read_unlock();
	return b;
}

void *lsm_lab_find(u32 ifindex)
{
	struct block *b = find_block(ifindex);

	return b && READ_ONCE(b->known) ? &b->cb : NULL;
}
EXPORT_SYMBOL_GPL(lsm_lab_find);

void *lsm_get_intfcb(u32 ifindex)
{
	if (failpoint_hit(&intfcb_fail, NULL))
		return NULL;
	return lsm_lab_find(ifindex);
}
EXPORT_SYMBOL(lsm_get_intfcb);

static void apply(struct block *b, const struct moxlab_intf *intf, u32 set)
{
	if (set & MOXLAB_INTF_SET_MAC)
		ether_addr_copy(b->cb.mac, intf->mac);
	if (set & MOXLAB_INTF_SET_LINK)
		WRITE_ONCE(b->cb.link, intf->link);
	if (set & MOXLAB_INTF_SET_WLAN)
		WRITE_ONCE(b->wlan, intf->wlan);
	/* The last byte stays NUL at every moment: names are read unlocked. */
	if (set & MOXLAB_INTF_SET_NAME)
		strncpy(b->cb.name, intf->name, sizeof(b->cb.name) - 1);
}

static struct block *make_block(u32 ifindex)
{
	struct block *b;

	if (block_count >= BLOCKS_MAX)
		return ERR_PTR(-ENOSPC);
	b = kzalloc(sizeof(*b), GFP_KERNEL);
	if (!b)
		return ERR_PTR(-ENOMEM);
	memset(&b->cb, UNSPECIFIED, sizeof(b->cb));
	memset(b->cb.name, 0, sizeof(b->cb.name));
	b->cb.ifindex = ifindex;
	block_count++;
	list_add_tail(&b->all, &blocks);
	return b;
}

int lsm_lab_set(const struct moxlab_intf *intf)
{
	struct block *b;
	int err = 0;

	if (intf->link > 1 || intf->wlan > 1 ||
	    strnlen(intf->name, sizeof(intf->name)) == sizeof(intf->name))
		return -EINVAL;

	mutex_lock(&change_lock);
	b = find_block(intf->ifindex);
	if (!b || !b->known) {
		struct moxlab_intf fresh = { .link = 1 };
		bool revived = b;

		if (!b)
			b = make_block(intf->ifindex);
		if (IS_ERR(b)) {
			err = PTR_ERR(b);
			goto out;
		}
		snprintf(fresh.name, sizeof(fresh.name), "if%u", intf->ifindex);
		apply(b, &fresh, ~0u);
		apply(b, intf, intf->set);
		if (!revived)
			hlist_add_head_rcu(&b->hash, &table[hash_32(intf->ifindex, TABLE_BITS)]);
		/* A finder must see the fields that this call set. */
		smp_store_release(&b->known, true);
	} else {
		apply(b, intf, intf->set);
	}
out:
	mutex_unlock(&change_lock);
	return err;
}
EXPORT_SYMBOL_GPL(lsm_lab_set);

int lsm_lab_del(u32 ifindex)
{
	struct block *b;
	int err = -ENXIO;

	mutex_lock(&change_lock);
	b = find_block(ifindex);
	if (b && b->known) {
		WRITE_ONCE(b->known, false);
		err = 0;
	}
	mutex_unlock(&change_lock);
	return err;
}
EXPORT_SYMBOL_GPL(lsm_lab_del);

bool lsm_lab_is_wlan(const void *intfcb)
{
	return intfcb && READ_ONCE(container_of(intfcb, struct block, cb)->wlan);
}
EXPORT_SYMBOL_GPL(lsm_lab_is_wlan);

int lsm_lab_nth(u32 n, struct moxlab_intf_rec *rec)
{
	struct block *b;
	int err = -ENOENT;

	memset(rec, 0, sizeof(*rec));
	mutex_lock(&change_lock);
	list_for_each_entry(b, &blocks, all)
	{
		if (n--)
			continue;
		rec->intf.ifindex = b->cb.ifindex;
		rec->intf.link = b->cb.link;
		rec->intf.wlan = b->wlan;
		ether_addr_copy(rec->intf.mac, b->cb.mac);
		memcpy(rec->intf.name, b->cb.name, sizeof(rec->intf.name));
		rec->known = b->known;
		err = 0;
		break;
	}
	mutex_unlock(&change_lock);
	return err;
}
EXPORT_SYMBOL_GPL(lsm_lab_nth);

void lsm_lab_fail(struct moxlab_fail *fail)
{
	failpoint_arm(&intfcb_fail, fail);
}
EXPORT_SYMBOL_GPL(lsm_lab_fail);

static void free_blocks(void)
{
	struct block *b, *next;

	list_for_each_entry_safe(b, next, &blocks, all) kfree(b);
}

static int __init lsm_ko_init(void)
{
	static const struct moxlab_intf reserved[] __initconst = {
		{ .ifindex = LSM_RESV_LEV2, .set = MOXLAB_INTF_SET_NAME, .name = "resv-l2" },
		{ .ifindex = LSM_RESV_LEV3, .set = MOXLAB_INTF_SET_NAME, .name = "resv-l3" },
	};
	int i, err;

	BUILD_BUG_ON(offsetof(struct lsm_intfcb, ifindex) != 0);
	BUILD_BUG_ON(offsetof(struct lsm_intfcb, mac) != 4);
	BUILD_BUG_ON(offsetof(struct lsm_intfcb, link) != 12);
	BUILD_BUG_ON(offsetof(struct lsm_intfcb, name) != 332);
	BUILD_BUG_ON(sizeof(struct lsm_intfcb) < 364);

	for (i = 0; i < ARRAY_SIZE(reserved); i++) {
		err = lsm_lab_set(&reserved[i]);
		if (err) {
			free_blocks();
			return err;
		}
	}
	return 0;
}

static void __exit lsm_ko_exit(void)
{
	free_blocks();
}

module_init(lsm_ko_init);
module_exit(lsm_ko_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Lab stand-in for the platform's interface control blocks");
