/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * ring.h - a bounded ring of records for tests to read. The oldest record makes
 * room for the newest and is counted as lost. Writers may be in any context;
 * the lock is raw and held with interrupts off only while a slot is filled.
 */
#ifndef LAB_RING_H
#define LAB_RING_H

#include <linux/kernel.h>
#include <linux/ktime.h>
#include <linux/slab.h>
#include <linux/smp.h>
#include <linux/spinlock.h>
#include <linux/timekeeping.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include "../../control/moxlab.h"

struct ring {
	raw_spinlock_t lock;
	u8 *slots;
	u32 slot_size; /* bytes */
	u32 mask;      /* number of slots - 1; the number is a power of two */
	u64 first;     /* number of the oldest record */
	u64 next;      /* number of the next record; records count from 1 */
	u64 lost;
};

#define RING_INIT(name)                                                              \
	{                                                                            \
		.lock = __RAW_SPIN_LOCK_UNLOCKED((name).lock), .first = 1, .next = 1 \
	}

/* May sleep. @slots is a power of two. 0 or -ENOMEM. */
static inline int ring_alloc(struct ring *r, u32 slots, u32 slot_size)
{
	r->slot_size = ALIGN(slot_size, 8);
	r->mask = slots - 1;
	r->slots = vzalloc(array_size(slots, r->slot_size));
	return r->slots ? 0 : -ENOMEM;
}

static inline void ring_free(struct ring *r)
{
	vfree(r->slots);
	r->slots = NULL;
}

static inline u8 *ring_slot(struct ring *r, u64 seq)
{
	return r->slots + ((u32)seq & r->mask) * r->slot_size;
}

/* Begins a record: the slot, with the lock held until ring_commit(). */
static inline void *ring_reserve(struct ring *r, unsigned long *flags)
{
	raw_spin_lock_irqsave(&r->lock, *flags);
	return ring_slot(r, r->next);
}

/* Ends a record of @size bytes, its struct moxlab_rec included. */
static inline void ring_commit(struct ring *r, u32 size, unsigned long flags)
{
	struct moxlab_rec *rec = (struct moxlab_rec *)ring_slot(r, r->next);

	memset((u8 *)rec + size, 0, ALIGN(size, 8) - size);
	rec->size = ALIGN(size, 8);
	rec->cpu = raw_smp_processor_id();
	rec->seq = r->next;
	rec->time_ns = ktime_get_mono_fast_ns();
	r->next++;
	if (r->next - r->first > (u64)r->mask + 1) {
		r->first++;
		r->lost++;
	}
	raw_spin_unlock_irqrestore(&r->lock, flags);
}

static inline void ring_clear(struct ring *r)
{
	unsigned long flags;

	raw_spin_lock_irqsave(&r->lock, flags);
	r->first = r->next;
	r->lost = 0;
	raw_spin_unlock_irqrestore(&r->lock, flags);
}

/*
 * Copies as many records as fit to user space. Process context, may sleep.
 * 0, -EMSGSIZE when not even the first fits, -EFAULT, -ENOMEM.
 */
static inline int ring_read(struct ring *r, struct moxlab_read *read)
{
	u8 __user *to = u64_to_user_ptr(read->buf);
	u8 *bounce = kmalloc(r->slot_size, GFP_KERNEL);
	u64 seq = read->from;
	unsigned long flags;
	int err = 0;

	if (!bounce)
		return -ENOMEM;
	read->used = 0;
	read->count = 0;
	for (;;) {
		u32 size = 0;

		raw_spin_lock_irqsave(&r->lock, flags);
		read->lost = r->lost;
		seq = max(seq, r->first);
		if (seq < r->next) {
			size = ((struct moxlab_rec *)ring_slot(r, seq))->size;
			memcpy(bounce, ring_slot(r, seq), size);
		}
		raw_spin_unlock_irqrestore(&r->lock, flags);
		if (!size)
			break;
		if (size > read->size - read->used) {
			err = read->count ? 0 : -EMSGSIZE;
			break;
		}
		if (copy_to_user(to + read->used, bounce, size)) {
			err = -EFAULT;
			break;
		}
		read->used += size;
		read->count++;
		seq++;
	}
	read->next = seq;
	kfree(bounce);
	return err;
}

#endif /* LAB_RING_H */
