/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * track.h - the accounts of efbuffs, between buff.c, which keeps them, and
 * buff_query.c, which reads them.
 */
#ifndef EFMP_TRACK_H
#define EFMP_TRACK_H

#include <linux/list.h>
#include <linux/spinlock.h>
#include "efmp.h"

/* What is known of one efbuff. */
struct track {
	struct hlist_node hash;
	struct list_head list; /* live, or quarantine once dead */
	struct efbuff *buf;
	u32 seq;
	u32 size;       /* bytes, header included, guard left out */
	u32 redzone;    /* guard bytes behind them */
	u32 mac_offset; /* at birth */
	u8 owner;
	bool cloned;
	bool offered; /* in a hook just now */
	bool dead;
	bool held; /* dead, memory kept and poisoned */
	void *creator;
	u64 born_ns;
	u8 last[MOXLAB_HEADER_LEN]; /* the header as it was freed */
};

/* Guards all that follows and every record; taken with interrupts off. */
extern spinlock_t efmp_buffer_lock;
extern struct list_head efmp_live; /* ascending sequence numbers */
extern u32 efmp_live_count;
extern struct moxlab_balance efmp_accounts[256]; /* by owner */

/* Under the lock: the record of this buffer, dead or alive, and no other's. */
struct track *efmp_find_seq(const void *buf, u32 seq);

/* Plain words, read and written whole, without the lock. */
struct efmp_buff_settings {
	u32 redzone;
	u32 quarantine;
	bool hold_memory;
};

extern struct efmp_buff_settings efmp_buff_set;

/* Without the lock. Makes the quarantine @limit records long at most. */
void efmp_shrink_quarantine(u32 limit);

#endif /* EFMP_TRACK_H */
