// SPDX-License-Identifier: GPL-2.0-only
/*
 * left.c - a record of the frames that left, or found nowhere to go, kept while
 * a test asks for it.
 */
#include "../lsm_ko/lsm_ko.h"
#include "efmp.h"

#define FRAMES 256

struct ring efmp_left = RING_INIT(efmp_left);
static bool enabled;

static void *index_for(const void *block)
{
	u32 ifindex = block ? ((const struct lsm_intfcb *)block)->ifindex : MOXLAB_NO_BLOCK;

	return (void *)(unsigned long)ifindex;
}

void efmp_header_for_user(u8 *header)
{
	struct efbuff *b = (struct efbuff *)header;

	b->link = 0;
	b->src_intf = index_for(b->src_intf);
	b->dst_intf = index_for(b->dst_intf);
}

void efmp_left_enable(bool on)
{
	WRITE_ONCE(enabled, on);
}

void efmp_left_add(struct efbuff *b, u32 ifindex, u32 outcome, bool sent)
{
	struct moxlab_left_rec *rec;
	unsigned long flags;

	if (!READ_ONCE(enabled))
		return;
	rec = ring_reserve(&efmp_left, &flags);
	rec->ifindex = ifindex;
	rec->outcome = outcome;
	rec->sent = sent;
	rec->length = b->total_len;
	rec->kept = min_t(u32, b->total_len, MOXLAB_LEFT_KEPT);
	rec->reserved = 0;
	memcpy(rec->header, b, sizeof(rec->header));
	efmp_header_for_user(rec->header);
	memcpy(rec->frame, efbuff_mac(b), rec->kept);
	ring_commit(&efmp_left, sizeof(*rec) + rec->kept, flags);
}

int efmp_left_init(void)
{
	return ring_alloc(&efmp_left, FRAMES, sizeof(struct moxlab_left_rec) + MOXLAB_LEFT_KEPT);
}

void efmp_left_exit(void)
{
	ring_free(&efmp_left);
}
