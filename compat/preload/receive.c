/* SPDX-License-Identifier: MIT */
/*
 * Receiving: each message on the program's descriptor is a mox_wire_frame and the frame. The head is read aside, the
 * frame straight into the program's buffers.
 */
#define _GNU_SOURCE
#include "preload/ask.h"
#include "preload/real.h"
#include "preload/receive.h"
#include "preload/say.h"
#include "preload/table.h"
#include "wire.h"

#include <asm/socket.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <stdbool.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

/* What the kernel's packet sockets take, and what its system calls take off before they see it. */
#define KNOWN_FLAGS \
	(MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC | MSG_ERRQUEUE | MSG_CMSG_CLOEXEC | MSG_WAITFORONE)

extern void __chk_fail(void) __attribute__((noreturn));

static size_t size_of(const struct iovec *parts, size_t count)
{
	size_t size = 0;

	while (count--)
		size += parts++->iov_len;
	return size;
}

/* A control message in the program's buffer; MSG_CTRUNC when there is no room for it, as the kernel does. */
static void put_control(struct msghdr *message, size_t *used, int level, int type, const void *data,
			size_t length)
{
	struct cmsghdr head;
	unsigned char *to = (unsigned char *)message->msg_control + *used;

	if (*used + CMSG_LEN(length) > message->msg_controllen) {
		message->msg_flags |= MSG_CTRUNC;
		return;
	}
	memset(&head, 0, sizeof(head));
	head.cmsg_level = level;
	head.cmsg_type = type;
	head.cmsg_len = CMSG_LEN(length);
	memcpy(to, &head, sizeof(head));
	memcpy(to + CMSG_LEN(0), data, length);
	*used += CMSG_SPACE(length);
	if (*used > message->msg_controllen)
		*used = message->msg_controllen;
}

/* The two numbers of a time, each as wide as the form of the option has it. */
static void put_time(struct msghdr *message, size_t *used, int type, bool wide, int64_t seconds,
		     uint32_t fraction, int count)
{
	const int64_t wide_parts[6] = { seconds, fraction, 0, 0, 0, 0 };
	const long parts[6] = { (long)seconds, (long)fraction, 0, 0, 0, 0 };

	if (wide)
		put_control(message, used, SOL_SOCKET, type, wide_parts,
			    (size_t)count * sizeof(wide_parts[0]));
	else
		put_control(message, used, SOL_SOCKET, type, parts,
			    (size_t)count * sizeof(parts[0]));
}

static void put_controls(struct msghdr *message, const struct mox_wire_frame *head, size_t copied)
{
	const uint32_t flags = head->flags;
	const uint32_t us = head->nanoseconds / 1000, ns = head->nanoseconds;
	size_t used = 0;

	if (!message->msg_control)
		message->msg_controllen = 0;
	if (flags & MOX_WIRE_STAMP_US_OLD)
		put_time(message, &used, SO_TIMESTAMP_OLD, false, head->seconds, us, 2);
	if (flags & MOX_WIRE_STAMP_US_NEW)
		put_time(message, &used, SO_TIMESTAMP_NEW, true, head->seconds, us, 2);
	if (flags & MOX_WIRE_STAMP_NS_OLD)
		put_time(message, &used, SO_TIMESTAMPNS_OLD, false, head->seconds, ns, 2);
	if (flags & MOX_WIRE_STAMP_NS_NEW)
		put_time(message, &used, SO_TIMESTAMPNS_NEW, true, head->seconds, ns, 2);
	if (flags & MOX_WIRE_STAMPING_OLD)
		put_time(message, &used, SO_TIMESTAMPING_OLD, false, head->seconds, ns, 6);
	if (flags & MOX_WIRE_STAMPING_NEW)
		put_time(message, &used, SO_TIMESTAMPING_NEW, true, head->seconds, ns, 6);
	if (flags & MOX_WIRE_AUXDATA) {
		struct tpacket_auxdata aux;

		memset(&aux, 0, sizeof(aux));
		aux.tp_status = head->status;
		aux.tp_len = head->length;
		aux.tp_snaplen = (uint32_t)copied;
		aux.tp_net = head->network;
		aux.tp_vlan_tci = head->vlan_tci;
		aux.tp_vlan_tpid = head->vlan_tpid;
		put_control(message, &used, SOL_PACKET, PACKET_AUXDATA, &aux, sizeof(aux));
	}
	message->msg_controllen = used;
}

static void put_name(struct msghdr *message, const struct mox_wire_frame *head)
{
	struct sockaddr_ll name;

	if (!message->msg_name)
		return;
	memset(&name, 0, sizeof(name));
	name.sll_family = AF_PACKET;
	name.sll_protocol = head->protocol;
	name.sll_ifindex = head->ifindex;
	name.sll_hatype = head->hardware;
	name.sll_pkttype = head->packet;
	name.sll_halen = head->address_length;
	memcpy(name.sll_addr, head->address, sizeof(name.sll_addr));
	memcpy(message->msg_name, &name,
	       message->msg_namelen < sizeof(name) ? message->msg_namelen : sizeof(name));
	message->msg_namelen = sizeof(name);
}

ssize_t mox_receive(int fd, struct msghdr *message, int flags)
{
	const size_t count = message->msg_iovlen;
	const size_t room = count <= MOX_MAX_PARTS ? size_of(message->msg_iov, count) : 0;
	struct iovec parts[1 + MOX_MAX_PARTS];
	struct mox_wire_frame head;
	struct msghdr inner;
	ssize_t length;
	size_t frame, copied;

	if (count > MOX_MAX_PARTS) {
		errno = EMSGSIZE;
		return -1;
	}
	if (flags & ~KNOWN_FLAGS) {
		errno = EINVAL;
		return -1;
	}
	if (flags & MSG_ERRQUEUE) {
		errno = EAGAIN;
		return -1;
	}
	parts[0].iov_base = &head;
	parts[0].iov_len = sizeof(head);
	if (count)
		memcpy(parts + 1, message->msg_iov, count * sizeof(parts[0]));
	memset(&inner, 0, sizeof(inner));
	inner.msg_iov = parts;
	inner.msg_iovlen = 1 + count;
	/* MSG_TRUNC: the result is the whole length, which shows whether the frame was cut. */
	length = REAL(recvmsg)(fd, &inner, (flags & (MSG_PEEK | MSG_DONTWAIT)) | MSG_TRUNC);
	if (length < 0)
		return -1;
	if (length < (ssize_t)sizeof(head) || head.magic != MOX_WIRE_MAGIC) {
		if (length == 0)
			mox_say("the mox-relay of descriptor %d has ended", fd);
		else
			mox_say("descriptor %d received what is no frame", fd);
		errno = ENETDOWN;
		return -1;
	}

	mox_sockets[fd].seconds = head.seconds;
	mox_sockets[fd].nanoseconds = head.nanoseconds;
	mox_sockets[fd].stamped = true;
	frame = (size_t)length - sizeof(head);
	copied = frame < room ? frame : room;
	message->msg_flags = frame > room ? MSG_TRUNC : 0;
	put_name(message, &head);
	put_controls(message, &head, frame);
	return (ssize_t)(flags & MSG_TRUNC ? frame : copied);
}

static ssize_t receive_into(int fd, void *data, size_t size, int flags, struct sockaddr *address,
			    socklen_t *length)
{
	struct iovec part = { data, size };
	struct msghdr message;
	ssize_t received;

	memset(&message, 0, sizeof(message));
	message.msg_iov = &part;
	message.msg_iovlen = 1;
	if (address && length) {
		message.msg_name = address;
		message.msg_namelen = *length;
	}
	received = mox_receive(fd, &message, flags);
	if (received >= 0 && address && length)
		*length = message.msg_namelen;
	return received;
}

/* Descriptors that a message brings may be packet sockets of the process that sent it. */
static void adopt_received(const struct msghdr *message)
{
	struct cmsghdr *each;
	size_t i, count;
	int fd;

	for (each = CMSG_FIRSTHDR(message); each;
	     each = CMSG_NXTHDR((struct msghdr *)message, each)) {
		if (each->cmsg_level != SOL_SOCKET || each->cmsg_type != SCM_RIGHTS ||
		    each->cmsg_len < CMSG_LEN(0))
			continue;
		count = (each->cmsg_len - CMSG_LEN(0)) / sizeof(fd);
		for (i = 0; i < count; ++i) {
			memcpy(&fd, CMSG_DATA(each) + i * sizeof(fd), sizeof(fd));
			mox_adopt(fd);
		}
	}
}

typedef ssize_t recvmsg_function(int fd, struct msghdr *message, int flags);

static ssize_t receive_message(recvmsg_function *real, int fd, struct msghdr *message, int flags)
{
	ssize_t received;

	if (mox_is_ours(fd)) {
		if (!message) {
			errno = EFAULT;
			return -1;
		}
		return mox_receive(fd, message, flags);
	}
	received = real(fd, message, flags);
	if (received >= 0 && message->msg_control && message->msg_controllen)
		adopt_received(message);
	return received;
}

MOX_EXPORT ssize_t recvmsg(int fd, struct msghdr *message, int flags)
{
	return receive_message(REAL(recvmsg), fd, message, flags);
}

/* What 32-bit programs with a 64-bit time_t call. */
MOX_EXPORT ssize_t __recvmsg64(int fd, struct msghdr *message, int flags)
{
	if (mox_is_ours(fd))
		return mox_receive(fd, message, flags);
	return receive_message(REAL_LIKE(__recvmsg64, recvmsg), fd, message, flags);
}

MOX_EXPORT ssize_t recvfrom(int fd, void *data, size_t size, int flags, struct sockaddr *address,
			    socklen_t *length)
{
	if (mox_is_ours(fd))
		return receive_into(fd, data, size, flags, address, length);
	return REAL(recvfrom)(fd, data, size, flags, address, length);
}

MOX_EXPORT ssize_t recv(int fd, void *data, size_t size, int flags)
{
	if (mox_is_ours(fd))
		return receive_into(fd, data, size, flags, NULL, NULL);
	return REAL(recv)(fd, data, size, flags);
}

MOX_EXPORT ssize_t read(int fd, void *data, size_t size)
{
	if (mox_is_ours(fd))
		return receive_into(fd, data, size, 0, NULL, NULL);
	return REAL(read)(fd, data, size);
}

MOX_EXPORT ssize_t readv(int fd, const struct iovec *parts, int count)
{
	struct msghdr message;

	if (!mox_is_ours(fd))
		return REAL(readv)(fd, parts, count);
	memset(&message, 0, sizeof(message));
	message.msg_iov = (struct iovec *)parts;
	message.msg_iovlen = count < 0 ? MOX_MAX_PARTS + 1 : (size_t)count;
	return mox_receive(fd, &message, 0);
}

/* The functions of programs that were built with _FORTIFY_SOURCE. */

MOX_EXPORT ssize_t __recv_chk(int fd, void *data, size_t size, size_t room, int flags)
{
	if (size > room)
		__chk_fail();
	return recv(fd, data, size, flags);
}

MOX_EXPORT ssize_t __recvfrom_chk(int fd, void *data, size_t size, size_t room, int flags,
				  struct sockaddr *address, socklen_t *length)
{
	if (size > room)
		__chk_fail();
	return recvfrom(fd, data, size, flags, address, length);
}

MOX_EXPORT ssize_t __read_chk(int fd, void *data, size_t size, size_t room)
{
	if (size > room)
		__chk_fail();
	return read(fd, data, size);
}

/* --- several messages in one call ------------------------------------------------------------------------------- */

/* As the kernel does: the time is looked at after each message only. */
static int receive_several(int fd, struct mmsghdr *messages, unsigned int count, int flags,
			   bool limited, int64_t seconds, int64_t nanoseconds)
{
	struct timespec begin, now;
	unsigned int i;

	clock_gettime(CLOCK_MONOTONIC, &begin);
	for (i = 0; i < count; ++i) {
		const ssize_t received = mox_receive(fd, &messages[i].msg_hdr,
						     flags & ~MSG_WAITFORONE);

		if (received < 0)
			return i ? (int)i : -1;
		messages[i].msg_len = (unsigned int)received;
		if (flags & MSG_WAITFORONE)
			flags |= MSG_DONTWAIT;
		if (limited) {
			clock_gettime(CLOCK_MONOTONIC, &now);
			if ((int64_t)(now.tv_sec - begin.tv_sec) * 1000000000 + now.tv_nsec -
				    begin.tv_nsec >=
			    seconds * 1000000000 + nanoseconds) {
				++i;
				break;
			}
		}
	}
	return (int)i;
}

MOX_EXPORT int recvmmsg(int fd, struct mmsghdr *messages, unsigned int count, int flags,
			struct timespec *limit)
{
	if (!mox_is_ours(fd))
		return REAL(recvmmsg)(fd, messages, count, flags, limit);
	return receive_several(fd, messages, count, flags, limit, limit ? limit->tv_sec : 0,
			       limit ? limit->tv_nsec : 0);
}

struct wide_timespec {
	int64_t seconds;
	int64_t nanoseconds; /* the upper half is padding on big-endian machines, of which there is none here */
};

MOX_EXPORT int __recvmmsg64(int fd, struct mmsghdr *messages, unsigned int count, int flags,
			    struct wide_timespec *limit)
{
	if (!mox_is_ours(fd))
		return REAL_LIKE(__recvmmsg64, recvmmsg)(fd, messages, count, flags, (void *)limit);
	return receive_several(fd, messages, count, flags, limit, limit ? limit->seconds : 0,
			       limit ? (int32_t)limit->nanoseconds : 0);
}
