// SPDX-License-Identifier: GPL-2.0-only
/* Memory, user memory and the current task. */
#include <linux/capability.h>
#include <linux/dcache.h>
#include <linux/fs_struct.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/path.h>
#include <linux/random.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "seam.h"
#include "seam_compat.h"
#include "seam_uptr.h"

void *seam_kmalloc(size_t size)
{
	return kmalloc(size, GFP_KERNEL);
}

void seam_kfree(void *block)
{
	kfree(block);
}

void *seam_vzalloc(size_t size)
{
	return vzalloc(size);
}

void seam_vfree(void *block)
{
	vfree(block);
}

struct kmem_cache *seam_cache_create(const char *name, size_t size)
{
	return kmem_cache_create(name, size, 0, 0, NULL);
}

void seam_cache_destroy(struct kmem_cache *cache)
{
	kmem_cache_destroy(cache);
}

void *seam_cache_alloc(struct kmem_cache *cache)
{
	return kmem_cache_alloc(cache, GFP_ATOMIC | __GFP_ACCOUNT);
}

void seam_cache_free(struct kmem_cache *cache, void *object)
{
	kmem_cache_free(cache, object);
}

unsigned long long seam_total_memory(void)
{
	struct sysinfo info;

	si_meminfo(&info);
	return (unsigned long long)info.totalram * info.mem_unit;
}

int seam_capable_net_admin(void)
{
	return capable(CAP_NET_ADMIN);
}

int seam_capable_net_raw(void)
{
	return capable(CAP_NET_RAW);
}

u32 seam_random(void)
{
	return get_random_u32();
}

int seam_copy_from_uptr(void *to, const struct seam_uptr *from, size_t len)
{
	return seam_copy_from_uptr_at(to, from, 0, len);
}

int seam_copy_from_uptr_at(void *to, const struct seam_uptr *from, size_t at, size_t len)
{
	return seam_optval_copy_at(to, from->value, at, len) ? -EFAULT : 0;
}

int seam_copy_to_user(void *user_to, const void *from, size_t len)
{
	return copy_to_user((void __user *)user_to, from, len) ? -EFAULT : 0;
}

int seam_get_user_int(int *to, const int *user_from)
{
	return get_user(*to, (const int __user *)user_from);
}

int seam_put_user_int(int value, int *user_to)
{
	return put_user(value, (int __user *)user_to);
}

s32 seam_current_pid(void)
{
	return task_pid_nr(current);
}

void seam_current_comm(char name[16])
{
	BUILD_BUG_ON(TASK_COMM_LEN != 16);
	memset(name, 0, TASK_COMM_LEN);
	strscpy(name, current->comm, TASK_COMM_LEN);
}

char *seam_cwd_path(char *buf, size_t size)
{
	struct path pwd;
	char *text;

	get_fs_pwd(current->fs, &pwd);
	text = d_path(&pwd, buf, size);
	path_put(&pwd);
	return IS_ERR(text) ? NULL : text;
}

unsigned long seam_strtoul10(const char *text)
{
	return simple_strtoul(text, NULL, 10);
}
