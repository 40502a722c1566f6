/* SPDX-License-Identifier: MIT */
/*
 * Whether this process is the one that the table of sockets describes.
 *
 * The child of vfork has descriptors of its own, but shares the memory of its parent, where the table and the rings
 * are. What it closes before it calls exec must not leave the table of its parent.
 */
#ifndef MOX_PRELOAD_OWNER_H
#define MOX_PRELOAD_OWNER_H

#include <stdbool.h>

/** True in a process whose memory is its own; false between vfork and exec. One system call. */
bool mox_owns_memory(void);

#endif
