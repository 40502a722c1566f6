// SPDX-License-Identifier: GPL-2.0-only
// The threaded tests' family for reading: messages as netlink has them, in buffers of the
// tests.
#include "backend.h"

#include <cstring>

#include "seam/seam_capture.h"

namespace {

constexpr uint32_t kHeaders = 20;

uint32_t padded(size_t size)
{
	return static_cast<uint32_t>(size + 3) & ~3u;
}

uint8_t *attribute(sk_buff *skb, int type, size_t size)
{
	const uint16_t header[2] = { static_cast<uint16_t>(4 + size), static_cast<uint16_t>(type) };

	if (seam_capture_room(skb) < padded(4 + size))
		return nullptr;
	auto *at = static_cast<uint8_t *>(threads::skb_put(skb, padded(4 + size)));
	std::memcpy(at, header, sizeof(header));
	return at;
}

} // namespace

std::atomic<long> &threads::records()
{
	static std::atomic<long> count{ 0 };
	return count;
}

int seam_capture_register(void)
{
	return 0;
}
void seam_capture_unregister(void) {}
void seam_capture_explain(const seam_request *, const char *) {}
sk_buff *seam_capture_alloc_atomic(size_t size)
{
	return seam_capture_alloc(size);
}
u64 seam_sk_cookie(sock *)
{
	return 0;
}
int seam_diag_register(void)
{
	return 0;
}
void seam_diag_unregister(void) {}
int seam_diag_put(sk_buff *, netlink_callback *, const seam_diag_socket *, sock *)
{
	return 0;
}
sk_buff *seam_capture_alloc(size_t size)
{
	return threads::skb_alloc(kHeaders + size);
}
void seam_capture_free(sk_buff *skb)
{
	if (skb)
		seam_consume_skb(skb);
}
int seam_capture_reply(const seam_request *, sk_buff *skb)
{
	threads::records()++;
	return seam_consume_skb(skb), 0;
}
void *seam_capture_begin(sk_buff *skb, const seam_request *, u8 command)
{
	if (seam_capture_room(skb) < kHeaders)
		return nullptr;
	auto *head = static_cast<uint8_t *>(threads::skb_put(skb, kHeaders));
	head[16] = command;
	return head;
}
void seam_capture_end(sk_buff *skb, void *message)
{
	const auto length = static_cast<uint32_t>(skb->room.data() + skb->len -
						  static_cast<uint8_t *>(message));
	std::memcpy(message, &length, 4);
}
void seam_capture_cancel(sk_buff *skb, void *message)
{
	skb->len = static_cast<uint32_t>(static_cast<uint8_t *>(message) - skb->room.data());
}
int seam_capture_put(sk_buff *skb, int type, size_t size, const void *data)
{
	uint8_t *at = attribute(skb, type, size);
	if (!at)
		return -90;
	if (size)
		std::memcpy(at + 4, data, size);
	return 0;
}
size_t seam_capture_room(const sk_buff *skb)
{
	return skb->room.size() - skb->len;
}
void *seam_capture_nest(sk_buff *skb, int type)
{
	return attribute(skb, type, 0);
}
void seam_capture_nest_end(sk_buff *skb, void *nest)
{
	const auto length = static_cast<uint16_t>(skb->room.data() + skb->len -
						  static_cast<uint8_t *>(nest));
	std::memcpy(nest, &length, 2);
}
void seam_capture_nest_cancel(sk_buff *skb, void *nest)
{
	seam_capture_cancel(skb, nest);
}
void seam_sock_identify(sock *sk, seam_sock_identity *identity)
{
	*identity = {};
	identity->cookie = reinterpret_cast<uintptr_t>(sk);
	identity->type = static_cast<u32>(sk->type);
	identity->rcvbuf = static_cast<u32>(sk->rcvbuf);
}
int seam_sk_stamped(const sock *sk)
{
	return sk->stamped;
}
s32 seam_task_pid(const task_struct *)
{
	return 1;
}
const char *seam_module_version(void)
{
	return "threads";
}
