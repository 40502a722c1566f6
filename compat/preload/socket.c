/* SPDX-License-Identifier: MIT */
/*
 * Opening, naming and configuring a packet socket.
 */
#define _GNU_SOURCE
#include "preload/ask.h"
#include "preload/real.h"
#include "preload/ring.h"
#include "preload/start.h"
#include "preload/table.h"
#include "wire.h"

#include <asm/socket.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/sockios.h>
#include <stdarg.h>
#include <stdbool.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Longest value of an option other than a filter. */
#define MAX_OPTION 256
/* Longest address of bind. */
#define MAX_ADDRESS 128

MOX_EXPORT int socket(int family, int type, int protocol)
{
	const int kind = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
	int fd;

	if (family != AF_PACKET || (kind != SOCK_RAW && kind != SOCK_DGRAM))
		return REAL(socket)(family, type, protocol);
	switch (mox_start_relay(type, protocol, &fd)) {
	case MOX_STARTED:
		break;
	case MOX_LEFT_NATIVE:
		return REAL(socket)(family, type, protocol);
	default:
		return -1;
	}
	if (!mox_mark(fd)) {
		const int error = errno;

		syscall(SYS_close, fd);
		errno = error;
		return -1;
	}
	return fd;
}

MOX_EXPORT int bind(int fd, const struct sockaddr *address, socklen_t length)
{
	struct mox_wire_request request = { .kind = MOX_WIRE_BIND };
	const struct iovec part = { (void *)address, length };

	if (!mox_is_ours(fd))
		return REAL(bind)(fd, address, length);
	if (length > MAX_ADDRESS) {
		errno = EINVAL;
		return -1;
	}
	return mox_ask(fd, &request, &part, 1, NULL);
}

/* Copies a reply the way the kernel does: as much as there is room for. */
static void copy_out(const struct mox_reply_data *reply, void *to, socklen_t *length, bool whole)
{
	const socklen_t size = (socklen_t)reply->length;

	memcpy(to, reply->bytes, *length < size ? *length : size);
	if (whole || size < *length)
		*length = size;
}

MOX_EXPORT int getsockname(int fd, struct sockaddr *address, socklen_t *length)
{
	struct mox_wire_request request = { .kind = MOX_WIRE_NAME_OF };
	struct mox_reply_data reply;

	if (!mox_is_ours(fd))
		return REAL(getsockname)(fd, address, length);
	if (mox_ask(fd, &request, NULL, 0, &reply) != 0)
		return -1;
	copy_out(&reply, address, length, true);
	return 0;
}

/* --- options ---------------------------------------------------------------------------------------------------- */

/* The options that are the relay's; others are those of any descriptor, such as SO_RCVTIMEO and SO_ERROR. */
static bool is_relays(int level, int option, bool set)
{
	static const int both[] = { SO_RCVBUF,          SO_TIMESTAMP_OLD,   SO_TIMESTAMP_NEW,
				    SO_TIMESTAMPNS_OLD, SO_TIMESTAMPNS_NEW, SO_LOCK_FILTER };
	static const int only_set[] = { SO_ATTACH_FILTER,    SO_DETACH_FILTER,   SO_ATTACH_BPF,
					SO_RCVBUFFORCE,      SO_SNDBUF,          SO_SNDBUFFORCE,
					SO_TIMESTAMPING_OLD, SO_TIMESTAMPING_NEW };
	static const int only_get[] = { SO_TYPE, SO_DOMAIN, SO_PROTOCOL, SO_GET_FILTER };
	size_t i;

	if (level != SOL_SOCKET)
		return true;
	for (i = 0; i < sizeof(both) / sizeof(both[0]); ++i) {
		if (both[i] == option)
			return true;
	}
	if (set) {
		for (i = 0; i < sizeof(only_set) / sizeof(only_set[0]); ++i) {
			if (only_set[i] == option)
				return true;
		}
		return false;
	}
	for (i = 0; i < sizeof(only_get) / sizeof(only_get[0]); ++i) {
		if (only_get[i] == option)
			return true;
	}
	return false;
}

static int set_option(int fd, int level, int option, const void *value, socklen_t length)
{
	struct mox_wire_request request = { .kind = MOX_WIRE_SET_OPTION,
					    .level = level,
					    .option = option };
	struct iovec part = { (void *)value, length };
	int result;

	if (level == SOL_PACKET && value && mox_ring_set(fd, option, value, length, &result))
		return result;
	if (level == SOL_SOCKET && option == SO_ATTACH_FILTER) {
		const struct sock_fprog *program = value;

		if (length != sizeof(*program) || program->len == 0 ||
		    program->len > BPF_MAXINSNS) {
			errno = EINVAL;
			return -1;
		}
		part.iov_base = program->filter;
		part.iov_len = program->len * sizeof(program->filter[0]);
	} else if (length > MAX_OPTION) {
		part.iov_len = MAX_OPTION; /* what is longer is not read by any option */
	}
	return mox_ask(fd, &request, &part, value ? 1 : 0, NULL);
}

static int get_option(int fd, int level, int option, void *value, socklen_t *length)
{
	struct mox_wire_request request = { .kind = MOX_WIRE_GET_OPTION,
					    .level = level,
					    .option = option };
	struct mox_reply_data reply;
	int result;

	if ((int)*length < 0) {
		errno = EINVAL;
		return -1;
	}
	if (level == SOL_PACKET && mox_ring_get(fd, option, value, length, &result))
		return result;
	if (mox_ask(fd, &request, NULL, 0, &reply) != 0)
		return -1;
	copy_out(&reply, value, length, false);
	return 0;
}

MOX_EXPORT int setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
	if (mox_is_ours(fd) && is_relays(level, option, true))
		return set_option(fd, level, option, value, length);
	return REAL(setsockopt)(fd, level, option, value, length);
}

MOX_EXPORT int getsockopt(int fd, int level, int option, void *value, socklen_t *length)
{
	if (mox_is_ours(fd) && is_relays(level, option, false))
		return get_option(fd, level, option, value, length);
	return REAL(getsockopt)(fd, level, option, value, length);
}

/* What 32-bit programs with a 64-bit time_t call. */

MOX_EXPORT int __setsockopt64(int fd, int level, int option, const void *value, socklen_t length)
{
	if (mox_is_ours(fd) && is_relays(level, option, true))
		return set_option(fd, level, option, value, length);
	return REAL_LIKE(__setsockopt64, setsockopt)(fd, level, option, value, length);
}

MOX_EXPORT int __getsockopt64(int fd, int level, int option, void *value, socklen_t *length)
{
	if (mox_is_ours(fd) && is_relays(level, option, false))
		return get_option(fd, level, option, value, length);
	return REAL_LIKE(__getsockopt64, getsockopt)(fd, level, option, value, length);
}

/* --- ioctl ------------------------------------------------------------------------------------------------------ */

/* The requests for the time of the last frame, with the two widths of its numbers. */
#define STAMP_OLD 0x8906
#define STAMP_NS_OLD 0x8907
#define STAMP_NEW _IOR(0x89, 0x06, int64_t[2])
#define STAMP_NS_NEW _IOR(0x89, 0x07, int64_t[2])

static int last_stamp(int fd, bool wide, bool nanoseconds, void *to)
{
	const struct mox_socket *from = &mox_sockets[fd];
	const uint32_t fraction = nanoseconds ? from->nanoseconds : from->nanoseconds / 1000;
	const int64_t wide_parts[2] = { from->seconds, fraction };
	const long parts[2] = { (long)from->seconds, (long)fraction };

	if (!from->stamped) {
		errno = ENOENT;
		return -1;
	}
	if (wide)
		memcpy(to, wide_parts, sizeof(wide_parts));
	else
		memcpy(to, parts, sizeof(parts));
	return 0;
}

/* The length of the next frame, 0 when there is none. */
static int next_length(int fd, int *length)
{
	struct msghdr message;
	ssize_t whole;

	memset(&message, 0, sizeof(message));
	whole = REAL(recvmsg)(fd, &message, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC);
	*length = whole > (ssize_t)sizeof(struct mox_wire_frame)
			  ? (int)(whole - (ssize_t)sizeof(struct mox_wire_frame))
			  : 0;
	return 0;
}

/* Requests for an interface's IP addresses, which only sockets of that family answer. */
static bool is_inet_request(unsigned long request)
{
	return request >= SIOCGIFADDR && request <= SIOCSIFNETMASK;
}

static int inet_request(unsigned long request, void *argument)
{
	const int fd = REAL(socket)(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	int result, error;

	if (fd < 0)
		return -1;
	result = (int)syscall(SYS_ioctl, fd, request, argument);
	error = errno;
	syscall(SYS_close, fd);
	errno = error;
	return result;
}

/* True when the request is answered here, with the result in *result. */
static bool own_request(int fd, unsigned long request, void *argument, int *result)
{
	switch (request) {
	case STAMP_OLD:
		*result = last_stamp(fd, false, false, argument);
		return true;
	case STAMP_NS_OLD:
		*result = last_stamp(fd, false, true, argument);
		return true;
	case STAMP_NEW:
		*result = last_stamp(fd, true, false, argument);
		return true;
	case STAMP_NS_NEW:
		*result = last_stamp(fd, true, true, argument);
		return true;
	case SIOCINQ:
		*result = next_length(fd, argument);
		return true;
	case SIOCOUTQ:
		*(int *)argument = 0;
		*result = 0;
		return true;
	default:
		if (!is_inet_request(request))
			return false;
		*result = inet_request(request, argument);
		return true;
	}
}

MOX_EXPORT int ioctl(int fd, unsigned long request, ...)
{
	va_list arguments;
	void *argument;
	int result;

	va_start(arguments, request);
	argument = va_arg(arguments, void *);
	va_end(arguments);
	if (mox_is_ours(fd) && own_request(fd, request, argument, &result))
		return result;
	return REAL(ioctl)(fd, request, argument);
}

MOX_EXPORT int __ioctl_time64(int fd, unsigned long request, ...)
{
	va_list arguments;
	void *argument;
	int result;

	va_start(arguments, request);
	argument = va_arg(arguments, void *);
	va_end(arguments);
	if (mox_is_ours(fd) && own_request(fd, request, argument, &result))
		return result;
	return REAL_LIKE(__ioctl_time64, ioctl)(fd, request, argument);
}
