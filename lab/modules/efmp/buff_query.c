// SPDX-License-Identifier: GPL-2.0-only
/*
 * buff_query.c - what the accounts of efbuffs have to say, and how they are kept.
 */
#include <linux/kernel.h>
#include "track.h"

bool efmp_buff_peek(struct efbuff *b, u32 seq, u8 *header)
{
	unsigned long flags;
	struct track *t;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = efmp_find_seq(b, seq);
	if (t)
		memcpy(header, t->dead ? (void *)t->last : b, MOXLAB_HEADER_LEN);
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	return t;
}

void efmp_buff_balance(struct moxlab_balance *balance)
{
	u32 owner = balance->owner;
	unsigned long flags;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	*balance = efmp_accounts[owner];
	balance->owner = owner;
	balance->live_all = efmp_live_count;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
}

int efmp_buff_read_live(struct moxlab_read *read)
{
	struct moxlab_live_rec rec;
	unsigned long flags;
	struct track *t;
	void *creator;
	int err;

	for (;;) {
		memset(&rec, 0, sizeof(rec));
		spin_lock_irqsave(&efmp_buffer_lock, flags);
		list_for_each_entry(t, &efmp_live,
				    list) if (t->seq >= read->from && t->seq >= read->next) break;
		if (&t->list == &efmp_live) {
			spin_unlock_irqrestore(&efmp_buffer_lock, flags);
			return 0;
		}
		rec.rec.seq = t->seq;
		rec.rec.time_ns = t->born_ns;
		rec.owner = t->owner;
		rec.length = t->size - t->mac_offset;
		rec.cloned = t->cloned;
		rec.offered = t->offered;
		creator = t->creator;
		spin_unlock_irqrestore(&efmp_buffer_lock, flags);

		snprintf(rec.creator, sizeof(rec.creator), "%pS", creator);
		err = efmp_read_put(read, &rec.rec, sizeof(rec));
		if (err)
			return err < 0 ? err : 0;
	}
}

void efmp_buff_settings(struct moxlab_settings *s)
{
	if (s->set) {
		WRITE_ONCE(efmp_buff_set.redzone, s->redzone);
		WRITE_ONCE(efmp_buff_set.quarantine, s->quarantine);
		WRITE_ONCE(efmp_buff_set.hold_memory, s->hold_memory);
		efmp_shrink_quarantine(s->quarantine);
	}
	s->redzone = efmp_buff_set.redzone;
	s->quarantine = efmp_buff_set.quarantine;
	s->hold_memory = efmp_buff_set.hold_memory;
}
