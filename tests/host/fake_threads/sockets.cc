// SPDX-License-Identifier: GPL-2.0-only
// Namespaces, sockets, socket buffers and messages of the threaded tests.
#include "backend.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace threads {
namespace {

void free_skb(sk_buff *skb)
{
	if (--skb->users)
		return;
	if (skb->owner)
		skb->owner->rmem -= static_cast<int>(skb->room.size() + 576);
	live().skbs--;
	delete skb;
}

} // namespace

std::atomic<long> &stamps()
{
	static std::atomic<long> count{ 0 };
	return count;
}

net &init_net()
{
	static net the_net;
	return the_net;
}

} // namespace threads

using namespace threads;

int seam_proto_register(void)
{
	return 0;
}
void seam_proto_unregister(void) {}
int seam_family_register(void)
{
	return 0;
}
void seam_family_unregister(void) {}
int seam_pernet_register(void)
{
	return 0;
}
void seam_pernet_unregister(void) {}
void seam_ns_list_init(net *) {}
net *seam_init_net(void)
{
	return &init_net();
}
net *seam_sk_net(sock *sk)
{
	return sk->ns;
}
void seam_net_get(net *ns)
{
	ns->refs++;
}
void seam_net_put(net *ns)
{
	ns->refs--;
}
void seam_ns_list_add(net *ns, sock *sk)
{
	ns->list.push_back(sk);
	sk->listed = true;
	sk->refs++;
}
void seam_ns_list_del(sock *sk)
{
	if (!sk->listed)
		return;
	std::erase(sk->ns->list, sk);
	sk->listed = false;
	sk->refs--;
}
void seam_prot_inuse_add(net *, int) {}

sock *seam_sk_alloc(net *ns)
{
	void *p = std::aligned_alloc(16, (sizeof(mox_packet_sock) + 15) & ~size_t{ 15 });
	std::memset(p, 0, sizeof(mox_packet_sock));
	auto *sk = new (p) sock{};
	sk->refs = 1;
	sk->rcvbuf = 40000;
	sk->ns = ns;
	pthread_mutex_init(&sk->lock, nullptr);
	pthread_mutex_init(&sk->queue_lock, nullptr);
	sk->queue = new std::deque<sk_buff *>;
	live().socks++;
	return sk;
}
void seam_sock_setup(socket *socket, sock *sk)
{
	socket->sk = sk;
	sk->type = socket->type;
}
sock *seam_socket_sk(socket *socket)
{
	return socket->sk;
}
void seam_socket_clear_sk(socket *socket)
{
	socket->sk = nullptr;
}
int seam_socket_type(const socket *socket)
{
	return socket->type;
}
int seam_sk_type(const sock *sk)
{
	return sk->type;
}
void seam_sock_hold(sock *sk)
{
	sk->refs++;
}
void seam_sock_put(sock *sk)
{
	if (--sk->refs)
		return;
	mox_packet_sock_destruct(sk);
	delete sk->queue;
	std::free(sk);
	live().socks--;
}
u32 seam_sk_refcnt(const sock *sk)
{
	return sk->refs;
}
void seam_sock_orphan(sock *sk)
{
	sk->dead = true;
}
int seam_sk_dead(const sock *sk)
{
	return sk->dead;
}
int seam_sk_rmem(const sock *sk)
{
	return sk->rmem;
}
int seam_sk_wmem(const sock *)
{
	return 0;
}
u32 seam_sk_wmem_charged(const sock *)
{
	return 0;
}
void seam_skb_set_time(sk_buff *, u64)
{
	threads::stamps()++;
}
int seam_sk_filtered(const sock *)
{
	return 0;
}
void seam_warn(const char *what)
{
	std::fprintf(stderr, "kernel warning: %s\n", what);
	std::abort();
}
int seam_sock_get_timestamp(sock *, void *)
{
	return 0;
}
int seam_sock_get_timestampns(sock *, void *)
{
	return 0;
}
int seam_sk_filter_trim_cap(sock *, sk_buff *, u32)
{
	return 0;
}

// ---- socket buffers ---------------------------------------------------------------------------

sk_buff *threads::skb_alloc(u32 len)
{
	auto *skb = new sk_buff;
	skb->room.resize(len);
	live().skbs++;
	return skb;
}
sk_buff *seam_skb_clone(sk_buff *skb)
{
	auto *clone = new sk_buff;
	clone->room = skb->room;
	clone->begin = skb->begin;
	clone->len = skb->len;
	memcpy(clone->cb, skb->cb, sizeof clone->cb);
	live().skbs++;
	return clone;
}
void *threads::skb_put(sk_buff *skb, u32 len)
{
	skb->len += len;
	return skb->room.data() + skb->len - len;
}
void *seam_skb_pull(sk_buff *skb, u32 len)
{
	if (len > skb->len)
		return nullptr;
	skb->begin += len;
	skb->len -= len;
	return skb->room.data() + skb->begin;
}
sk_buff *seam_skb_of_frame(seam_frame *frame)
{
	sk_buff *skb = threads::skb_alloc(frame->len);
	memcpy(threads::skb_put(skb, frame->len), frame->data, frame->len);
	frame->cb = seam_skb_cb(skb);
	return skb;
}
void *seam_skb_cb(sk_buff *skb)
{
	return skb->cb;
}
u32 seam_skb_len(const sk_buff *skb)
{
	return skb->len;
}
u16 seam_skb_protocol(const sk_buff *)
{
	return 0;
}
int seam_skb_nonlinear(const sk_buff *)
{
	return 0;
}
int seam_skb_pskb_trim(sk_buff *, u32)
{
	return 0;
}
void seam_skb_cut(sk_buff *skb, u32 len)
{
	skb->len = len;
}
u32 seam_skb_users(const sk_buff *skb)
{
	return skb->users;
}
void seam_consume_skb(sk_buff *skb)
{
	free_skb(skb);
}
u32 seam_rcvq_len(const sock *sk)
{
	// Read without the lock in the kernel, too; one untorn word there.
	auto *lock = const_cast<pthread_mutex_t *>(&sk->queue_lock);
	pthread_mutex_lock(lock);
	u32 len = sk->queue->size();
	pthread_mutex_unlock(lock);
	return len;
}
u32 seam_writeq_len(const sock *)
{
	return 0;
}
sk_buff *seam_rcvq_peek(sock *sk)
{
	return sk->queue->empty() ? nullptr : sk->queue->front();
}
int seam_rcvq_offer(sock *sk, sk_buff *skb, int)
{
	if (static_cast<u32>(sk->rmem) + skb->room.size() + 576 >= static_cast<u32>(sk->rcvbuf))
		return SEAM_OFFER_FULL;
	skb->owner = sk;
	sk->rmem += static_cast<int>(skb->room.size() + 576);
	pthread_mutex_lock(&sk->queue_lock);
	sk->queue->push_back(skb);
	pthread_mutex_unlock(&sk->queue_lock);
	return SEAM_OFFER_QUEUED;
}
void seam_rcvq_purge(sock *sk)
{
	pthread_mutex_lock(&sk->queue_lock);
	std::deque<sk_buff *> all;
	all.swap(*sk->queue);
	pthread_mutex_unlock(&sk->queue_lock);
	for (sk_buff *skb : all)
		free_skb(skb);
}
sk_buff *seam_recv_datagram(sock *sk, int flags, int *error)
{
	sk_buff *skb = nullptr;
	pthread_mutex_lock(&sk->queue_lock);
	if (!sk->queue->empty()) {
		skb = sk->queue->front();
		if (flags & 2)
			skb->users++;
		else
			sk->queue->pop_front();
	}
	pthread_mutex_unlock(&sk->queue_lock);
	*error = skb ? 0 : -11;
	return skb;
}
void seam_free_datagram(sock *, sk_buff *skb)
{
	free_skb(skb);
}
int seam_copy_datagram(sk_buff *skb, msghdr *msg, size_t len)
{
	msg->data.assign(skb->room.begin() + skb->begin, skb->room.begin() + skb->begin + len);
	return 0;
}
void seam_recv_timestamp(msghdr *, sock *, sk_buff *) {}
void seam_msg_set_namelen(msghdr *, int) {}
void *seam_msg_name(msghdr *msg)
{
	return msg->name;
}
void seam_msg_add_flags(msghdr *msg, int flags)
{
	msg->flags |= flags;
}
void seam_msg_set_controllen(msghdr *, size_t) {}
void *seam_msg_control(msghdr *msg)
{
	return const_cast<void *>(msg->control);
}
int seam_msg_namelen(const msghdr *msg)
{
	return msg->namelen;
}
size_t seam_msg_controllen(const msghdr *msg)
{
	return msg->controllen;
}
int seam_copy_from_msg(void *to, msghdr *msg, size_t len)
{
	if (len > msg->out.size())
		return -14;
	std::memcpy(to, msg->out.data(), len);
	return 0;
}
int seam_msg_put_control(msghdr *, const void *, size_t)
{
	return 0;
}
