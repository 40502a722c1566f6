// SPDX-License-Identifier: GPL-2.0-only
/* Sockets, their receive queues, and messages. */
#include <linux/filter.h>
#include <linux/net.h>
#include <linux/skbuff.h>
#include <linux/socket.h>
#include <linux/uaccess.h>
#include <linux/uio.h>
#include <net/dst.h>
#include <net/sock.h>

#include "seam.h"
#include "seam_compat.h"

struct sock *seam_socket_sk(struct socket *socket)
{
	return socket->sk;
}

void seam_socket_clear_sk(struct socket *socket)
{
	socket->sk = NULL;
}

int seam_socket_type(const struct socket *socket)
{
	return socket->type;
}

int seam_sk_type(const struct sock *sk)
{
	return sk->sk_type;
}

void seam_sock_hold(struct sock *sk)
{
	sock_hold(sk);
}

void seam_sock_put(struct sock *sk)
{
	sock_put(sk);
}

u32 seam_sk_refcnt(const struct sock *sk)
{
	return refcount_read(&sk->sk_refcnt);
}

void seam_sock_orphan(struct sock *sk)
{
	sock_orphan(sk);
}

int seam_sk_dead(const struct sock *sk)
{
	return sock_flag(sk, SOCK_DEAD);
}

int seam_sk_rmem(const struct sock *sk)
{
	return atomic_read(&sk->sk_rmem_alloc);
}

int seam_sk_wmem(const struct sock *sk)
{
	return sk_wmem_alloc_get(sk);
}

u32 seam_sk_wmem_charged(const struct sock *sk)
{
	return refcount_read(&sk->sk_wmem_alloc);
}

void seam_warn(const char *what)
{
	WARN(1, "mox_ef_socket: %s\n", what);
}

void seam_rcvq_lock(struct sock *sk)
{
	spin_lock_bh(&sk->sk_receive_queue.lock);
}

void seam_rcvq_unlock(struct sock *sk)
{
	spin_unlock_bh(&sk->sk_receive_queue.lock);
}

u32 seam_rcvq_len(const struct sock *sk)
{
	return skb_queue_len(&sk->sk_receive_queue);
}

u32 seam_writeq_len(const struct sock *sk)
{
	return skb_queue_len(&sk->sk_write_queue);
}

struct sk_buff *seam_rcvq_peek(struct sock *sk)
{
	return skb_peek(&sk->sk_receive_queue);
}

void seam_rcvq_purge(struct sock *sk)
{
	skb_queue_purge(&sk->sk_receive_queue);
}

int seam_rcvq_offer(struct sock *sk, struct sk_buff *skb, int filtered)
{
	struct sk_buff_head *queue = &sk->sk_receive_queue;
	unsigned long flags;

	/* Only whether there is one: sk_filter_trim_cap() reads it anew, under RCU. */
	if (rcu_access_pointer(sk->sk_filter) && !filtered)
		return SEAM_OFFER_FILTER;
	/* Unsigned sum: neither part is negative, and a full queue must not look empty. */
	if ((u32)atomic_read(&sk->sk_rmem_alloc) + skb->truesize >= (u32)READ_ONCE(sk->sk_rcvbuf))
		return SEAM_OFFER_FULL;
	/* As skb_set_owner_r() for a buffer that has no owner yet, and no route. */
	skb->sk = sk;
	skb->destructor = sock_rfree;
	atomic_add(skb->truesize, &sk->sk_rmem_alloc);
	sk_mem_charge(sk, skb->truesize);
	spin_lock_irqsave(&queue->lock, flags);
	__skb_queue_tail(queue, skb);
	spin_unlock_irqrestore(&queue->lock, flags);
	sk->sk_data_ready(sk);
	return SEAM_OFFER_QUEUED;
}

int seam_sk_filtered(const struct sock *sk)
{
	return rcu_access_pointer(sk->sk_filter) != NULL;
}

int seam_sk_stamped(const struct sock *sk)
{
	/* SOCK_TIMESTAMP stays once it is set, and SIOCGSTAMP sets it too. */
	return (sk->sk_flags & (1UL << SOCK_RCVTSTAMP | 1UL << SOCK_TIMESTAMPING_RX_SOFTWARE)) != 0;
}

int seam_sock_get_timestamp(struct sock *sk, void *user_to)
{
	return seam_compat_get_timestamp(sk, (void __user *)user_to);
}

int seam_sock_get_timestampns(struct sock *sk, void *user_to)
{
	return seam_compat_get_timestampns(sk, (void __user *)user_to);
}

int seam_sk_filter_trim_cap(struct sock *sk, struct sk_buff *skb, u32 cap)
{
	return seam_compat_filter(sk, skb, cap);
}

struct sk_buff *seam_recv_datagram(struct sock *sk, int flags, int *error)
{
	return seam_compat_recv_datagram(sk, flags, error);
}

void seam_free_datagram(struct sock *sk, struct sk_buff *skb)
{
	skb_free_datagram(sk, skb);
}

int seam_copy_datagram(struct sk_buff *skb, struct msghdr *msg, size_t len)
{
	return skb_copy_datagram_msg(skb, 0, msg, len);
}

void seam_recv_timestamp(struct msghdr *msg, struct sock *sk, struct sk_buff *skb)
{
	const unsigned long options = 1UL << SOCK_RCVTSTAMP | 1UL << SOCK_WIFI_STATUS;

	/* Most often all it would do is to store the time that is there, under a lock. */
	if (!(sk->sk_flags & options) && !READ_ONCE(sk->sk_tsflags) && skb->tstamp == sk->sk_stamp)
		return;
	seam_compat_recv_timestamp(msg, sk, skb);
}

void seam_msg_set_namelen(struct msghdr *msg, int len)
{
	msg->msg_namelen = len;
}

void *seam_msg_name(struct msghdr *msg)
{
	return msg->msg_name;
}

void seam_msg_add_flags(struct msghdr *msg, int flags)
{
	msg->msg_flags |= flags;
}

void seam_msg_set_controllen(struct msghdr *msg, size_t len)
{
	msg->msg_controllen = len;
}

void *seam_msg_control(struct msghdr *msg)
{
	return msg->msg_control;
}

int seam_msg_put_control(struct msghdr *msg, const void *from, size_t len)
{
	if (seam_control_is_kernel(msg)) {
		memcpy(msg->msg_control, from, len);
		return 0;
	}
	return copy_to_user((void __user *)msg->msg_control, from, len) ? -EFAULT : 0;
}

int seam_msg_namelen(const struct msghdr *msg)
{
	return msg->msg_namelen;
}

size_t seam_msg_controllen(const struct msghdr *msg)
{
	return msg->msg_controllen;
}

int seam_copy_from_msg(void *to, struct msghdr *msg, size_t len)
{
	return copy_from_iter_full(to, len, &msg->msg_iter) ? 0 : -EFAULT;
}
