/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/owner.h"

#include "preload/real.h"

#include <errno.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#ifndef MADV_WIPEONFORK
#define MADV_WIPEONFORK 18
#endif

static pid_t plain;
/*
 * The process that the memory belongs to; 0: one that was forked without the C library, which runs no handlers then.
 * The kernel clears the page in such a process, and in no other.
 */
static pid_t *owner = &plain;

static pid_t own_pid(void)
{
	return (pid_t)syscall(SYS_getpid);
}

static void note_owner(void)
{
	__atomic_store_n(owner, own_pid(), __ATOMIC_RELAXED);
}

bool mox_owns_memory(void)
{
	const pid_t noted = __atomic_load_n(owner, __ATOMIC_RELAXED);

	if (noted)
		return noted == own_pid();
	note_owner();
	return true;
}

__attribute__((constructor)) static void begin(void)
{
	const int error = errno;
	const size_t size = (size_t)sysconf(_SC_PAGESIZE);
	void *page = REAL(mmap)(NULL, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1,
				0);

	if (page != MAP_FAILED && madvise(page, size, MADV_WIPEONFORK) == 0)
		owner = page;
	note_owner();
	pthread_atfork(NULL, NULL, note_owner);
	errno = error;
}
