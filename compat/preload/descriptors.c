/* SPDX-License-Identifier: MIT */
/*
 * Calls that make and unmake descriptors: they keep the table of packet sockets up to date.
 *
 * A number leaves the table before its descriptor is closed, since another thread may get the number for a file the
 * moment it is free.
 */
#define _GNU_SOURCE
#include "preload/real.h"
#include "preload/table.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

MOX_EXPORT int close(int fd)
{
	mox_unmark(fd);
	return REAL(close)(fd);
}

MOX_EXPORT int close_range(unsigned int first, unsigned int last, int flags)
{
	if (!((unsigned int)flags & CLOSE_RANGE_CLOEXEC))
		mox_unmark_range(first, last);
	return REAL(close_range)(first, last, flags);
}

MOX_EXPORT void closefrom(int first)
{
	mox_unmark_range(first < 0 ? 0 : (unsigned int)first, UINT_MAX);
	REAL(closefrom)(first);
}

/* A copy of a descriptor under a number that the kernel has chosen. */
static int copied(int from, int to)
{
	if (to >= 0 && mox_is_ours(from) && !mox_mark(to)) {
		const int error = errno;

		syscall(SYS_close, to);
		errno = error;
		return -1;
	}
	return to;
}

/* A copy under a number that the program has chosen: result is what the call returned, was whether it was in the table. */
static int copied_over(int from, int to, int result, bool was)
{
	if (result < 0) {
		if (was)
			mox_mark(to);
		return result;
	}
	return copied(from, result);
}

MOX_EXPORT int dup(int fd)
{
	return copied(fd, REAL(dup)(fd));
}

MOX_EXPORT int dup2(int from, int to)
{
	bool was;

	if (from == to)
		return REAL(dup2)(from, to);
	was = mox_unmark(to);
	return copied_over(from, to, REAL(dup2)(from, to), was);
}

MOX_EXPORT int dup3(int from, int to, int flags)
{
	bool was;

	if (from == to)
		return REAL(dup3)(from, to, flags);
	was = mox_unmark(to);
	return copied_over(from, to, REAL(dup3)(from, to, flags), was);
}

static bool copies(int command)
{
	return command == F_DUPFD || command == F_DUPFD_CLOEXEC;
}

#define DEFINE_FCNTL(name)                                              \
	MOX_EXPORT int name(int fd, int command, ...)                   \
	{                                                               \
		va_list arguments;                                      \
		void *argument;                                         \
		int result;                                             \
                                                                        \
		va_start(arguments, command);                           \
		argument = va_arg(arguments, void *);                   \
		va_end(arguments);                                      \
		result = REAL_LIKE(name, fcntl)(fd, command, argument); \
		return copies(command) ? copied(fd, result) : result;   \
	}

DEFINE_FCNTL(fcntl)
DEFINE_FCNTL(fcntl64)
DEFINE_FCNTL(__fcntl_time64)
