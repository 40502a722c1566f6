// SPDX-License-Identifier: GPL-2.0-only
/*
 * inject.c - one frame, with a header as the test sets it, at one
 * point of the pipeline on one CPU.
 */
#include <linux/completion.h>
#include <linux/cpu.h>
#include <linux/cpumask.h>
#include <linux/if_ether.h>
#include <linux/interrupt.h>
#include <linux/sched/signal.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <linux/workqueue.h>
#include "../lsm_ko/lsm_ko.h"
#include "efmp.h"

#define MAC_OFFSET_MAX 2048
#define NET_OFFSET_MAX 4096
#define BATCH 64 /* frames between two looks for a signal */

struct job {
	struct moxlab_inject *in;
	const u8 *frame;
	void *src;
	void *dst;
	u32 batch;
	/* For a softirq proper. */
	struct tasklet_struct tasklet;
	struct completion done;
};

#define WITHIN(field, low, high) ((field) >= (low) && (field) <= (high))

static bool valid(const struct moxlab_inject *in)
{
	if (in->point >= MOXLAB_POINT_COUNT || !WITHIN(in->frame_len, 1, MOXLAB_FRAME_MAX))
		return false;
	if (in->cpu != MOXLAB_ANY_CPU && (in->cpu >= nr_cpu_ids || !cpu_online(in->cpu)))
		return false;
	if (in->set & MOXLAB_SET_MAC_OFFSET &&
	    !WITHIN(in->mac_offset, EFBUFF_HEADER, MAC_OFFSET_MAX))
		return false;
	if (in->set & MOXLAB_SET_NET_OFFSET &&
	    !WITHIN(in->net_offset, EFBUFF_HEADER, NET_OFFSET_MAX))
		return false;
	if (in->set & MOXLAB_SET_TOTAL_LEN && in->total_len > MOXLAB_FRAME_MAX)
		return false;
	/* The pipeline reads the Ethernet header of what comes in by a port. */
	if (in->point == MOXLAB_POINT_PIPELINE && in->frame_len < ETH_HLEN)
		return false;
	if (in->options & MOXLAB_INJ_TAG_CLEAR && in->options & MOXLAB_INJ_TAG_SET)
		return false;
	/* A single function belongs to one point, not to the whole path. */
	if (in->options & MOXLAB_INJ_CALL &&
	    (in->point == MOXLAB_POINT_PIPELINE || in->point == MOXLAB_POINT_SEND ||
	     !efmp_memory_allowed(in->function)))
		return false;
	return strnlen(in->symbol, sizeof(in->symbol)) < sizeof(in->symbol);
}

/* The block that @ifindex asks for; -ENXIO when it does not exist. */
static int find_block(u32 ifindex, void **block)
{
	*block = ifindex == MOXLAB_NO_BLOCK ? NULL : lsm_lab_find(ifindex);
	return *block || ifindex == MOXLAB_NO_BLOCK ? 0 : -ENXIO;
}

static int find_blocks(struct job *job)
{
	const struct moxlab_inject *in = job->in;
	u32 src = in->set & MOXLAB_SET_SRC ? in->src_ifindex : in->port_ifindex;
	u32 dst = in->set & MOXLAB_SET_DST ? in->dst_ifindex : MOXLAB_NO_BLOCK;
	int err = find_block(src, &job->src);

	return err ? err : find_block(dst, &job->dst);
}

static void apply_fields(struct efbuff *b, const struct moxlab_inject *in)
{
#define APPLY(field, id, bit, offset, convert, option) \
	if (in->set & (bit))                           \
		b->field = convert(in->field);
	MOXLAB_FIELDS(APPLY)
#undef APPLY
}

/*
 * The efbuff that @in describes. The memory is made large enough for any offset and
 * length that valid() lets pass.
 */
static struct efbuff *build(const struct job *job, struct efmp_port *port, u32 *seq)
{
	const struct moxlab_inject *in = job->in;
	bool module = in->point == MOXLAB_POINT_SEND;
	u32 mac = in->set & MOXLAB_SET_MAC_OFFSET ? in->mac_offset : EFBUFF_FRAME;
	u32 net_end = in->set & MOXLAB_SET_NET_OFFSET ? in->net_offset + EFBUFF_NET_READABLE : 0;
	u32 room = max3(in->frame_len, (u32)EFBUFF_MAC_READABLE,
			in->set & MOXLAB_SET_TOTAL_LEN ? in->total_len : 0);
	u32 len = in->frame_len;
	struct efbuff *b;

	room = max(room, net_end > mac ? net_end - mac : 0);
	b = efmp_buff_new(mac, room, module ? MOXLAB_OWNER_MODULE : MOXLAB_OWNER_PLATFORM, seq);
	if (!b)
		return NULL;
	memcpy(efbuff_mac(b), job->frame, len);
	/* At a single point the bytes are the frame as the hooks shall see it. */
	if (in->point == MOXLAB_POINT_PIPELINE)
		len = efmp_take_tags(b, len);
	efmp_fill(b, len, job->src, port);
	if (module)
		b->kind = 0; /* as from a sender, who does not classify */
	if (in->set & MOXLAB_SET_HEADER) {
		u16 net = b->net_offset;

		memcpy(b, in->header, MOXLAB_HEADER_LEN);
		b->src_intf = job->src;
		/* Offsets and length are set by their own, checked, fields. */
		b->mac_offset = mac;
		b->net_offset = net;
		b->total_len = len;
	}
	b->dst_intf = job->dst;
	apply_fields(b, in);
	return b;
}

static u32 tag_of(const struct moxlab_inject *in)
{
	if (in->options & MOXLAB_INJ_TAG_CLEAR)
		return MOXLAB_TAG_NEVER;
	if (in->options & MOXLAB_INJ_TAG_SET)
		return MOXLAB_TAG_ALWAYS;
	return READ_ONCE(efmp_tag_mode);
}

/* At one point only: the frame goes no further than past its functions. */
static u32 run_point(struct efmp_run *run, u32 point)
{
	enum efmp_verdict verdict = efmp_hooks_run(run, point);

	switch (verdict) {
	case EFMP_FREED:
		return MOXLAB_OUT_FREED;
	case EFMP_TAKEN:
		return MOXLAB_OUT_TAKEN;
	default:
		efmp_buff_free(run->buf);
		return run->hooks_run ? MOXLAB_OUT_WENT_ON : MOXLAB_OUT_NO_HOOK;
	}
}

/* Inside rcu_read_lock() with bottom halves disabled, on the CPU asked for. */
static void inject_one(struct job *job)
{
	struct moxlab_inject *in = job->in;
	struct efmp_path path = {
		.run = {
			.nth = in->nth,
			.symbol = in->symbol[0] ? in->symbol : NULL,
			.call = in->options & MOXLAB_INJ_CALL ?
				(void *)(unsigned long)in->function : NULL,
			.tag = tag_of(in),
		},
		.dst_fixed = in->set & MOXLAB_SET_DST,
	};
	struct efbuff *b;
	u32 outcome;

	in->ran_on_cpu = smp_processor_id();
	if (in->port_ifindex)
		path.in = efmp_port_by_ifindex(in->port_ifindex);
	b = build(job, path.in, &path.run.seq);
	path.run.buf = b;
	if (!b) {
		outcome = MOXLAB_OUT_NO_MEMORY;
	} else if (in->point == MOXLAB_POINT_PIPELINE) {
		efmp_count(EFMP_COUNT_SEEN);
		if (path.in)
			atomic64_inc(&path.in->rx);
		outcome = efmp_pipeline(&path);
	} else if (in->point == MOXLAB_POINT_SEND) {
		in->answer = efmp_send(b, &path, &outcome);
	} else {
		outcome = run_point(&path.run, in->point);
	}

	efmp_count(EFMP_COUNT_INJECTED);
	in->outcome = outcome;
	in->outcomes[outcome]++;
	if (in->point != MOXLAB_POINT_SEND)
		in->answer = path.run.answer;
	in->hooks_run = path.run.hooks_run;
	in->decided_at = path.run.decided_at;
	memcpy(in->answers, path.run.answers, sizeof(in->answers));
	in->left_ports = path.left_ports;
	in->buffer_seq = path.run.seq;
	in->header_valid = b && efmp_buff_peek(b, path.run.seq, in->header_out);
	if (in->header_valid)
		efmp_header_for_user(in->header_out);
}

static void inject_batch(struct job *job)
{
	u32 n;

	for (n = 0; n < job->batch; n++) {
		local_bh_disable();
		rcu_read_lock();
		inject_one(job);
		rcu_read_unlock();
		local_bh_enable();
		/* Many checked frames take long; a softirq must bear it. */
		if (!in_interrupt())
			cond_resched();
	}
}

static void inject_softirq(unsigned long data)
{
	struct job *job = (struct job *)data;

	inject_batch(job);
	complete(&job->done);
}

static long inject_here(void *data)
{
	struct job *job = data;

	if (!(job->in->options & MOXLAB_INJ_HARD_SOFTIRQ)) {
		inject_batch(job);
		return 0;
	}
	init_completion(&job->done);
	tasklet_init(&job->tasklet, inject_softirq, (unsigned long)job);
	tasklet_schedule(&job->tasklet);
	wait_for_completion(&job->done);
	/* complete() is not its last instruction. */
	tasklet_kill(&job->tasklet);
	return 0;
}

/* On a CPU that stays online meanwhile: -ENODEV when it is not. */
static long inject_there(struct job *job)
{
	long err = -ENODEV;

	cpus_read_lock();
	if (cpu_online(job->in->cpu))
		err = work_on_cpu(job->in->cpu, inject_here, job);
	cpus_read_unlock();
	return err;
}

static int run_all(struct job *job)
{
	struct moxlab_inject *in = job->in;
	u32 left = max(in->repeat, 1u);
	long err = 0;

	while (left && !err) {
		job->batch = min_t(u32, left, BATCH);
		left -= job->batch;
		if (in->cpu == MOXLAB_ANY_CPU)
			err = inject_here(job);
		else
			err = inject_there(job);
		if (left && signal_pending(current))
			return -EINTR;
		cond_resched();
	}
	return err;
}

int efmp_inject(struct moxlab_inject *in)
{
	struct job *job;
	u8 *frame;
	int err;

	if (!valid(in))
		return -EINVAL;
	job = kzalloc(sizeof(*job), GFP_KERNEL);
	frame = vmalloc(in->frame_len);
	err = -ENOMEM;
	if (!job || !frame)
		goto out;
	err = -EFAULT;
	if (copy_from_user(frame, u64_to_user_ptr(in->frame), in->frame_len))
		goto out;
	job->in = in;
	job->frame = frame;
	err = find_blocks(job);
	if (err)
		goto out;
	if (in->point == MOXLAB_POINT_PIPELINE) {
		rcu_read_lock();
		if (!efmp_port_by_ifindex(in->port_ifindex))
			err = -ENODEV;
		rcu_read_unlock();
		if (err)
			goto out;
	}
	memset(in->outcomes, 0, sizeof(in->outcomes));
	err = run_all(job);
out:
	vfree(frame);
	kfree(job);
	return err;
}
