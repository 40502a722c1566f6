/* SPDX-License-Identifier: MIT */
/*
 * Sending: a request to the relay, whose reply has the errno of the capture socket's sendmsg.
 */
#define _GNU_SOURCE
#include "preload/ask.h"
#include "preload/real.h"
#include "preload/table.h"
#include "wire.h"

#include <errno.h>
#include <linux/if_packet.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static ssize_t send_parts(int fd, const void *address, size_t address_length,
			  const struct iovec *parts, size_t count)
{
	struct mox_wire_request request = { .kind = MOX_WIRE_SEND };
	struct iovec all[MOX_MAX_PARTS];
	size_t used = 0, length = 0, i;

	if (address && address_length) {
		if (address_length < sizeof(struct sockaddr_ll) ||
		    address_length > sizeof(struct sockaddr_storage)) {
			errno = EINVAL;
			return -1;
		}
		request.address_length = (uint32_t)address_length;
		all[used].iov_base = (void *)address;
		all[used++].iov_len = address_length;
	}
	if (count > MOX_MAX_PARTS - used) {
		errno = EMSGSIZE;
		return -1;
	}
	for (i = 0; i < count; ++i) {
		length += parts[i].iov_len;
		if (length > MOX_WIRE_MAX_FRAME) {
			errno = EMSGSIZE;
			return -1;
		}
		all[used++] = parts[i];
	}
	return mox_ask(fd, &request, all, used, NULL) == 0 ? (ssize_t)length : -1;
}

static ssize_t send_message(int fd, const struct msghdr *message)
{
	return send_parts(fd, message->msg_name, message->msg_namelen, message->msg_iov,
			  message->msg_iovlen);
}

MOX_EXPORT ssize_t sendmsg(int fd, const struct msghdr *message, int flags)
{
	if (mox_is_ours(fd))
		return send_message(fd, message);
	return REAL(sendmsg)(fd, message, flags);
}

MOX_EXPORT ssize_t __sendmsg64(int fd, const struct msghdr *message, int flags)
{
	if (mox_is_ours(fd))
		return send_message(fd, message);
	return REAL_LIKE(__sendmsg64, sendmsg)(fd, message, flags);
}

MOX_EXPORT ssize_t sendto(int fd, const void *data, size_t size, int flags,
			  const struct sockaddr *address, socklen_t length)
{
	const struct iovec part = { (void *)data, size };

	if (mox_is_ours(fd))
		return send_parts(fd, address, length, &part, 1);
	return REAL(sendto)(fd, data, size, flags, address, length);
}

MOX_EXPORT ssize_t send(int fd, const void *data, size_t size, int flags)
{
	const struct iovec part = { (void *)data, size };

	if (mox_is_ours(fd))
		return send_parts(fd, NULL, 0, &part, 1);
	return REAL(send)(fd, data, size, flags);
}

MOX_EXPORT ssize_t write(int fd, const void *data, size_t size)
{
	const struct iovec part = { (void *)data, size };

	if (mox_is_ours(fd))
		return send_parts(fd, NULL, 0, &part, 1);
	return REAL(write)(fd, data, size);
}

MOX_EXPORT ssize_t writev(int fd, const struct iovec *parts, int count)
{
	if (mox_is_ours(fd))
		return send_parts(fd, NULL, 0, parts,
				  count < 0 ? MOX_MAX_PARTS + 1 : (size_t)count);
	return REAL(writev)(fd, parts, count);
}

static int send_several(int fd, struct mmsghdr *messages, unsigned int count)
{
	unsigned int i;

	for (i = 0; i < count; ++i) {
		const ssize_t sent = send_message(fd, &messages[i].msg_hdr);

		if (sent < 0)
			return i ? (int)i : -1;
		messages[i].msg_len = (unsigned int)sent;
	}
	return (int)i;
}

MOX_EXPORT int sendmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags)
{
	if (mox_is_ours(fd))
		return send_several(fd, messages, count);
	return REAL(sendmmsg)(fd, messages, count, flags);
}

MOX_EXPORT int __sendmmsg64(int fd, struct mmsghdr *messages, unsigned int count, int flags)
{
	if (mox_is_ours(fd))
		return send_several(fd, messages, count);
	return REAL_LIKE(__sendmmsg64, sendmmsg)(fd, messages, count, flags);
}
