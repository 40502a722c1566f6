/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Kernel differences, 4.19 to 6.18. The only place with version numbers.
 * Where a later kernel has no equal, what a caller observes stays that of 4.19.
 */
#ifndef SEAM_COMPAT_H
#define SEAM_COMPAT_H

#include <linux/filter.h>
#include <linux/version.h>
#include <net/sock.h>

/* setsockopt's argument became a sockptr_t in 5.9. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 9, 0)
#include <linux/sockptr.h>
#define SEAM_OPTVAL sockptr_t
#define seam_optval_copy_at(to, from, at, len) copy_from_sockptr_offset(to, from, at, len)
#else
#define SEAM_OPTVAL char __user *
#define seam_optval_copy_at(to, from, at, len) copy_from_user(to, (from) + (at), len)
#endif

/* The socket layer reads timestamps itself, through gettstamp, since 5.2. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 2, 0)
#define SEAM_GETTSTAMP .gettstamp = sock_gettstamp,
#define seam_compat_get_timestamp(sk, to) (-ENOIOCTLCMD)
#define seam_compat_get_timestampns(sk, to) (-ENOIOCTLCMD)
#else
#define SEAM_GETTSTAMP
#define seam_compat_get_timestamp(sk, to) sock_get_timestamp(sk, to)
#define seam_compat_get_timestampns(sk, to) sock_get_timestampns(sk, to)
#endif

/* bind's address is of a type without a size of its own since 6.18 (Kbuild looks). */
#ifdef SEAM_HAS_SOCKADDR_UNSIZED
#define SEAM_BIND_ADDR struct sockaddr_unsized
#else
#define SEAM_BIND_ADDR struct sockaddr
#endif

/* sendpage left the operations table in 6.5. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 5, 0)
#define SEAM_SENDPAGE .sendpage = sock_no_sendpage,
#else
#define SEAM_SENDPAGE
#endif

/* skb_recv_datagram lost its separate non-blocking argument in 5.18. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 18, 0)
#define seam_compat_recv_datagram(sk, flags, err) skb_recv_datagram(sk, flags, err)
#else
#define seam_compat_recv_datagram(sk, flags, err) \
	skb_recv_datagram(sk, flags, (flags)&MSG_DONTWAIT, err)
#endif

/* The control buffer may be a kernel one since 5.8, which a bit of the message says. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 8, 0)
#define seam_control_is_kernel(msg) (!(msg)->msg_control_is_user)
#else
#define seam_control_is_kernel(msg) false
#endif

/* recvmsg's helpers were gathered into sock_recv_cmsgs in 5.19; timestamps alone keep their name. */
#define seam_compat_recv_timestamp(msg, sk, skb) sock_recv_timestamp(msg, sk, skb)

/* The limit of the kernel's own packet queues moved into net_hotdata in 6.9. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 9, 0)
#include <net/hotdata.h>
#define SEAM_MAX_BACKLOG net_hotdata.max_backlog
#else
#include <linux/netdevice.h>
#define SEAM_MAX_BACKLOG netdev_max_backlog
#endif

/* 4.20 made synchronize_rcu wait for disabled bottom halves too. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(4, 20, 0)
#define seam_compat_wait_for_hooks() synchronize_rcu()
#else
#define seam_compat_wait_for_hooks()  \
	do {                          \
		synchronize_rcu();    \
		synchronize_rcu_bh(); \
		synchronize_sched();  \
	} while (0)
#endif

/*
 * sched_setscheduler is not exported since 5.9. The request made here is one
 * that 4.19 refuses, so leaving it out leaves the same thread.
 */
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 9, 0)
#include <linux/sched.h>
#include <uapi/linux/sched/types.h>
#define seam_compat_set_normal(task, prio)                               \
	do {                                                             \
		struct sched_param param = { .sched_priority = (prio) }; \
		sched_setscheduler(task, SCHED_NORMAL, &param);          \
	} while (0)
#else
#define seam_compat_set_normal(task, prio) \
	do {                               \
		(void)(task);              \
		(void)(prio);              \
	} while (0)
#endif

/* Attributes are validated strictly since 5.2 unless an operation asks for liberal validation. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 2, 0)
#define SEAM_GENL_LIBERAL .validate = GENL_DONT_VALIDATE_STRICT | GENL_DONT_VALIDATE_DUMP,
#else
#define SEAM_GENL_LIBERAL
#endif

/* 6.1 ignores that for operations from resv_start_op on, and requires policies of them. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 1, 0)
#define SEAM_GENL_RESV_START .resv_start_op = MOX_PACKET_GENL_CMD + 1,
#define SEAM_CAPTURE_RESV_START .resv_start_op = MOX_CAPTURE_CMD_TRACE + 1,
#else
#define SEAM_GENL_RESV_START
#define SEAM_CAPTURE_RESV_START
#endif

/*
 * A handler of socket diagnosis names its module since 6.9, and in later versions of the stable
 * kernels before (Kbuild looks). Such a kernel keeps the module loaded by nothing else.
 */
#ifdef SEAM_HAS_DIAG_OWNER
#define SEAM_DIAG_OWNER .owner = THIS_MODULE,
#else
#define SEAM_DIAG_OWNER
#endif

/* A dump can explain its errors since 5.0. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 0, 0)
#define seam_compat_dump_extack(cb) ((cb)->extack)
#else
#define seam_compat_dump_extack(cb) NULL
#endif

/* The socket filter says why it dropped a buffer since 6.17. */
static inline int seam_compat_filter(struct sock *sk, struct sk_buff *skb, unsigned int cap)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 17, 0)
	enum skb_drop_reason reason;

	return sk_filter_trim_cap(sk, skb, cap, &reason);
#else
	return sk_filter_trim_cap(sk, skb, cap);
#endif
}

/* A socket's user is read without a lock since 6.17. */
static inline kuid_t seam_compat_user(struct sock *sk)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 17, 0)
	return sk_uid(sk);
#else
	return sock_i_uid(sk);
#endif
}

#endif
