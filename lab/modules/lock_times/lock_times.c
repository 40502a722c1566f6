// SPDX-License-Identifier: GPL-2.0-only
/*
 * lock_times.c - the longest hold of each of the capture module's locks, by name.
 *
 * Linked into a lab build of the module (lab/lib/build-modules --lock-times), in
 * which the seam's lock functions have the names real_seam_...: what the module
 * calls are the functions here. Results are in the module's parameter lock_times,
 * a line each; writing to it forgets them. A hold ends before the lock is given
 * back, and includes the interrupts that came meanwhile.
 */
#include <linux/kallsyms.h>
#include <linux/kernel.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/percpu.h>
#include <linux/string.h>

#include "seam/seam.h"

#define DEPTH 8
#define RECORDS 64

/* What a CPU holds, the last one first. A softirq's locks come and go on top. */
struct held {
	const void *lock;
	u64 since;
	unsigned long caller;
};

struct holds {
	struct held held[DEPTH];
	u32 depth;
};

/* One for each lock function, caller, and static lock; those of sockets count as one. */
static struct record {
	const char *kind;
	unsigned long caller;
	const void *lock;
	u64 longest;
	u32 count;
} records[RECORDS];

static DEFINE_PER_CPU(struct holds, holds);

void real_seam_spin_lock(seam_spinlock *lock);
void real_seam_spin_unlock(seam_spinlock *lock);
void real_seam_spin_lock_bh(seam_spinlock *lock);
void real_seam_spin_unlock_bh(seam_spinlock *lock);
void real_seam_read_lock(seam_rwlock *lock);
void real_seam_read_unlock(seam_rwlock *lock);
void real_seam_write_lock_bh(seam_rwlock *lock);
void real_seam_write_unlock_bh(seam_rwlock *lock);

static bool is_static(const void *lock)
{
	return within_module((unsigned long)lock, THIS_MODULE);
}

static void note(const char *kind, const struct held *held, u64 now)
{
	const void *lock = is_static(held->lock) ? held->lock : NULL;
	struct record *r;

	for (r = records; r < records + RECORDS && r->kind; r++)
		if (r->caller == held->caller && r->lock == lock && r->kind == kind)
			break;
	if (r == records + RECORDS)
		return;
	r->kind = kind;
	r->caller = held->caller;
	r->lock = lock;
	r->longest = max(r->longest, now - held->since);
	r->count++;
}

/* With the lock held: preemption is off. */
static void begin(const void *lock, void *caller)
{
	struct holds *h = this_cpu_ptr(&holds);
	u32 at = h->depth++;

	if (at >= DEPTH)
		return;
	h->held[at].lock = lock;
	h->held[at].caller = (unsigned long)caller;
	h->held[at].since = ktime_get_mono_fast_ns();
}

static void end(const void *lock, const char *kind)
{
	u64 now = ktime_get_mono_fast_ns();
	struct holds *h = this_cpu_ptr(&holds);

	if (WARN_ON_ONCE(!h->depth))
		return;
	h->depth--;
	/* They are released in the opposite order. */
	if (h->depth < DEPTH && !WARN_ON_ONCE(h->held[h->depth].lock != lock))
		note(kind, &h->held[h->depth], now);
}

#define LOCK_PAIR(lock_name, unlock_name, lock_type, kind) \
	void seam_##lock_name(lock_type *lock)             \
	{                                                  \
		real_seam_##lock_name(lock);               \
		begin(lock, __builtin_return_address(0));  \
	}                                                  \
	void seam_##unlock_name(lock_type *lock)           \
	{                                                  \
		end(lock, kind);                           \
		real_seam_##unlock_name(lock);             \
	}

LOCK_PAIR(spin_lock, spin_unlock, seam_spinlock, "spin")
LOCK_PAIR(spin_lock_bh, spin_unlock_bh, seam_spinlock, "spin_bh")
LOCK_PAIR(read_lock, read_unlock, seam_rwlock, "read")
LOCK_PAIR(write_lock_bh, write_unlock_bh, seam_rwlock, "write_bh")

/* "name [module]" and "name.suffix" become "name". */
static void put_name(char *to, size_t size, const void *what)
{
	snprintf(to, size, "%ps", what);
	to[strcspn(to, " .")] = '\0';
}

static int get_times(char *buffer, const struct kernel_param *unused)
{
	size_t used = 0, i;

	for (i = 0; i < RECORDS && records[i].kind; i++) {
		char lock[KSYM_NAME_LEN] = "socket", caller[KSYM_NAME_LEN];

		if (records[i].lock)
			put_name(lock, sizeof(lock), records[i].lock);
		put_name(caller, sizeof(caller), (void *)records[i].caller);
		used += scnprintf(buffer + used, PAGE_SIZE - used, "%s %s %s %llu %u\n",
				  records[i].kind, lock, caller, records[i].longest,
				  records[i].count);
	}
	return used;
}

static int clear_times(const char *value, const struct kernel_param *unused)
{
	memset(records, 0, sizeof(records));
	return 0;
}

static const struct kernel_param_ops times_ops = {
	.get = get_times,
	.set = clear_times,
};

module_param_cb(lock_times, &times_ops, NULL, 0600);
MODULE_PARM_DESC(lock_times, "kind, lock, function, longest hold in ns, holds; write to clear");
