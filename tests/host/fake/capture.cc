// SPDX-License-Identifier: GPL-2.0-only
// The family for reading: buffers of any size, which messages are written to as the kernel
// lays them out, and what sockets and tasks are for those who list them.
#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "seam/seam_capture.h"

using fake::breach;
using fake::Fail;
using fake::kernel;

namespace {

constexpr uint16_t kFamilyId = 0x20;
constexpr uint32_t kHeaders = 20; // netlink and generic netlink header
constexpr uint32_t kAttribute = 4;
constexpr int kNested = 0x8000;
constexpr int kTypes = 0x3fff; // the other two bits of a type are flags

size_t room_of(const sk_buff *skb)
{
	if (!kernel().skbs.count(const_cast<sk_buff *>(skb)))
		breach("a message in a freed buffer");
	return skb->room.size() - skb->begin - skb->len;
}

uint32_t padded(size_t size)
{
	return static_cast<uint32_t>(size + 3) & ~3u;
}

// The first byte of a message or attribute, by what the module holds of it.
uint32_t offset_of(const sk_buff *skb, const void *at)
{
	return static_cast<uint32_t>(static_cast<const uint8_t *>(at) - skb->data());
}

// What is written at the innermost level has that offset.
bool innermost(const sk_buff *skb, uint32_t offset, size_t level, const char *call)
{
	if (skb->open.size() == level && skb->open.back() == offset)
		return true;
	breach(std::string(call) +
	       (skb->open.empty() ? " without a message" : " of what is not the innermost"));
	return false;
}

// An attribute's header, and room behind it. Null without room.
uint8_t *attribute(sk_buff *skb, int type, size_t size)
{
	if (skb->open.empty())
		breach("an attribute outside of a message");
	if ((type & kTypes) == 0 || (type & ~(kTypes | kNested)) != 0)
		breach("an attribute of type " + std::to_string(type));
	if (kAttribute + size > UINT16_MAX)
		breach("an attribute of " + std::to_string(size) + " bytes");
	if (room_of(skb) < padded(kAttribute + size))
		return nullptr;
	auto *at = static_cast<uint8_t *>(fake::skb_put(skb, padded(kAttribute + size)));
	const uint16_t header[2] = { static_cast<uint16_t>(kAttribute + size),
				     static_cast<uint16_t>(type) };
	std::memcpy(at, header, sizeof(header));
	std::memset(at + kAttribute, 0, padded(size));
	return at;
}

} // namespace

int seam_capture_register(void)
{
	kernel().may_sleep("genl_register_family");
	if (kernel().failing(Fail::kCaptureRegister)) {
		kernel().journal.push_back("capture+ fails");
		return kernel().error_of(Fail::kCaptureRegister, -EEXIST);
	}
	if (kernel().capture_registered)
		breach("the family for reading registered twice");
	kernel().capture_registered = true;
	kernel().journal.push_back("capture+");
	return 0;
}

void seam_capture_unregister(void)
{
	kernel().may_sleep("genl_unregister_family");
	if (!kernel().capture_registered)
		breach("the family for reading unregistered, but not registered");
	kernel().capture_registered = false;
	kernel().journal.push_back("capture-");
}

// A test that asks for explanations passes the text's place.
void seam_capture_explain(const seam_request *request, const char *text)
{
	if (!text || !*text)
		breach("an explanation without a text");
	else if (request->explanation)
		*static_cast<std::string *>(request->explanation) = text;
}

sk_buff *seam_capture_alloc(size_t size)
{
	kernel().may_sleep("genlmsg_new");
	if (kernel().failing(Fail::kCaptureAlloc))
		return nullptr;
	return fake::skb_with_room(kHeaders + padded(size));
}

sk_buff *seam_capture_alloc_atomic(size_t size)
{
	if (kernel().failing(Fail::kCaptureAlloc))
		return nullptr;
	return fake::skb_with_room(kHeaders + padded(size));
}

void seam_capture_free(sk_buff *skb)
{
	// As kfree_skb.
	if (skb)
		fake::skb_forget(skb, "nlmsg_free");
}

int seam_capture_reply(const seam_request *request, sk_buff *skb)
{
	int result = 0;
	if (kernel().failing(Fail::kCaptureReply))
		result = kernel().error_of(Fail::kCaptureReply, -ECONNREFUSED);
	else
		kernel().capture_answers.push_back(
			{ request->client, { skb->data(), skb->data() + skb->len } });
	fake::skb_forget(skb, "genlmsg_unicast");
	return result;
}

void *seam_capture_begin(sk_buff *skb, const seam_request *request, u8 command)
{
	if (!skb->open.empty())
		breach("a message begun within another one");
	if (room_of(skb) < kHeaders)
		return nullptr;
	const uint32_t begin = skb->len;
	auto *head = static_cast<uint8_t *>(fake::skb_put(skb, kHeaders));
	const uint32_t length = 0;
	const uint16_t kind[2] = { kFamilyId, static_cast<uint16_t>(request->flags) };
	const uint8_t generic[4] = { command, MOX_CAPTURE_VERSION, 0, 0 };
	std::memcpy(head, &length, 4);
	std::memcpy(head + 4, kind, 4);
	std::memcpy(head + 8, &request->number, 4);
	std::memcpy(head + 12, &request->client, 4);
	std::memcpy(head + 16, generic, 4);
	skb->open.push_back(begin);
	return head + kHeaders;
}

void seam_capture_end(sk_buff *skb, void *message)
{
	const uint32_t begin = offset_of(skb, message) - kHeaders;
	if (!innermost(skb, begin, 1, "genlmsg_end"))
		return;
	const uint32_t length = skb->len - begin;
	std::memcpy(skb->room.data() + skb->begin + begin, &length, 4);
	skb->open.clear();
}

// Nested attributes that were begun go with the message.
void seam_capture_cancel(sk_buff *skb, void *message)
{
	const uint32_t begin = offset_of(skb, message) - kHeaders;
	if (skb->open.empty() || skb->open.front() != begin)
		return breach("genlmsg_cancel without a message");
	skb->len = begin;
	skb->open.clear();
}

int seam_capture_put(sk_buff *skb, int type, size_t size, const void *data)
{
	if (type & kNested)
		breach("an attribute with bytes and the nested bit");
	if (!data != !size)
		breach("an attribute's bytes and their number differ");
	uint8_t *at = attribute(skb, type, size);
	if (!at)
		return -EMSGSIZE;
	if (data)
		std::memcpy(at + kAttribute, data, size);
	return 0;
}

size_t seam_capture_room(const sk_buff *skb)
{
	return room_of(skb);
}

void *seam_capture_nest(sk_buff *skb, int type)
{
	uint8_t *at = attribute(skb, type | kNested, 0);
	if (at)
		skb->open.push_back(offset_of(skb, at));
	return at;
}

void seam_capture_nest_end(sk_buff *skb, void *nest)
{
	const uint32_t begin = offset_of(skb, nest);
	if (skb->open.size() < 2 || !innermost(skb, begin, skb->open.size(), "nla_nest_end"))
		return breach("nla_nest_end outside of a nested attribute");
	const auto length = static_cast<uint16_t>(skb->len - begin);
	std::memcpy(nest, &length, 2);
	skb->open.pop_back();
}

void seam_capture_nest_cancel(sk_buff *skb, void *nest)
{
	const uint32_t begin = offset_of(skb, nest);
	if (skb->open.size() < 2 || !innermost(skb, begin, skb->open.size(), "nla_nest_cancel"))
		return breach("nla_nest_cancel outside of a nested attribute");
	skb->len = begin;
	skb->open.pop_back();
}

u64 seam_sk_cookie(sock *sk)
{
	if (!kernel().socks.count(sk))
		breach("the cookie of a freed socket");
	if (!sk->cookie)
		sk->cookie = ++kernel().last_cookie;
	return sk->cookie;
}

void seam_sock_identify(sock *sk, seam_sock_identity *identity)
{
	if (!kernel().socks.count(sk))
		return breach("a freed socket identified");
	// A released socket holds no reference on its namespace.
	if (sk->dead && sk->ns->refs <= 1)
		breach("the namespace of a socket may be gone");
	const u64 cookie = seam_sk_cookie(sk);
	std::memset(identity, 0xa5, sizeof(*identity));
	identity->cookie = cookie;
	identity->inode = sk->inode;
	identity->uid = sk->uid;
	identity->netns = sk->ns->inode;
	identity->type = static_cast<u32>(sk->type);
	identity->rcvbuf = static_cast<u32>(sk->rcvbuf);
	identity->filtered = sk->has_filter;
	identity->stamped = sk->stamped;
}

int seam_sk_stamped(const sock *sk)
{
	return sk->stamped;
}

s32 seam_task_pid(const task_struct *task)
{
	if (!kernel().tasks.count(const_cast<task_struct *>(task)))
		breach("the process id of a task that is gone");
	return task->pid;
}

const char *seam_module_version(void)
{
	return "7.8.9";
}
