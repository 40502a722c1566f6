// SPDX-License-Identifier: GPL-2.0-only
/*
 * bench.c - what one send or receipt costs, measured around the capture module's
 * sendmsg or recvmsg, and around the platform calls that a send makes, so that the
 * difference is the module's.
 *
 * Times come in batches, the shortest of which counts: a timer interrupt or a busy
 * host falls into some batches and not into others. In a virtual machine whose
 * clock counts instructions the shortest batch is free of them, and exact.
 */
#include <linux/file.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/ktime.h>
#include <linux/net.h>
#include <linux/sched/signal.h>
#include <linux/socket.h>
#include <linux/uaccess.h>
#include <linux/uio.h>
#include "../lsm_ko/lsm_ko.h"
#include "efmp.h"

#define FAMILY 17

struct job {
	const struct moxlab_bench *in;
	struct socket *sock;
	struct sockaddr_ll name;
	u8 control[MOXLAB_BENCH_CONTROL];
	struct iovec iov;
	struct msghdr msg;
};

/* The message anew, for a call uses it up. */
static noinline void prepare(struct job *job)
{
	const struct moxlab_bench *in = job->in;

	memset(&job->msg, 0, sizeof(job->msg));
	job->iov.iov_base = u64_to_user_ptr(in->frame);
	job->iov.iov_len = in->frame_len;
	iov_iter_init(&job->msg.msg_iter, in->part == MOXLAB_BENCH_RECEIVE ? READ : WRITE,
		      &job->iov, 1, in->frame_len);
	if (in->part == MOXLAB_BENCH_RECEIVE)
		return;
	job->msg.msg_name = &job->name;
	job->msg.msg_namelen = sizeof(job->name);
	if (in->controlled) {
		job->msg.msg_control = job->control;
		job->msg.msg_controllen = sizeof(job->control);
	}
}

static int run_send(struct job *job)
{
	return job->sock->ops->sendmsg(job->sock, &job->msg, job->in->frame_len);
}

/* The platform's share of it: the same calls with an efbuff of the same size. */
static int run_platform(struct job *job)
{
	struct efbuff *b = efmp_buff_alloc_sw_with_owner(job->in->frame_len, MOXLAB_OWNER_MODULE);
	int result;

	if (!b)
		return -ENOMEM;
	b->dst_intf = lsm_get_intfcb(job->in->dst_ifindex);
	b->l2_len = ETH_HLEN;
	b->net_offset = b->mac_offset + ETH_HLEN;
	b->total_len = job->in->frame_len;
	result = efmp_output_pkt(b);
	return result == 1 ? -ENETUNREACH : job->in->frame_len;
}

static int run_receive(struct job *job)
{
	return job->sock->ops->recvmsg(job->sock, &job->msg, job->in->frame_len, MSG_DONTWAIT);
}

static int run_nothing(struct job *job)
{
	return job->in->frame_len;
}

static int (*const parts[MOXLAB_BENCH_COUNT])(struct job *job) = {
	[MOXLAB_BENCH_SEND] = run_send,
	[MOXLAB_BENCH_PLATFORM] = run_platform,
	[MOXLAB_BENCH_NOTHING] = run_nothing,
	[MOXLAB_BENCH_RECEIVE] = run_receive,
};

static int run_batches(struct moxlab_bench *bench, struct job *job)
{
	u32 batch, n;

	bench->shortest_ns = ~0ull;
	bench->total_ns = 0;
	for (batch = 0; batch < bench->batches; batch++) {
		u64 begin = ktime_get_mono_fast_ns(), took;

		for (n = 0; n < bench->count; n++) {
			int result;

			prepare(job);
			result = parts[bench->part](job);
			if (result != bench->frame_len)
				return result < 0 ? result : -EIO;
		}
		took = ktime_get_mono_fast_ns() - begin;
		bench->total_ns += took;
		bench->shortest_ns = min(bench->shortest_ns, took);
		if (signal_pending(current))
			return -EINTR;
		cond_resched();
	}
	return 0;
}

int efmp_bench(struct moxlab_bench *bench)
{
	struct job job = {
		.in = bench,
		.name = { .sll_family = FAMILY,
			  .sll_ifindex = bench->dst_ifindex,
			  .sll_halen = ETH_ALEN },
	};
	int err = 0;

	BUILD_BUG_ON(sizeof(job.name) != 20);
	if (bench->part >= MOXLAB_BENCH_COUNT || !bench->count || bench->count > 100000 ||
	    !bench->batches || bench->batches > 100000 || bench->controlled > 1 ||
	    bench->frame_len < ETH_HLEN || bench->frame_len > MOXLAB_FRAME_MAX)
		return -EINVAL;
	job.sock = sockfd_lookup(bench->fd, &err);
	if (!job.sock)
		return err;
	if (job.sock->ops->family != FAMILY)
		err = -EINVAL;
	else
		err = run_batches(bench, &job);
	sockfd_put(job.sock);
	return err;
}
