// SPDX-License-Identifier: GPL-2.0-only
/*
 * memory.c - reading and writing globals of the capture module and of this one by
 * the addresses that /proc/kallsyms gives. So a test turns debug switches that
 * have no other way, reads counters that no report shows, and puts a drop service
 * into the capture module's pointers.
 */
#include <linux/kallsyms.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include "efmp.h"

/* Only these two modules: a slip in a test must not write into the kernel. */
bool efmp_memory_allowed(u64 address)
{
	char name[KSYM_SYMBOL_LEN];

	if (address != (unsigned long)address)
		return false;
	sprint_symbol(name, (unsigned long)address); /* "symbol+0x0/0x10 [module]" */
	return strstr(name, "[mox_ef_socket]") || strstr(name, "[efmp]");
}

/* A word that others read without a lock changes at once. */
static void put(void *at, const u8 *bytes, u32 length)
{
	if (length == sizeof(u32) && IS_ALIGNED((unsigned long)at, sizeof(u32))) {
		u32 word;

		memcpy(&word, bytes, sizeof(word));
		WRITE_ONCE(*(u32 *)at, word);
	} else {
		memcpy(at, bytes, length);
	}
}

int efmp_memory(struct moxlab_memory *m)
{
	void *at = (void *)(unsigned long)m->address;

	if (!m->length || m->length > sizeof(m->bytes) || m->write > 1)
		return -EINVAL;
	if (!efmp_memory_allowed(m->address) || !efmp_memory_allowed(m->address + m->length - 1))
		return -ENOENT;
	if (m->write)
		put(at, m->bytes, m->length);
	else
		memcpy(m->bytes, at, m->length);
	return 0;
}

/* What a test puts into pkt_rnfp [0] and pkt_rnfp_wlan [1]. Found by name. */
int moxlab_rnfp_result[2];
u32 moxlab_rnfp_calls[2];

int moxlab_rnfp(void *efbuff)
{
	moxlab_rnfp_calls[0]++;
	return READ_ONCE(moxlab_rnfp_result[0]);
}

int moxlab_rnfp_wlan(void *efbuff)
{
	moxlab_rnfp_calls[1]++;
	return READ_ONCE(moxlab_rnfp_result[1]);
}
