/* SPDX-License-Identifier: MIT */
/*
 * Receive rings (PACKET_RX_RING, TPACKET_V2), which libpcap has needed since 1.10.
 *
 * The ring is memory of the process. What the kernel does when a frame comes is done here when the program waits:
 * poll moves the frames that wait in the descriptor into the ring. So a ring saves no copies; it serves programs that
 * read frames in no other way.
 */
#ifndef MOX_PRELOAD_RING_H
#define MOX_PRELOAD_RING_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/socket.h>

/** Largest ring in bytes: ENOMEM, upon which programs try smaller ones. */
#define MOX_MAX_RING (64u << 20)
/** Most reserved bytes before the data of a frame (PACKET_RESERVE). */
#define MOX_MAX_RESERVE 4096
/** Most descriptors of one poll that are looked at for rings; the others of the call are polled without. */
#define MOX_MAX_POLLED 1024

/**
 * Options of rings. True when the option is one of them, with the result of the call, and errno, in *result.
 */
bool mox_ring_set(int fd, int option, const void *value, socklen_t length, int *result);
bool mox_ring_get(int fd, int option, void *value, socklen_t *length, int *result);

/** Unmaps the ring of a descriptor that is closed, if it has one. */
void mox_ring_drop(int fd);

#endif
