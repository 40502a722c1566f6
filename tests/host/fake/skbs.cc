// SPDX-License-Identifier: GPL-2.0-only
// Socket buffers, receive queues and messages.
#include <algorithm>
#include <cstring>

#include "kernel.h"

using fake::breach;
using fake::Fail;
using fake::kernel;
using fake::Point;

namespace fake {

uint32_t truesize(uint32_t len)
{
	return ((len + 63) & ~63u) + 576;
}

namespace {

void check(const sk_buff *skb, const char *call)
{
	if (!kernel().skbs.count(const_cast<sk_buff *>(skb)))
		breach(std::string(call) + " on a freed buffer");
}

void put(sk_buff *skb, const char *call)
{
	check(skb, call);
	if (--skb->users)
		return;
	if (skb->owner)
		skb->owner->rmem -= static_cast<int>(skb->truesize);
	kernel().skbs.erase(skb);
	delete skb;
}

} // namespace
} // namespace fake

sk_buff *fake::skb_alloc(u32 len)
{
	if (kernel().failing(Fail::kSkbAlloc))
		return nullptr;
	auto *skb = new sk_buff;
	// Old memory: the module must write a buffer before it passes it on.
	skb->room.assign(len, 0xa5);
	std::memset(skb->cb, 0xa5, sizeof skb->cb);
	skb->truesize = fake::truesize(len);
	skb->nonlinear = kernel().nonlinear_skbs;
	kernel().skbs.insert(skb);
	return skb;
}

sk_buff *fake::skb_with_room(size_t room)
{
	auto *skb = new sk_buff;
	skb->room.assign(room, 0xa5);
	kernel().skbs.insert(skb);
	return skb;
}

void fake::skb_forget(sk_buff *skb, const char *call)
{
	if (!kernel().skbs.erase(skb))
		return breach(std::string(call) + " of a freed message");
	if (!skb->open.empty())
		breach(std::string(call) + " of half a message");
	delete skb;
}

sk_buff *seam_skb_clone(sk_buff *skb)
{
	fake::check(skb, "skb_clone");
	if (kernel().failing(Fail::kSkbClone))
		return nullptr;
	// The data is copied here, so that a write through one of the two goes unnoticed: the module
	// writes to neither.
	auto *clone = new sk_buff(*skb);
	clone->users = 1;
	clone->owner = nullptr;
	kernel().skbs.insert(clone);
	return clone;
}

void *fake::skb_put(sk_buff *skb, u32 len)
{
	fake::check(skb, "skb_put");
	if (skb->begin + skb->len + len > skb->room.size()) {
		breach("skb_put beyond the buffer's end");
		return nullptr;
	}
	void *at = skb->room.data() + skb->begin + skb->len;
	skb->len += len;
	return at;
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
	sk_buff *skb = fake::skb_alloc(frame->len);
	if (!skb)
		return nullptr;
	if (frame->len != 0) // room for no bytes has no address
		std::memcpy(fake::skb_put(skb, frame->len), frame->data, frame->len);
	skb->mac = skb->begin;
	skb->network = skb->begin + frame->net_offset;
	skb->iif = frame->ifindex;
	skb->vlan = frame->vlan_id;
	skb->has_dev = false;
	frame->cb = skb->cb;
	return skb;
}

void *seam_skb_cb(sk_buff *skb)
{
	fake::check(skb, "skb cb");
	return skb->cb;
}

u32 seam_skb_len(const sk_buff *skb)
{
	return skb->len;
}
u16 seam_skb_protocol(const sk_buff *skb)
{
	return skb->protocol;
}
int seam_skb_nonlinear(const sk_buff *skb)
{
	return skb->nonlinear;
}

int seam_skb_pskb_trim(sk_buff *skb, u32 len)
{
	if (kernel().failing(Fail::kSkbTrim))
		return -ENOMEM;
	skb->len = std::min(skb->len, len);
	return 0;
}

void seam_skb_cut(sk_buff *skb, u32 len)
{
	if (skb->nonlinear)
		breach("plain cut of a non-linear buffer");
	if (len > skb->len)
		breach("a cut that makes the buffer longer");
	skb->len = len;
}

u32 seam_skb_users(const sk_buff *skb)
{
	return skb->users;
}
void seam_consume_skb(sk_buff *skb)
{
	fake::put(skb, "consume_skb");
}

u32 seam_rcvq_len(const sock *sk)
{
	return sk->queue->size();
}
u32 seam_writeq_len(const sock *sk)
{
	return sk->write_queue->size();
}

sk_buff *seam_rcvq_peek(sock *sk)
{
	if (!kernel().holds(fake::LockKind::kReceiveQueue))
		breach("receive queue peeked without its lock");
	return sk->queue->empty() ? nullptr : sk->queue->front();
}

void seam_skb_set_time(sk_buff *skb, u64 time)
{
	skb->time = time;
}

int seam_sk_filtered(const sock *sk)
{
	return sk->has_filter;
}

int seam_rcvq_offer(sock *sk, sk_buff *skb, int filtered)
{
	if (sk->has_filter && !filtered)
		return SEAM_OFFER_FILTER;
	if (static_cast<u32>(sk->rmem) + skb->truesize >= static_cast<u32>(sk->rcvbuf))
		return SEAM_OFFER_FULL;
	if (skb->owner)
		breach("buffer charged twice");
	if (skb->has_dev)
		breach("buffer queued with its device");
	skb->owner = sk;
	sk->rmem += static_cast<int>(skb->truesize);
	seam_rcvq_lock(sk);
	sk->queue->push_back(skb);
	seam_rcvq_unlock(sk);
	sk->data_ready++;
	kernel().event(Point::kDataReady, sk);
	return SEAM_OFFER_QUEUED;
}

void seam_rcvq_purge(sock *sk)
{
	while (!sk->queue->empty()) {
		sk_buff *skb = sk->queue->front();
		sk->queue->pop_front();
		fake::put(skb, "purge");
	}
}

sk_buff *seam_recv_datagram(sock *sk, int flags, int *error)
{
	kernel().may_sleep("skb_recv_datagram");
	kernel().event(Point::kReceive, sk);
	if (kernel().failing(Fail::kRecvDatagram)) {
		*error = kernel().error_of(Fail::kRecvDatagram, -ERESTART);
		return nullptr;
	}
	if (sk->queue->empty()) {
		if (!(flags & 0x40))
			breach("a read that would block for ever");
		*error = -EAGAIN;
		return nullptr;
	}
	sk_buff *skb = sk->queue->front();
	if (flags & 0x2)
		skb->users++;
	else
		sk->queue->pop_front();
	*error = 0;
	return skb;
}

void seam_free_datagram(sock *, sk_buff *skb)
{
	kernel().may_sleep("skb_free_datagram");
	fake::put(skb, "skb_free_datagram");
}

int seam_copy_datagram(sk_buff *skb, msghdr *msg, size_t len)
{
	kernel().may_sleep("copy_datagram");
	if (len > skb->len)
		breach("more copied than the buffer holds");
	if (len > msg->data_fault_at || kernel().failing(Fail::kCopyDatagram))
		return -EFAULT;
	msg->data.assign(skb->data(), skb->data() + len);
	return 0;
}

void seam_recv_timestamp(msghdr *msg, sock *, sk_buff *skb)
{
	fake::check(skb, "recv_timestamp");
	msg->timestamps++;
}

void seam_msg_set_namelen(msghdr *msg, int len)
{
	msg->namelen = len;
}
void *seam_msg_name(msghdr *msg)
{
	return msg->name;
}
void seam_msg_add_flags(msghdr *msg, int flags)
{
	msg->flags |= flags;
}
void seam_msg_set_controllen(msghdr *msg, size_t len)
{
	msg->controllen = len;
}
void *seam_msg_control(msghdr *msg)
{
	return msg->control;
}

int seam_msg_put_control(msghdr *msg, const void *from, size_t len)
{
	return seam_copy_to_user(msg->control, from, len);
}

int seam_msg_namelen(const msghdr *msg)
{
	return msg->namelen;
}
size_t seam_msg_controllen(const msghdr *msg)
{
	return msg->controllen;
}

// Nothing is consumed when not all can be read; the bytes before the fault have arrived.
int seam_copy_from_msg(void *to, msghdr *msg, size_t len)
{
	kernel().may_sleep("copy_from_msg");
	size_t readable = std::min(msg->out.size(), msg->out_fault_at);
	size_t here = std::min(len, readable - std::min(readable, msg->out_at));
	if (here)
		std::memcpy(to, msg->out.data() + msg->out_at, here);
	kernel().event(Point::kCopyFromMsg, msg);
	if (here < len)
		return -EFAULT;
	msg->out_at += len;
	return 0;
}
