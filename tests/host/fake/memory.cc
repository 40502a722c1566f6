// SPDX-License-Identifier: GPL-2.0-only
// Blocks, slab caches and user memory.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "kernel.h"

using fake::breach;
using fake::Fail;
using fake::kernel;

namespace fake {

UserBuf::UserBuf(size_t size, uint8_t fill) : bytes(size, fill)
{
	bytes.reserve(1); // no bytes have an address, too
	kernel().user.push_back(this);
}
UserBuf::UserBuf(const std::vector<uint8_t> &content) : bytes(content)
{
	bytes.reserve(1);
	kernel().user.push_back(this);
}
UserBuf::~UserBuf()
{
	std::erase(kernel().user, this);
}

// How many of len bytes at an address belong to user memory that does not fault.
// False when the address is no user memory at all.
bool Kernel::user_touch(const void *address, size_t len, size_t *reachable)
{
	auto *p = static_cast<const uint8_t *>(address);
	for (UserBuf *b : user) {
		auto *begin = b->bytes.data();
		if (p < begin || p > begin + std::max(b->bytes.size(), b->span))
			continue;
		size_t end = std::min(b->bytes.size(), b->fault_at);
		size_t at = p - begin;
		*reachable = at >= end ? 0 : std::min(len, end - at);
		return true;
	}
	*reachable = 0;
	return address == nullptr;
}

namespace {

void *block(size_t size, const char *call, Fail fail)
{
	kernel().may_sleep(call);
	if (kernel().failing(fail))
		return nullptr;
	void *p = std::calloc(1, size);
	kernel().blocks[p] = call;
	return p;
}

Fail alloc_from(const std::string &cache)
{
	for (int i = 0; i < static_cast<int>(std::size(contract::kCaches)); i++)
		if (cache == contract::kCaches[i].name)
			return alloc_of(static_cast<contract::Cache>(i));
	breach("no cache of the module: " + cache);
	return Fail::kDataAlloc;
}

void unblock(void *p, const char *call, const char *made_by)
{
	if (!p)
		return;
	auto it = kernel().blocks.find(p);
	if (it == kernel().blocks.end() || std::strcmp(it->second, made_by) != 0)
		return breach(std::string(call) + " of what " + made_by + " did not make");
	kernel().blocks.erase(it);
	std::free(p);
}

} // namespace
} // namespace fake

void *seam_kmalloc(size_t size)
{
	void *block = fake::block(size, "kmalloc", Fail::kKmalloc);
	// Old memory: nothing may be read that was not written.
	return block ? std::memset(block, 0xa5, size) : nullptr;
}
void seam_kfree(void *p)
{
	fake::unblock(p, "kfree", "kmalloc");
}
void *seam_vzalloc(size_t size)
{
	kernel().vzallocs.push_back(size);
	return fake::block(size, "vzalloc", Fail::kVzalloc);
}

void seam_vfree(void *p)
{
	kernel().may_sleep("vfree");
	fake::unblock(p, "vfree", "vzalloc");
}

kmem_cache *seam_cache_create(const char *name, size_t size)
{
	kernel().may_sleep("kmem_cache_create");
	if (kernel().failing(Fail::kCacheCreate))
		return nullptr;
	kernel().journal.push_back(std::string("cache+ ") + name);
	auto *cache = new kmem_cache{ name, size, {} };
	kernel().caches.insert(cache);
	return cache;
}

void seam_cache_destroy(kmem_cache *cache)
{
	kernel().may_sleep("kmem_cache_destroy");
	if (!kernel().caches.erase(cache))
		return breach("kmem_cache_destroy of no cache");
	kernel().journal.push_back("cache- " + cache->name);
	if (!cache->objects.empty())
		breach("cache " + cache->name + " destroyed with " +
		       std::to_string(cache->objects.size()) + " objects");
	for (void *p : cache->objects)
		std::free(p);
	delete cache;
}

void *seam_cache_alloc(kmem_cache *cache)
{
	if (kernel().failing(fake::alloc_from(cache->name)))
		return nullptr;
	void *p = std::malloc(cache->size);
	std::memset(p, 0xa5, cache->size); // the kernel does not zero it either
	cache->objects.insert(p);
	return p;
}

unsigned long long seam_total_memory(void)
{
	return kernel().total_memory;
}

int seam_capable_net_admin(void)
{
	kernel().may_sleep("capable");
	return kernel().net_admin;
}

int seam_capable_net_raw(void)
{
	kernel().may_sleep("capable");
	return kernel().net_raw;
}

// The same each time: a test that fails does so again.
u32 seam_random(void)
{
	static u32 state = 0;

	return state = state * 1664525 + 1013904223;
}

void seam_cache_free(kmem_cache *cache, void *object)
{
	if (!cache->objects.erase(object))
		return breach("object not of cache " + cache->name);
	std::free(object);
}

int seam_copy_from_uptr(void *to, const seam_uptr *from, size_t len)
{
	return seam_copy_from_uptr_at(to, from, 0, len);
}

int seam_copy_from_uptr_at(void *to, const seam_uptr *from, size_t at, size_t len)
{
	kernel().may_sleep("copy_from_user");
	kernel().user_reads.push_back({ at, len });
	at += from->offset;
	size_t reachable = 0;
	if (!kernel().user_touch(from->buf->data() + at, len, &reachable))
		breach("copy from outside user memory");
	if (kernel().failing(Fail::kCopyFromUser))
		reachable = std::min(reachable, len / 2);
	if (reachable)
		std::memcpy(to, from->buf->data() + at, reachable);
	std::memset(static_cast<uint8_t *>(to) + reachable, 0, len - reachable);
	return reachable == len ? 0 : -EFAULT;
}

int seam_copy_to_user(void *user_to, const void *from, size_t len)
{
	kernel().may_sleep("copy_to_user");
	size_t reachable = 0;
	if (!kernel().user_touch(user_to, len, &reachable))
		breach("copy to outside user memory");
	if (kernel().failing(Fail::kCopyToUser))
		reachable = 0;
	if (reachable)
		std::memcpy(user_to, from, reachable);
	return reachable == len ? 0 : -EFAULT;
}

int seam_get_user_int(int *to, const int *user_from)
{
	kernel().may_sleep("get_user");
	size_t reachable = 0;
	if (!kernel().user_touch(user_from, sizeof(int), &reachable))
		breach("get_user outside user memory");
	if (reachable < sizeof(int) || kernel().failing(Fail::kGetUser)) {
		*to = 0;
		return -EFAULT;
	}
	std::memcpy(to, user_from, sizeof(int));
	return 0;
}

int seam_put_user_int(int value, int *user_to)
{
	kernel().may_sleep("put_user");
	size_t reachable = 0;
	if (!kernel().user_touch(user_to, sizeof(int), &reachable))
		breach("put_user outside user memory");
	if (reachable < sizeof(int) || kernel().failing(Fail::kPutUser))
		return -EFAULT;
	std::memcpy(user_to, &value, sizeof(int));
	return 0;
}

int seam_cpu(void)
{
	return kernel().cpu;
}
int seam_nr_cpu_ids(void)
{
	return kernel().cpu_ids;
}

int seam_next_present_cpu(int cpu)
{
	auto it = kernel().present_cpus.upper_bound(cpu);
	return it == kernel().present_cpus.end() ? kernel().cpu_ids : *it;
}

int seam_next_possible_cpu(int cpu)
{
	return cpu + 1;
}

hook_cpu *seam_hook_enter(void)
{
	if (!kernel().bh_disabled && !kernel().in_hook)
		breach("the CPU's efbuff read with bottom halves on");
	hook_cpu *here = &kernel().hook_cpus[kernel().cpu];
	if (here->cpu != static_cast<u32>(kernel().cpu))
		breach("a hook runs before the queues are up");
	here->efbuff = kernel().cpu_efbuff[kernel().cpu];
	return here;
}

hook_cpu *seam_hook_cpu(int cpu)
{
	if (cpu < 0 || cpu >= kernel().cpu_ids)
		breach("the record of a CPU that is not possible");
	return &kernel().hook_cpus[cpu];
}

s32 seam_current_pid(void)
{
	return kernel().pid;
}

void seam_current_comm(char name[16])
{
	std::memset(name, 0, 16);
	kernel().comm.copy(name, 15);
}

char *seam_cwd_path(char *buf, size_t size)
{
	kernel().may_sleep("d_path");
	const std::string &cwd = kernel().cwd;
	if (!kernel().cwd_renders || cwd.size() + 1 > size)
		return nullptr;
	// At the end of the buffer, as the kernel renders a path: backwards.
	char *start = buf + size - cwd.size() - 1;
	std::memcpy(start, cwd.c_str(), cwd.size() + 1);
	return start;
}

unsigned long seam_strtoul10(const char *text)
{
	uint32_t v = 0; // wraps as a 32-bit kernel's does
	while (*text >= '0' && *text <= '9')
		v = v * 10 + (*text++ - '0');
	return v;
}
