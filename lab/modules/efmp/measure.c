// SPDX-License-Identifier: GPL-2.0-only
/*
 * measure.c - what one received frame costs in a hook, and in the copy thread
 * behind it, without the stand-in's own functions: no clone is made and no efbuff
 * freed while the clock runs.
 */
#include <linux/completion.h>
#include <linux/cpumask.h>
#include <linux/if_ether.h>
#include <linux/ktime.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include "../lsm_ko/lsm_ko.h"
#include "compat.h"
#include "efmp.h"

#define SEED 1 /* efbuffs ahead of the batch, at most */
#define ALL (MOXLAB_MEASURE_MAX + SEED)
#define NEVER (~0u)

bool efmp_stub_on;

/*
 * One measurement at a time, on one CPU: what runs in between is either the
 * caller with bottom halves disabled, or the copy thread while the caller waits.
 */
static DEFINE_MUTEX(measure_lock);

static struct stub {
	void *clones[ALL];
	u32 clones_made;
	u32 clones_used;
	void *freed[ALL];
	u32 freed_count;
	u32 mark; /* the number of the free that something is to be done at */
	u32 first;
	u32 last;
	u64 first_at;
	u64 last_at;
	void (*at_seed)(void);
	struct completion done;
} stub;

static struct batch {
	struct efmp_hook_func hook;
	u32 count;
	struct efbuff *bufs[ALL];
	u32 seqs[ALL];
	u32 answers[ALL];
	u32 queued;
	u64 times[3];
} batch;

noinline void *efmp_stub_clone(void)
{
	if (stub.clones_used == stub.clones_made)
		return NULL;
	return stub.clones[stub.clones_used++];
}

static noinline void stub_mark(u32 n)
{
	if (n < stub.first) {
		stub.mark = stub.first;
		stub.at_seed();
		return;
	}
	if (n == stub.first) {
		stub.mark = stub.last;
		stub.first_at = ktime_get_mono_fast_ns();
	}
	if (n == stub.last) {
		stub.last_at = ktime_get_mono_fast_ns();
		stub.mark = NEVER;
		complete(&stub.done);
	}
}

noinline void efmp_stub_free(void *efbuff)
{
	u32 n = stub.freed_count++;

	stub.freed[n % ALL] = efbuff;
	if (unlikely(n == stub.mark))
		stub_mark(n);
}

/* ---- The batch ---------------------------------------------------------------- */

static u32 empty_hook(void)
{
	return 0;
}

static noinline void call_hook(u32 from, u32 to)
{
	u32 n;

	for (n = from; n < to; n++) {
		this_cpu_write(efmp_cpu_buffer_cache, (unsigned long)batch.bufs[n]);
		batch.answers[n] = batch.hook.func();
	}
}

/* What became of the frames [from, to): the number that the module has now. */
static u32 settle(u32 from, u32 to)
{
	u32 n, taken = 0;

	for (n = from; n < to; n++) {
		enum efmp_verdict verdict = batch.hook.func == empty_hook
						    ? EFMP_GO_ON
						    : efmp_hooks_verdict(&batch.hook,
									 batch.answers[n]);

		if (efmp_buff_settle(batch.bufs[n], batch.seqs[n], verdict == EFMP_TAKEN))
			efmp_buff_free(batch.bufs[n]);
		else
			taken++;
	}
	return taken;
}

/* Frames [from, to) through the hook; with times when @timed. */
static void run(u32 from, u32 to, bool timed)
{
	unsigned long outer = this_cpu_read(efmp_cpu_buffer_cache);
	u32 clones = stub.clones_used, n;

	local_bh_disable();
	rcu_read_lock();
	for (n = from; n < to; n++)
		efmp_buff_offer(batch.bufs[n], batch.seqs[n]);
	if (timed) {
		batch.times[0] = ktime_get_mono_fast_ns();
		call_hook(from, from + 1);
		batch.times[1] = ktime_get_mono_fast_ns();
		call_hook(from + 1, to);
		batch.times[2] = ktime_get_mono_fast_ns();
	} else {
		call_hook(from, to);
	}
	this_cpu_write(efmp_cpu_buffer_cache, outer);
	rcu_read_unlock();
	batch.queued = settle(from, to) + stub.clones_used - clones;
	/* Set before the copy thread can run. */
	stub.last = stub.first + batch.queued - 1;
	if (!timed)
		stub.mark = 0;
	else if (batch.queued)
		stub.mark = stub.first;
	local_bh_enable();
}

/* In the copy thread, which has just delivered the frame sent ahead. */
static void run_in_drain(void)
{
	run(SEED, SEED + batch.count, true);
	/* Nothing of the batch was wanted: there is nothing to wait for. */
	if (!batch.queued)
		complete(&stub.done);
}

static int make_bufs(const struct moxlab_measure *m, const u8 *frame, void *src, u32 count)
{
	u32 n;

	for (n = 0; n < count; n++) {
		struct efbuff *b = efmp_buff_new(EFBUFF_FRAME, m->frame_len, MOXLAB_OWNER_PLATFORM,
						 &batch.seqs[n]);

		batch.bufs[n] = b;
		if (!b)
			break;
		memcpy(efbuff_mac(b), frame, m->frame_len);
		efmp_fill(b, m->frame_len, src, NULL);
	}
	if (n == count)
		return 0;
	while (n--)
		efmp_buff_free(batch.bufs[n]);
	return -ENOMEM;
}

static int make_clones(u32 count)
{
	for (stub.clones_made = 0; stub.clones_made < count; stub.clones_made++) {
		stub.clones[stub.clones_made] = efmp_buff_clone(batch.bufs[0], MOXLAB_OWNER_MODULE);
		if (!stub.clones[stub.clones_made])
			return -ENOMEM;
	}
	return 0;
}

static void free_all(void)
{
	u32 n;

	WRITE_ONCE(efmp_stub_on, false);
	for (n = 0; n < min_t(u32, stub.freed_count, ALL); n++)
		efmp_buff_free_sw_with_owner(stub.freed[n], MOXLAB_OWNER_MODULE);
	for (n = stub.clones_used; n < stub.clones_made; n++)
		efmp_buff_free_sw_with_owner(stub.clones[n], MOXLAB_OWNER_MODULE);
}

static int wait_for_delivery(void)
{
	return wait_for_completion_timeout(&stub.done, 60 * HZ) ? 0 : -EAGAIN;
}

static int measure_hook(struct moxlab_measure *m, const u8 *frame, void *src)
{
	u32 all = m->count + (m->draining ? SEED : 0);
	int err = make_bufs(m, frame, src, all);

	if (err)
		return err;
	stub.first = m->draining ? SEED : 0;
	stub.mark = NEVER;
	stub.at_seed = run_in_drain;
	init_completion(&stub.done);
	err = make_clones(all);
	if (err) {
		while (all--)
			efmp_buff_free(batch.bufs[all]);
		return err;
	}
	batch.count = m->count;
	WRITE_ONCE(efmp_stub_on, true);
	if (!m->draining) {
		run(0, m->count, true);
		if (batch.queued)
			err = wait_for_delivery();
	} else {
		run(0, SEED, false);
		if (batch.queued) {
			err = wait_for_delivery();
		} else {
			err = -EINVAL; /* no rule wants the frame */
			while (all-- > SEED)
				efmp_buff_free(batch.bufs[all]);
		}
	}
	m->first_ns = batch.times[1] - batch.times[0];
	m->rest_ns = batch.times[2] - batch.times[1];
	m->deliver_ns = batch.queued ? stub.last_at - stub.first_at : 0;
	m->queued = batch.queued;
	m->answer = batch.answers[stub.first + m->count - 1];
	return err;
}

/* ---- The two functions that stand in -------------------------------------------- */

static noinline void *no_clone(void *efbuff, u32 owner)
{
	return NULL;
}

static noinline void no_free(void *efbuff, u32 owner) {}

static u64 time_clones(void *(*clone)(void *efbuff, u32 owner), u32 count)
{
	u64 begin = ktime_get_mono_fast_ns();
	u32 n;

	for (n = 0; n < count; n++)
		clone(batch.bufs[0], MOXLAB_OWNER_MODULE);
	return ktime_get_mono_fast_ns() - begin;
}

static u64 time_frees(void (*release)(void *efbuff, u32 owner), u32 count)
{
	u64 begin = ktime_get_mono_fast_ns();
	u32 n;

	for (n = 0; n < count; n++)
		release(stub.clones[n], MOXLAB_OWNER_MODULE);
	return ktime_get_mono_fast_ns() - begin;
}

static int measure_stub(struct moxlab_measure *m, const u8 *frame, void *src)
{
	int err = make_bufs(m, frame, src, 1);

	if (err)
		return err;
	stub.mark = NEVER;
	err = make_clones(m->count);
	if (!err) {
		WRITE_ONCE(efmp_stub_on, true);
		local_bh_disable();
		if (m->what == MOXLAB_MEASURE_CLONE) {
			m->rest_ns = time_clones(efmp_buff_clone_with_owner, m->count) -
				     time_clones(no_clone, m->count);
			stub.clones_used = 0; /* they are still here */
		} else {
			m->rest_ns = time_frees(efmp_buff_free_sw_with_owner, m->count) -
				     time_frees(no_free, m->count);
			stub.freed_count = 0;
		}
		local_bh_enable();
	}
	efmp_buff_free(batch.bufs[0]);
	return err;
}

static int measure(struct moxlab_measure *m, const u8 *frame)
{
	void *src;
	int err;

	if (m->what == MOXLAB_MEASURE_STACK)
		return efmp_measure_stack(m, frame);
	src = lsm_lab_find(m->src_ifindex);
	if (!src)
		return -ENXIO;
	memset(&stub, 0, sizeof(stub));
	memset(&batch, 0, sizeof(batch));
	if (m->what == MOXLAB_MEASURE_EMPTY)
		batch.hook.func = empty_hook;
	else if (m->what == MOXLAB_MEASURE_HOOK && !efmp_hooks_first(m->point, &batch.hook))
		return -ENOENT;
	if (m->what == MOXLAB_MEASURE_CLONE || m->what == MOXLAB_MEASURE_FREE)
		err = measure_stub(m, frame, src);
	else
		err = measure_hook(m, frame, src);
	free_all();
	return err;
}

int efmp_measure(struct moxlab_measure *m)
{
	u8 *frame;
	int err;

	if (m->what >= MOXLAB_MEASURE_COUNT || m->point >= MOXLAB_POINT_COUNT || m->count < 2 ||
	    m->count > MOXLAB_MEASURE_MAX || m->draining > 1 || m->frame_len < ETH_HLEN ||
	    m->frame_len > MOXLAB_FRAME_MAX)
		return -EINVAL;
	if (num_online_cpus() != 1 && cpumask_weight(efmp_allowed_cpus()) != 1)
		return -EBUSY;
	frame = vmalloc(m->frame_len);
	if (!frame)
		return -ENOMEM;
	mutex_lock(&measure_lock);
	if (copy_from_user(frame, u64_to_user_ptr(m->frame), m->frame_len))
		err = -EFAULT;
	else
		err = measure(m, frame);
	mutex_unlock(&measure_lock);
	vfree(frame);
	return err;
}
