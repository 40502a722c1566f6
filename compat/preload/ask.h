/* SPDX-License-Identifier: MIT */
/*
 * Requests of a program to the relay of a socket.
 */
#ifndef MOX_PRELOAD_ASK_H
#define MOX_PRELOAD_ASK_H

#include "wire.h"

#include <stddef.h>
#include <sys/uio.h>

/** Most parts of the data of a request, and of the buffers of a receive. */
#define MOX_MAX_PARTS 64

/** Room for a reply's data, and how much of it came. */
struct mox_reply_data {
	unsigned char bytes[MOX_WIRE_MAX_REPLY + 1];
	size_t length;
};

/**
 * Sends a request with its data and waits for the reply. magic and length of the request are filled in here. reply may
 * be null. Returns 0, or -1 with errno: the relay's, ENETDOWN when there is no relay any more, ETIMEDOUT when it does
 * not answer. A text of the relay goes to standard error. Any thread, and processes that share fd; not a cancellation
 * point.
 */
int mox_ask(int fd, struct mox_wire_request *request, const struct iovec *parts, size_t count,
	    struct mox_reply_data *reply);

/** Receives a reply from fd within MOX_WIRE_REPLY_MS. Returns 0, or -1 with errno (ENETDOWN: no reply will come). */
int mox_take_reply(int fd, struct mox_wire_reply *reply, struct mox_reply_data *data);

#endif
