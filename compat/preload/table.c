/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/table.h"

#include "preload/owner.h"
#include "preload/ring.h"
#include "preload/say.h"
#include "wire.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

struct mox_socket mox_sockets[MOX_MAX_DESCRIPTORS];
static int in_use;

bool mox_mark(int fd)
{
	if (fd >= MOX_MAX_DESCRIPTORS) {
		mox_say("descriptor %d cannot be a packet socket: %d is the limit", fd,
			MOX_MAX_DESCRIPTORS);
		errno = EMFILE;
		return false;
	}
	if (mox_is_ours(fd) || !mox_owns_memory())
		return true;
	if (__atomic_fetch_add(&in_use, 1, __ATOMIC_RELAXED) >= MOX_MAX_SOCKETS) {
		__atomic_fetch_sub(&in_use, 1, __ATOMIC_RELAXED);
		mox_say("a process has at most %d packet sockets", MOX_MAX_SOCKETS);
		errno = EMFILE;
		return false;
	}
	mox_sockets[fd].stamped = false;
	__atomic_store_n(&mox_sockets[fd].ours, true, __ATOMIC_RELEASE);
	return true;
}

bool mox_unmark(int fd)
{
	if (!mox_is_ours(fd) || !mox_owns_memory() ||
	    !__atomic_exchange_n(&mox_sockets[fd].ours, false, __ATOMIC_RELAXED))
		return false;
	__atomic_fetch_sub(&in_use, 1, __ATOMIC_RELAXED);
	mox_ring_drop(fd);
	return true;
}

void mox_unmark_range(unsigned int first, unsigned int last)
{
	if (last >= MOX_MAX_DESCRIPTORS)
		last = MOX_MAX_DESCRIPTORS - 1;
	for (; first <= last; ++first)
		mox_unmark((int)first);
}

void mox_adopt(int fd)
{
	const int error = errno;
	struct sockaddr_un peer;
	socklen_t length = sizeof(peer);

	memset(&peer, 0, sizeof(peer));
	if (fd >= 0 && getpeername(fd, (struct sockaddr *)&peer, &length) == 0 &&
	    peer.sun_family == AF_UNIX && !peer.sun_path[0] &&
	    strncmp(peer.sun_path + 1, MOX_WIRE_NAME, strlen(MOX_WIRE_NAME)) == 0)
		mox_mark(fd);
	errno = error;
}

/* What a program inherits through exec. */
__attribute__((constructor)) static void adopt_inherited(void)
{
	const int error = errno;
	DIR *directory = opendir("/proc/self/fd");
	struct dirent *entry;

	while (directory && (entry = readdir(directory))) {
		if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9')
			mox_adopt(atoi(entry->d_name));
	}
	if (directory)
		closedir(directory);
	errno = error;
}
