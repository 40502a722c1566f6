/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/ask.h"

#include "preload/say.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

/*
 * System calls and not the C library's functions of the same names: those are this library's own, and cancellation
 * points, where a thread would leave descriptors open.
 */
static void close_quietly(int fd)
{
	const int error = errno;

	syscall(SYS_close, fd);
	errno = error;
}

static int64_t now_ms(void)
{
	struct timespec now;

	clock_gettime(CLOCK_MONOTONIC, &now);
	return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Waits for an event until the deadline. Returns 0, or -1 with ETIMEDOUT. */
static int wait_for(int fd, short events, int64_t deadline)
{
	struct pollfd wait = { fd, events, 0 };

	for (;;) {
		const int64_t left = deadline - now_ms();
		const int ready = left > 0 ? poll(&wait, 1, (int)left) : 0;

		if (ready > 0)
			return 0;
		if (ready == 0) {
			errno = ETIMEDOUT;
			return -1;
		}
		if (errno != EINTR)
			return -1;
	}
}

int mox_take_reply(int fd, struct mox_wire_reply *reply, struct mox_reply_data *data)
{
	const int64_t deadline = now_ms() + MOX_WIRE_REPLY_MS;
	struct iovec parts[] = { { reply, sizeof(*reply) }, { data->bytes, MOX_WIRE_MAX_REPLY } };
	struct msghdr message;
	ssize_t length;

	memset(&message, 0, sizeof(message));
	message.msg_iov = parts;
	message.msg_iovlen = 2;
	for (;;) {
		if (wait_for(fd, POLLIN, deadline) != 0)
			return -1;
		length = syscall(SYS_recvmsg, fd, &message, MSG_DONTWAIT);
		if (length >= 0)
			break;
		if (errno != EINTR && errno != EAGAIN)
			return -1;
	}
	if (length < (ssize_t)sizeof(*reply) || reply->magic != MOX_WIRE_MAGIC) {
		errno = ENETDOWN;
		return -1;
	}
	data->length = (size_t)length - sizeof(*reply);
	data->bytes[data->length] = 0;
	return 0;
}

/* Sends the request with the descriptor for its reply. Returns 0, or -1 with errno. */
static int send_request(int fd, const struct mox_wire_request *request, const struct iovec *parts,
			size_t count, int reply_to)
{
	const int64_t deadline = now_ms() + MOX_WIRE_REPLY_MS;
	struct iovec all[1 + MOX_MAX_PARTS];
	union {
		struct cmsghdr head;
		char room[CMSG_SPACE(sizeof(int))];
	} control;
	struct msghdr message;

	memset(&control, 0, sizeof(control));
	control.head.cmsg_level = SOL_SOCKET;
	control.head.cmsg_type = SCM_RIGHTS;
	control.head.cmsg_len = CMSG_LEN(sizeof(int));
	memcpy(CMSG_DATA(&control.head), &reply_to, sizeof(reply_to));

	all[0].iov_base = (void *)request;
	all[0].iov_len = sizeof(*request);
	if (count)
		memcpy(all + 1, parts, count * sizeof(*parts));
	memset(&message, 0, sizeof(message));
	message.msg_iov = all;
	message.msg_iovlen = 1 + count;
	message.msg_control = &control;
	message.msg_controllen = sizeof(control);

	while (syscall(SYS_sendmsg, fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
		if (errno == EAGAIN && wait_for(fd, POLLOUT, deadline) == 0)
			continue;
		if (errno == EINTR)
			continue;
		if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)
			errno = ENETDOWN;
		return -1;
	}
	return 0;
}

static int ask(int fd, struct mox_wire_request *request, const struct iovec *parts, size_t count,
	       struct mox_reply_data *data)
{
	struct mox_wire_reply reply;
	int pair[2], result;

	if (syscall(SYS_socketpair, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
		return -1;
	result = send_request(fd, request, parts, count, pair[1]);
	close_quietly(pair[1]);
	if (result == 0)
		result = mox_take_reply(pair[0], &reply, data);
	close_quietly(pair[0]);
	if (result != 0)
		return -1;
	if (reply.flags & MOX_WIRE_TEXT)
		mox_say("%s", (const char *)data->bytes);
	if (reply.error) {
		errno = reply.error;
		return -1;
	}
	return 0;
}

int mox_ask(int fd, struct mox_wire_request *request, const struct iovec *parts, size_t count,
	    struct mox_reply_data *reply)
{
	struct mox_reply_data unused;
	int state, result;
	size_t length = 0, i;

	if (count > MOX_MAX_PARTS) {
		errno = EMSGSIZE;
		return -1;
	}
	for (i = 0; i < count; ++i)
		length += parts[i].iov_len;
	request->magic = MOX_WIRE_MAGIC;
	request->length = (uint32_t)length;

	pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
	result = ask(fd, request, parts, count, reply ? reply : &unused);
	pthread_setcancelstate(state, &state);
	return result;
}
