/* SPDX-License-Identifier: MIT */
/*
 * Which descriptors of this process are packet sockets with a relay.
 *
 * The table is a hint of this process: the state of a socket is its relay's. So processes that come by a descriptor
 * through fork, exec or SCM_RIGHTS need to know no more than that it is one. A child of vfork leaves the table, which is
 * its parent's, as it is (owner.h).
 */
#ifndef MOX_PRELOAD_TABLE_H
#define MOX_PRELOAD_TABLE_H

#include <stdbool.h>
#include <stdint.h>

/** Descriptors from this number on cannot be packet sockets. */
#define MOX_MAX_DESCRIPTORS 16384
/** Most descriptors of packet sockets in a process. */
#define MOX_MAX_SOCKETS 256

struct mox_socket {
	bool ours;
	bool stamped; /* a frame has been read */
	int64_t seconds;
	uint32_t nanoseconds;
};

extern struct mox_socket mox_sockets[MOX_MAX_DESCRIPTORS];

static inline bool mox_is_ours(int fd)
{
	return fd >= 0 && fd < MOX_MAX_DESCRIPTORS &&
	       __atomic_load_n(&mox_sockets[fd].ours, __ATOMIC_RELAXED);
}

/** Enters a descriptor. False with EMFILE when a limit is reached, which is said on standard error. */
bool mox_mark(int fd);
/** Takes a descriptor out; true if it was in. */
bool mox_unmark(int fd);
/** Takes out all from first to last. */
void mox_unmark_range(unsigned int first, unsigned int last);
/** Enters a descriptor that came from elsewhere if it is a packet socket with a relay. Keeps errno. */
void mox_adopt(int fd);

#endif
