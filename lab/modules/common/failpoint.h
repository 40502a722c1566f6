/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * failpoint.h - make a platform call fail on demand: let some calls pass, then
 * fail some. Usable in any context; costs one plain read while it is not armed.
 */
#ifndef LAB_FAILPOINT_H
#define LAB_FAILPOINT_H

#include <linux/spinlock.h>
#include <linux/types.h>
#include "../../control/moxlab.h"

struct failpoint {
	raw_spinlock_t lock;
	u32 skip;
	u32 count;
	s32 value;
	u32 hit;
};

#define FAILPOINT_INIT(name)                                  \
	{                                                     \
		.lock = __RAW_SPIN_LOCK_UNLOCKED((name).lock) \
	}

/* Arms @f as @fail says; reports about the previous arming in its out fields. */
static inline void failpoint_arm(struct failpoint *f, struct moxlab_fail *fail)
{
	unsigned long flags;

	raw_spin_lock_irqsave(&f->lock, flags);
	fail->hit = f->hit;
	fail->left = f->count;
	f->skip = fail->skip;
	f->value = fail->value;
	f->hit = 0;
	WRITE_ONCE(f->count, fail->count);
	raw_spin_unlock_irqrestore(&f->lock, flags);
}

/*
 * True when this call is to fail; *@value (may be null) is then what it is to
 * return.
 */
static inline bool failpoint_hit(struct failpoint *f, int *value)
{
	unsigned long flags;
	bool fails = false;

	if (likely(!READ_ONCE(f->count)))
		return false;

	raw_spin_lock_irqsave(&f->lock, flags);
	if (f->count && f->skip) {
		f->skip--;
	} else if (f->count) {
		if (f->count != MOXLAB_FOREVER)
			WRITE_ONCE(f->count, f->count - 1);
		f->hit++;
		if (value)
			*value = f->value;
		fails = true;
	}
	raw_spin_unlock_irqrestore(&f->lock, flags);
	return fails;
}

#endif /* LAB_FAILPOINT_H */
