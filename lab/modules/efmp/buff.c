// SPDX-License-Identifier: GPL-2.0-only
/*
 * buff.c - efbuffs, every one accounted for by owner.
 *
 * What the accounts know stands in a record of its own, found by address, so
 * that a stray write cannot forge it and an address that is no efbuff is never
 * read. A freed buffer's record stays for a while, and with it either the
 * poisoned memory, to see late writes, or only the address, where KASAN watches
 * the memory.
 */
#include <linux/hash.h>
#include <linux/ktime.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/vmalloc.h>
#include "track.h"

#define TABLE_BITS 10
#define TRACKS 16384 /* efbuffs alive and remembered; none beyond them */
#define ROOM_MAX (MOXLAB_FRAME_MAX + 4096)
#define REDZONE_BYTE 0xeb
#define POISON_BYTE 0x6b
#define UNUSED_BYTE 0x5c /* memory without a meaning: not zero, and no LLC/SNAP */

/*
 * Records come from a pool of our own: under KASAN and kmemleak each allocation
 * saves the stack, and on ARM that takes one lock for every function of a module
 * in it. With all CPUs at it, the records alone would cost more than the frames.
 */
static struct track *pool_memory;
DEFINE_SPINLOCK(efmp_buffer_lock); /* everything below, interrupts off */
static LIST_HEAD(pool);
static struct hlist_head table[1 << TABLE_BITS];
LIST_HEAD(efmp_live); /* ascending sequence numbers */
static LIST_HEAD(quarantine);
static u32 quarantined;
u32 efmp_live_count;
static u32 last_seq;
/* The header of the buffer that the module freed last; tests find it by name. */
u8 moxlab_last_freed[MOXLAB_HEADER_LEN];
struct moxlab_balance efmp_accounts[256];

struct efmp_buff_settings efmp_buff_set = {
	.redzone = IS_ENABLED(CONFIG_KASAN) ? 0 : 32,
	.quarantine = 128,
	.hold_memory = !IS_ENABLED(CONFIG_KASAN),
};

struct failpoint efmp_alloc_fail = FAILPOINT_INIT(efmp_alloc_fail);
struct failpoint efmp_clone_fail = FAILPOINT_INIT(efmp_clone_fail);

static struct hlist_head *bucket(const void *buf)
{
	return &table[hash_ptr((void *)buf, TABLE_BITS)];
}

static struct track *find_live(const void *buf)
{
	struct track *t;

	hlist_for_each_entry(t, bucket(buf), hash) if (t->buf == buf && !t->dead) return t;
	return NULL;
}

struct track *efmp_find_seq(const void *buf, u32 seq)
{
	struct track *t;

	hlist_for_each_entry(t, bucket(buf), hash) if (t->buf == buf && t->seq == seq) return t;
	return NULL;
}

static bool was_freed(const void *buf)
{
	struct track *t;

	hlist_for_each_entry(t, bucket(buf), hash) if (t->buf == buf && t->dead) return true;
	return false;
}

static void set_owner(struct track *t, u8 owner)
{
	efmp_accounts[t->owner].given++;
	efmp_accounts[t->owner].live--;
	efmp_accounts[owner].adopted++;
	efmp_accounts[owner].live++;
	t->owner = owner;
}

static void count_failed(u8 owner)
{
	unsigned long flags;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	efmp_accounts[owner].failed++;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
}

static struct track *track_get(void)
{
	unsigned long flags;
	struct track *t;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = list_first_entry_or_null(&pool, struct track, list);
	if (t)
		list_del(&t->list);
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	return t;
}

static void track_put(struct track *t)
{
	unsigned long flags;

	/* Or kmemleak would think that freed memory is still known. */
	memset(t, 0, sizeof(*t));
	spin_lock_irqsave(&efmp_buffer_lock, flags);
	list_add_tail(&t->list, &pool);
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
}

/* Memory with its record, not in any list yet. */
static struct track *make(u32 size)
{
	u32 redzone = READ_ONCE(efmp_buff_set.redzone);
	struct track *t = track_get();

	if (!t)
		return NULL;
	t->buf = kmalloc(size + redzone, GFP_ATOMIC | __GFP_NOWARN);
	if (!t->buf) {
		track_put(t);
		return NULL;
	}
	t->size = size;
	t->redzone = redzone;
	t->born_ns = ktime_get_mono_fast_ns();
	memset((u8 *)t->buf + size, REDZONE_BYTE, redzone);
	return t;
}

/* Publishes it; the sequence number, for it may be freed before we look again. */
static u32 account(struct track *t, u8 owner, bool cloned, void *creator)
{
	unsigned long flags;
	u32 seq;

	t->owner = owner;
	t->cloned = cloned;
	t->creator = creator;
	t->mac_offset = t->buf->mac_offset;
	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t->seq = seq = ++last_seq;
	hlist_add_head(&t->hash, bucket(t->buf));
	list_add_tail(&t->list, &efmp_live);
	efmp_live_count++;
	efmp_accounts[owner].live++;
	if (cloned)
		efmp_accounts[owner].cloned++;
	else
		efmp_accounts[owner].allocated++;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	return seq;
}

static struct efbuff *buff_new(u32 mac_offset, u32 room, u8 owner, u32 *seq, void *creator)
{
	struct efbuff *b;
	struct track *t;

	if (room > ROOM_MAX || mac_offset < EFBUFF_HEADER || mac_offset > U16_MAX)
		goto fail;
	room = max_t(u32, room, EFBUFF_MAC_READABLE);
	t = make(mac_offset + room);
	if (!t)
		goto fail;
	b = t->buf;
	memset(b, 0, EFBUFF_HEADER);
	memset(b + 1, UNUSED_BYTE, t->size - EFBUFF_HEADER);
	b->mac_offset = mac_offset;
	*seq = account(t, owner, false, creator);
	return b;
fail:
	count_failed(owner);
	return NULL;
}

struct efbuff *efmp_buff_new(u32 mac_offset, u32 room, u32 owner, u32 *seq)
{
	return buff_new(mac_offset, room, owner, seq, __builtin_return_address(0));
}

void *efmp_buff_alloc_sw_with_owner(u32 length, u32 owner)
{
	u32 seq;

	if (failpoint_hit(&efmp_alloc_fail, NULL)) {
		count_failed(owner);
		return NULL;
	}
	/* Room for the 24 bytes of a network header after a 14-byte MAC header
	 * is within the least room that every buffer has. */
	BUILD_BUG_ON(ETH_HLEN + EFBUFF_NET_READABLE > EFBUFF_MAC_READABLE);
	return buff_new(EFBUFF_FRAME, length, owner, &seq, __builtin_return_address(0));
}
EXPORT_SYMBOL(efmp_buff_alloc_sw_with_owner);

static void *buff_clone(void *efbuff, u32 owner, void *creator)
{
	struct track *t, *origin;
	unsigned long flags;
	bool freed = false;
	u32 size = 0;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	origin = find_live(efbuff);
	if (origin)
		size = origin->size;
	else
		freed = was_freed(efbuff);
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	if (!size) {
		efmp_misuse(MOXLAB_MISUSE_UNKNOWN, "clone of %px for owner 0x%02x, %s, by %pS",
			    efbuff, owner, freed ? "which was freed" : "which is no efbuff",
			    creator);
		return NULL;
	}
	if (failpoint_hit(&efmp_clone_fail, NULL))
		goto fail;
	t = make(size);
	if (!t)
		goto fail;
	memcpy(t->buf, efbuff, size);
	account(t, owner, true, creator);
	return t->buf;
fail:
	count_failed(owner);
	return NULL;
}

void *efmp_buff_clone(void *efbuff, u32 owner)
{
	return buff_clone(efbuff, owner, __builtin_return_address(0));
}

void *efmp_buff_clone_with_owner(void *efbuff, u32 owner)
{
	if (unlikely(READ_ONCE(efmp_stub_on)))
		return efmp_stub_clone();
	return buff_clone(efbuff, owner, __builtin_return_address(0));
}
EXPORT_SYMBOL(efmp_buff_clone_with_owner);

/* Releases a dead buffer after checking it for late writes. */
static void bury(struct track *t)
{
	if (t->held) {
		u8 *bad = memchr_inv(t->buf, POISON_BYTE, t->size);

		if (bad)
			efmp_misuse(
				MOXLAB_MISUSE_AFTER_FREE,
				"efbuff %u at %px of owner 0x%02x, made by %pS: byte %u was written after it was freed",
				t->seq, t->buf, t->owner, t->creator, (u32)(bad - (u8 *)t->buf));
		kfree(t->buf);
	}
	track_put(t);
}

/* Makes the quarantine @limit records long at most. */
void efmp_shrink_quarantine(u32 limit)
{
	struct track *t, *next;
	unsigned long flags;
	LIST_HEAD(gone);

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	while (quarantined > limit) {
		t = list_first_entry(&quarantine, struct track, list);
		hlist_del(&t->hash);
		list_move_tail(&t->list, &gone);
		quarantined--;
	}
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);

	list_for_each_entry_safe(t, next, &gone, list) bury(t);
}

/*
 * The second half of freeing: @t is dead, out of the live list and still found
 * by address, so that a second free in this moment is seen for what it is.
 */
static void retire(struct track *t)
{
	unsigned long flags;
	u8 *bad = memchr_inv((u8 *)t->buf + t->size, REDZONE_BYTE, t->redzone);

	if (bad)
		efmp_misuse(
			MOXLAB_MISUSE_OVERRUN,
			"efbuff %u at %px of owner 0x%02x, made by %pS: written %u bytes past its %u bytes of room",
			t->seq, t->buf, t->owner, t->creator, (u32)(bad - (u8 *)t->buf) - t->size,
			t->size - t->mac_offset);
	t->held = READ_ONCE(efmp_buff_set.hold_memory);
	if (t->held)
		memset(t->buf, POISON_BYTE, t->size);
	else
		kfree(t->buf);

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	list_add_tail(&t->list, &quarantine);
	quarantined++;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	efmp_shrink_quarantine(READ_ONCE(efmp_buff_set.quarantine));
}

static void buff_free(void *efbuff, u8 owner, void *caller)
{
	enum moxlab_misuse_kind kind;
	unsigned long flags;
	struct track *t;
	u32 seq = 0;
	u8 actual = 0;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = find_live(efbuff);
	if (!t) {
		kind = was_freed(efbuff) ? MOXLAB_MISUSE_DOUBLE_FREE : MOXLAB_MISUSE_UNKNOWN;
		goto misuse;
	}
	/* A hook that takes a buffer may see it freed before it has answered. */
	if (t->offered && owner == MOXLAB_OWNER_MODULE)
		set_owner(t, owner);
	if (t->owner != owner) {
		kind = MOXLAB_MISUSE_WRONG_OWNER;
		seq = t->seq;
		actual = t->owner;
		goto misuse;
	}
	t->dead = true;
	memcpy(t->last, t->buf, sizeof(t->last));
	if (owner == MOXLAB_OWNER_MODULE)
		memcpy(moxlab_last_freed, t->last, sizeof(moxlab_last_freed));
	list_del(&t->list);
	efmp_live_count--;
	efmp_accounts[owner].live--;
	efmp_accounts[owner].freed++;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	retire(t);
	return;

misuse:
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	switch (kind) {
	case MOXLAB_MISUSE_WRONG_OWNER:
		efmp_misuse(
			kind,
			"efbuff %u at %px is owner 0x%02x's but freed as 0x%02x's by %pS; not freed",
			seq, efbuff, actual, owner, caller);
		break;
	case MOXLAB_MISUSE_DOUBLE_FREE:
		efmp_misuse(kind, "efbuff at %px freed again, as owner 0x%02x's, by %pS", efbuff,
			    owner, caller);
		break;
	default:
		efmp_misuse(kind, "free of %px, which is no efbuff, as owner 0x%02x's, by %pS",
			    efbuff, owner, caller);
	}
}

void efmp_buff_free_sw_with_owner(void *efbuff, u32 owner)
{
	if (unlikely(READ_ONCE(efmp_stub_on)) && owner == MOXLAB_OWNER_MODULE) {
		efmp_stub_free(efbuff);
		return;
	}
	buff_free(efbuff, owner, __builtin_return_address(0));
}
EXPORT_SYMBOL(efmp_buff_free_sw_with_owner);

void efmp_buff_free(struct efbuff *b)
{
	buff_free(b, MOXLAB_OWNER_PLATFORM, __builtin_return_address(0));
}

void efmp_buff_offer(struct efbuff *b, u32 seq)
{
	unsigned long flags;
	struct track *t;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = efmp_find_seq(b, seq);
	if (t)
		t->offered = true;
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
}

bool efmp_buff_settle(struct efbuff *b, u32 seq, bool taken)
{
	unsigned long flags;
	struct track *t;
	bool alive;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = efmp_find_seq(b, seq);
	alive = t && !t->dead;
	if (alive) {
		t->offered = false;
		if (taken)
			set_owner(t, MOXLAB_OWNER_MODULE);
	}
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	if (!taken && !alive)
		efmp_misuse(MOXLAB_MISUSE_NOT_TAKEN,
			    "efbuff %u at %px was freed by a hook that did not take it", seq, b);
	return alive && !taken;
}

bool efmp_buff_adopt(struct efbuff *b, u32 *seq, u32 *size)
{
	unsigned long flags;
	struct track *t;

	spin_lock_irqsave(&efmp_buffer_lock, flags);
	t = find_live(b);
	if (t) {
		if (t->owner != MOXLAB_OWNER_PLATFORM)
			set_owner(t, MOXLAB_OWNER_PLATFORM);
		*seq = t->seq;
		*size = t->size;
	}
	spin_unlock_irqrestore(&efmp_buffer_lock, flags);
	if (!t)
		efmp_misuse(MOXLAB_MISUSE_UNKNOWN, "%px was handed over, which is no live efbuff",
			    b);
	return t;
}

int efmp_buff_init(void)
{
	int i;

	efbuff_check_layout();
	pool_memory = vzalloc(array_size(TRACKS, sizeof(*pool_memory)));
	if (!pool_memory)
		return -ENOMEM;
	for (i = 0; i < TRACKS; i++)
		list_add_tail(&pool_memory[i].list, &pool);
	return 0;
}

/*
 * At unload: reports each buffer that is still alive, and frees it.
 */
void efmp_buff_exit(void)
{
	struct track *t;

	list_for_each_entry(t, &efmp_live, list)
	{
		efmp_misuse(
			MOXLAB_MISUSE_LEAK,
			"efbuff %u at %px is still alive at unload: owner 0x%02x, %s by %pS, %u bytes of room",
			t->seq, t->buf, t->owner, t->cloned ? "cloned" : "made", t->creator,
			t->size - t->mac_offset);
		kfree(t->buf);
	}
	efmp_shrink_quarantine(0);
	vfree(pool_memory);
}
