// SPDX-License-Identifier: GPL-2.0-only
// Generic netlink, files and text.
#include <algorithm>
#include <cstring>

#include "kernel.h"

using fake::breach;
using fake::Fail;
using fake::kernel;
using fake::Point;

namespace {

constexpr uint16_t kFamilyId = 0x1f;
constexpr size_t kHeaders = 20; // netlink and generic netlink header

bool is_open(const file *f, const char *call)
{
	if (kernel().open_files.count(const_cast<file *>(f)))
		return true;
	breach(std::string(call) + " of a closed file");
	return false;
}

} // namespace

int seam_scnprintf(char *buf, size_t size, const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	std::string text = fake::render(fmt, args);
	va_end(args);
	size_t len = std::min(text.size(), size - 1);
	std::memcpy(buf, text.c_str(), len);
	buf[len] = '\0';
	return static_cast<int>(len);
}

int seam_genl_register(void)
{
	kernel().may_sleep("genl_register_family");
	if (kernel().failing(Fail::kGenlRegister)) {
		kernel().journal.push_back("genl+ fails");
		return kernel().error_of(Fail::kGenlRegister, -EEXIST);
	}
	if (kernel().genl_registered)
		breach("genl_register_family twice");
	kernel().genl_registered = true;
	kernel().journal.push_back("genl+");
	return 0;
}

void seam_genl_unregister(void)
{
	kernel().may_sleep("genl_unregister_family");
	if (!kernel().genl_registered)
		breach("genl_unregister_family of what is not registered");
	kernel().genl_registered = false;
	kernel().journal.push_back("genl-");
}

const void *seam_genl_message(const genl_info *info)
{
	return info->message.data();
}
int seam_genl_from_admin(const sk_buff *)
{
	kernel().may_sleep("netlink_capable");
	return kernel().net_admin && kernel().opener_net_admin;
}

u32 seam_genl_client(const genl_info *info)
{
	return info->client;
}

sk_buff *seam_genl_alloc(void)
{
	kernel().may_sleep("nlmsg_new");
	if (kernel().failing(Fail::kGenlAlloc))
		return nullptr;
	return fake::skb_with_room(36);
}

void *seam_genl_put(sk_buff *skb, u32 client)
{
	if (kernel().failing(Fail::kGenlPut))
		return nullptr;
	auto *head = static_cast<uint8_t *>(fake::skb_put(skb, kHeaders));
	const uint32_t begun = 0, seq = 0;
	const uint16_t flags = 0;
	const uint8_t generic[4] = { MOX_PACKET_GENL_CMD, MOX_PACKET_GENL_VERSION, 0, 0 };
	std::memcpy(head, &begun, 4);
	std::memcpy(head + 4, &kFamilyId, 2);
	std::memcpy(head + 6, &flags, 2);
	std::memcpy(head + 8, &seq, 4);
	std::memcpy(head + 12, &client, 4);
	std::memcpy(head + 16, generic, 4);
	return head;
}

int seam_genl_put_empty(sk_buff *skb, int type)
{
	if (kernel().failing(Fail::kNlaPut))
		return -EMSGSIZE;
	const uint16_t attr[2] = { 4, static_cast<uint16_t>(type) };
	std::memcpy(fake::skb_put(skb, 4), attr, 4);
	return 0;
}

void seam_genl_end(sk_buff *skb, void *message)
{
	if (message != skb->room.data())
		breach("genlmsg_end of another message");
	std::memcpy(message, &skb->len, 4);
}

int seam_genl_unicast(sk_buff *skb, u32 client)
{
	int result = static_cast<int>(skb->len);
	if (kernel().failing(Fail::kGenlUnicast))
		result = -ECONNREFUSED;
	else
		kernel().answers.push_back(
			{ client, { skb->room.begin(), skb->room.begin() + skb->len } });
	fake::skb_forget(skb, "netlink_unicast");
	return result;
}

void seam_genl_free(sk_buff *skb)
{
	fake::skb_forget(skb, "nlmsg_free");
}

file *seam_file_open(const char *path)
{
	kernel().may_sleep("filp_open");
	kernel().event(Point::kOpen);
	if (kernel().failing(Fail::kFileOpen))
		return nullptr;
	kernel().disk[path];
	auto *f = new file{ path };
	kernel().open_files.insert(f);
	return f;
}

int seam_file_is_regular(const file *f)
{
	is_open(f, "stat");
	return kernel().places[f->path].regular;
}

u32 seam_file_links(const file *f)
{
	kernel().may_sleep("the lock of a directory");
	is_open(f, "stat");
	return kernel().places[f->path].links;
}

int seam_file_empty(const file *f)
{
	is_open(f, "stat");
	return kernel().disk[f->path].empty();
}

int seam_file_truncate(file *f)
{
	kernel().may_sleep("vfs_truncate");
	if (!is_open(f, "vfs_truncate"))
		return -EBADF;
	if (kernel().failing(Fail::kFileTruncate))
		return -EACCES;
	kernel().disk[f->path].clear();
	return 0;
}

long seam_file_write(file *f, const void *from, size_t len)
{
	kernel().may_sleep("kernel_write");
	if (!is_open(f, "kernel_write"))
		return -EBADF;
	if (kernel().failing(Fail::kFileWrite))
		return -ENOSPC;
	std::string &content = kernel().disk[f->path];
	if (content.size() < f->at + len)
		content.resize(f->at + len);
	content.replace(f->at, len, static_cast<const char *>(from), len);
	f->at += len;
	kernel().writes.push_back(len);
	kernel().event(Point::kWrite, f);
	return static_cast<long>(len);
}

void seam_file_close(file *f)
{
	kernel().may_sleep("filp_close");
	if (!is_open(f, "filp_close"))
		return;
	kernel().open_files.erase(f);
	delete f;
}
