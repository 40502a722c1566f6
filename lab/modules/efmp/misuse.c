// SPDX-License-Identifier: GPL-2.0-only
/*
 * misuse.c - breaches of the platform's rules: a kernel warning each, so that no
 * run passes over one. The platform's own test announces those that it commits.
 */
#include <linux/if_ether.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/printk.h>
#include "efmp.h"

#define TEXT(id, name, text) text,
static const char *const kinds[] = { MOXLAB_MISUSE_KINDS(TEXT) };
#undef TEXT

static atomic_t expected;
static atomic_t unexpected;
static atomic_t seen[MOXLAB_MISUSE_COUNT];

/* What committing a leak left behind. */
static DEFINE_MUTEX(commit_lock);
static struct efbuff *leaked;

void efmp_misuse(enum moxlab_misuse_kind kind, const char *fmt, ...)
{
	struct va_format vaf = { .fmt = fmt };
	va_list args;

	atomic_inc(&seen[kind]);
	va_start(args, fmt);
	vaf.va = &args;
	if (atomic_add_unless(&expected, -1, 0)) {
		pr_info("efmp: announced misuse: %s: %pV\n", kinds[kind], &vaf);
	} else {
		atomic_inc(&unexpected);
		WARN(1, "efmp: %s: %pV\n", kinds[kind], &vaf);
	}
	va_end(args);
}

/*
 * The functions below read and write memory that they must not. They go through
 * volatile pointers, so that the compiler neither warns nor leaves it out.
 */
static struct efbuff *module_buff(void)
{
	return efmp_buff_alloc_sw_with_owner(100, MOXLAB_OWNER_MODULE);
}

static void module_free(struct efbuff *b)
{
	efmp_buff_free_sw_with_owner(b, MOXLAB_OWNER_MODULE);
}

static int commit_overrun(void)
{
	struct efbuff *b = module_buff();
	u32 seq, size;

	if (!b)
		return -ENOMEM;
	if (!efmp_buff_adopt(b, &seq, &size))
		return -EIO;
	*((volatile u8 *)b + size) = 0;
	efmp_buff_free(b);
	return 0;
}

static int commit_after_free(struct moxlab_settings *s)
{
	struct efbuff *b = module_buff();
	u32 quarantine = s->quarantine;

	if (!b)
		return -ENOMEM;
	module_free(b);
	*((volatile u8 *)b + EFBUFF_FRAME) = 0;
	/* Emptying the quarantine detects the write now. */
	s->set = 1;
	s->quarantine = 0;
	efmp_buff_settings(s);
	s->quarantine = quarantine;
	efmp_buff_settings(s);
	return 0;
}

static int commit_leak(void)
{
	if (leaked) {
		module_free(leaked);
		leaked = NULL;
		return 0;
	}
	leaked = module_buff();
	return leaked ? 0 : -ENOMEM;
}

static int commit_locked_send(void)
{
	struct efbuff *b;

	/* Other kernels do not count held locks. */
	if (!IS_ENABLED(CONFIG_PREEMPT_COUNT))
		return -EINVAL;
	b = module_buff();
	if (!b)
		return -ENOMEM;
	b->net_offset = b->mac_offset + ETH_HLEN;
	preempt_disable();
	efmp_output_pkt(b);
	preempt_enable();
	return 0;
}

static int commit_free(enum moxlab_misuse_kind kind)
{
	struct efbuff *b = module_buff();

	if (!b)
		return -ENOMEM;
	if (kind == MOXLAB_MISUSE_WRONG_OWNER)
		efmp_buff_free_sw_with_owner(b, MOXLAB_OWNER_PLATFORM);
	if (kind == MOXLAB_MISUSE_UNKNOWN)
		module_free((struct efbuff *)((u8 *)b + 4));
	module_free(b);
	if (kind == MOXLAB_MISUSE_DOUBLE_FREE)
		module_free(b);
	return 0;
}

static int commit(enum moxlab_misuse_kind kind)
{
	struct moxlab_settings s = { .set = 0 };

	efmp_buff_settings(&s);
	switch (kind) {
	case MOXLAB_MISUSE_DOUBLE_FREE:
	case MOXLAB_MISUSE_WRONG_OWNER:
	case MOXLAB_MISUSE_UNKNOWN:
		return commit_free(kind);
	/* Without guard and poison these two would hurt the kernel unseen. */
	case MOXLAB_MISUSE_OVERRUN:
		return s.redzone ? commit_overrun() : -EINVAL;
	case MOXLAB_MISUSE_AFTER_FREE:
		return s.hold_memory ? commit_after_free(&s) : -EINVAL;
	case MOXLAB_MISUSE_LEAK:
		return commit_leak();
	case MOXLAB_MISUSE_CONTEXT:
		return commit_locked_send();
	case MOXLAB_MISUSE_WITHDRAWN:
		return efmp_serv_call_late();
	default:
		return -EINVAL;
	}
}

int efmp_misuse_verb(struct moxlab_misuse *m)
{
	int i, err = 0;

	if (!m->query)
		atomic_set(&expected, min_t(u32, m->expect, INT_MAX));
	if (m->commit) {
		if (m->commit > MOXLAB_MISUSE_COUNT)
			return -EINVAL;
		mutex_lock(&commit_lock);
		err = commit(m->commit - 1);
		mutex_unlock(&commit_lock);
	}
	m->left = atomic_read(&expected);
	m->unexpected = atomic_read(&unexpected);
	for (i = 0; i < MOXLAB_MISUSE_COUNT; i++)
		m->seen[i] = atomic_read(&seen[i]);
	return err;
}
