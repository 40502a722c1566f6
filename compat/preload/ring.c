/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/ring.h"

#include "preload/real.h"
#include "preload/table.h"
#include "wire.h"

#include <errno.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

/* Where the kernel puts the data of a frame: behind the header, the address, and room for a link header. */
#define LINK_HEADER 14u
#define LINK_ROOM 16u

struct ring {
	unsigned char *memory; /* null: none */
	size_t size;
	unsigned int block_size;
	unsigned int frame_size;
	unsigned int frames_per_block;
	unsigned int frames;
	unsigned int next; /* the frame that is filled next */
	unsigned int reserve;
	bool second_version; /* PACKET_VERSION was set to TPACKET_V2 */
	bool cooked;
};

static struct ring rings[MOX_MAX_DESCRIPTORS];
static int in_use;

static bool has_ring(int fd)
{
	return mox_is_ours(fd) && __atomic_load_n(&rings[fd].memory, __ATOMIC_ACQUIRE);
}

static void unmap(struct ring *ring)
{
	const int error = errno;
	unsigned char *memory = __atomic_exchange_n(&ring->memory, NULL, __ATOMIC_ACQ_REL);

	if (memory) {
		munmap(memory, ring->size);
		__atomic_fetch_sub(&in_use, 1, __ATOMIC_RELAXED);
	}
	errno = error;
}

void mox_ring_drop(int fd)
{
	unmap(&rings[fd]);
	memset(&rings[fd], 0, sizeof(rings[fd]));
}

/* --- options ---------------------------------------------------------------------------------------------------- */

static int fail(int error)
{
	errno = error;
	return -1;
}

static int make_ring(int fd, const struct tpacket_req *request)
{
	struct ring *ring = &rings[fd];
	const unsigned int page = (unsigned int)sysconf(_SC_PAGESIZE);
	int kind = 0;
	socklen_t length = sizeof(kind);
	uint64_t size;
	void *memory;

	if (request->tp_block_nr == 0) {
		unmap(ring);
		return request->tp_frame_nr ? fail(EINVAL) : 0;
	}
	if (ring->memory)
		return fail(EBUSY);
	if (!ring->second_version)
		return fail(EINVAL);
	if (request->tp_block_size == 0 || request->tp_block_size % page != 0 ||
	    request->tp_frame_size < TPACKET2_HDRLEN + ring->reserve + LINK_ROOM ||
	    request->tp_frame_size % TPACKET_ALIGNMENT != 0 ||
	    request->tp_frame_size > request->tp_block_size)
		return fail(EINVAL);
	ring->frames_per_block = request->tp_block_size / request->tp_frame_size;
	if ((uint64_t)ring->frames_per_block * request->tp_block_nr != request->tp_frame_nr)
		return fail(EINVAL);
	size = (uint64_t)request->tp_block_size * request->tp_block_nr;
	if (size > MOX_MAX_RING)
		return fail(ENOMEM);
	if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &kind, &length) != 0)
		return -1;
	memory = REAL(mmap)(NULL, (size_t)size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
			    -1, 0);
	if (memory == MAP_FAILED)
		return fail(ENOMEM);
	ring->size = (size_t)size;
	ring->block_size = request->tp_block_size;
	ring->frame_size = request->tp_frame_size;
	ring->frames = request->tp_frame_nr;
	ring->next = 0;
	ring->cooked = kind == SOCK_DGRAM;
	__atomic_fetch_add(&in_use, 1, __ATOMIC_RELAXED);
	__atomic_store_n(&ring->memory, memory, __ATOMIC_RELEASE);
	return 0;
}

bool mox_ring_set(int fd, int option, const void *value, socklen_t length, int *result)
{
	struct ring *ring = &rings[fd];
	struct tpacket_req request;
	unsigned int number = 0;

	switch (option) {
	case PACKET_VERSION:
	case PACKET_RESERVE:
		if (length != sizeof(number)) {
			*result = fail(EINVAL);
			return true;
		}
		memcpy(&number, value, sizeof(number));
		if (ring->memory) {
			*result = fail(EBUSY);
		} else if (option == PACKET_VERSION) {
			ring->second_version = number == TPACKET_V2;
			*result = number == TPACKET_V2 ? 0 : fail(EINVAL);
		} else {
			if (number <= MOX_MAX_RESERVE)
				ring->reserve = number;
			*result = number <= MOX_MAX_RESERVE ? 0 : fail(EINVAL);
		}
		return true;
	case PACKET_RX_RING:
		if (length < sizeof(request)) {
			*result = fail(EINVAL);
			return true;
		}
		memcpy(&request, value, sizeof(request));
		/* A ring of another version is the relay's to refuse, which says so. */
		if (request.tp_block_nr && !ring->second_version)
			return false;
		*result = make_ring(fd, &request);
		return true;
	default:
		return false;
	}
}

bool mox_ring_get(int fd, int option, void *value, socklen_t *length, int *result)
{
	int number;

	switch (option) {
	case PACKET_HDRLEN:
		if (*length < sizeof(number)) {
			*result = fail(EINVAL);
			return true;
		}
		memcpy(&number, value, sizeof(number));
		if (number != TPACKET_V2) {
			*result = fail(EINVAL);
			return true;
		}
		number = sizeof(struct tpacket2_hdr);
		break;
	case PACKET_VERSION:
		number = rings[fd].second_version ? TPACKET_V2 : TPACKET_V1;
		break;
	case PACKET_RESERVE:
		number = (int)rings[fd].reserve;
		break;
	default:
		return false;
	}
	memcpy(value, &number, *length < sizeof(number) ? *length : sizeof(number));
	if (*length > sizeof(number))
		*length = sizeof(number);
	*result = 0;
	return true;
}

/* --- memory ----------------------------------------------------------------------------------------------------- */

/*
 * The program has a mapping of its own of the same pages, which it can unmap at any time. Null when fd has no ring.
 */
static void *map_ring(void *address, size_t size, int flags, int fd, int64_t offset)
{
	const struct ring *ring = &rings[fd];

	if (offset != 0 || size != ring->size || (flags & MAP_FIXED) || address) {
		errno = EINVAL;
		return MAP_FAILED;
	}
	return mremap(ring->memory, 0, size, MREMAP_MAYMOVE);
}

MOX_EXPORT void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
	if (has_ring(fd))
		return map_ring(address, size, flags, fd, offset);
	return REAL(mmap)(address, size, protection, flags, fd, offset);
}

MOX_EXPORT void *mmap64(void *address, size_t size, int protection, int flags, int fd,
			off64_t offset)
{
	if (has_ring(fd))
		return map_ring(address, size, flags, fd, offset);
	return REAL(mmap64)(address, size, protection, flags, fd, offset);
}

/* --- frames ----------------------------------------------------------------------------------------------------- */

static struct tpacket2_hdr *frame_at(const struct ring *ring, unsigned int index)
{
	return (struct tpacket2_hdr *)(ring->memory +
				       (size_t)(index / ring->frames_per_block) * ring->block_size +
				       (size_t)(index % ring->frames_per_block) * ring->frame_size);
}

static uint32_t status_of(const struct tpacket2_hdr *frame)
{
	return __atomic_load_n(&frame->tp_status, __ATOMIC_ACQUIRE);
}

/* Whether the program has a frame that it has not returned: the test of the kernel's poll. */
static bool is_ready(const struct ring *ring)
{
	const unsigned int last = (ring->next ? ring->next : ring->frames) - 1;

	return status_of(frame_at(ring, last)) != TP_STATUS_KERNEL;
}

/* Moves one frame from the descriptor into the ring; false when there is none. */
static bool fill_one(int fd, struct ring *ring)
{
	struct tpacket2_hdr *to = frame_at(ring, ring->next);
	const unsigned int network = TPACKET_ALIGN(TPACKET2_HDRLEN + LINK_ROOM) + ring->reserve;
	const unsigned int data = ring->cooked ? network : network - LINK_HEADER;
	const size_t room = ring->frame_size > data ? ring->frame_size - data : 0;
	struct mox_wire_frame head;
	struct iovec parts[] = { { &head, sizeof(head) }, { (unsigned char *)to + data, room } };
	struct sockaddr_ll address;
	struct msghdr message;
	ssize_t length;
	size_t frame;

	memset(&message, 0, sizeof(message));
	message.msg_iov = parts;
	message.msg_iovlen = 2;
	length = REAL(recvmsg)(fd, &message, MSG_DONTWAIT | MSG_TRUNC);
	if (length < (ssize_t)sizeof(head) || head.magic != MOX_WIRE_MAGIC)
		return false;
	frame = (size_t)length - sizeof(head);

	memset(&address, 0, sizeof(address));
	address.sll_family = AF_PACKET;
	address.sll_protocol = head.protocol;
	address.sll_ifindex = head.ifindex;
	address.sll_hatype = head.hardware;
	address.sll_pkttype = head.packet;
	address.sll_halen = head.address_length;
	memcpy(address.sll_addr, head.address, sizeof(address.sll_addr));
	memcpy((unsigned char *)to + TPACKET_ALIGN(sizeof(*to)), &address, sizeof(address));
	to->tp_len = head.length;
	to->tp_snaplen = (uint32_t)(frame < room ? frame : room);
	to->tp_mac = (uint16_t)data;
	to->tp_net = (uint16_t)(data + head.network);
	to->tp_sec = (uint32_t)head.seconds;
	to->tp_nsec = head.nanoseconds;
	to->tp_vlan_tci = head.vlan_tci;
	to->tp_vlan_tpid = head.vlan_tpid;
	__atomic_store_n(&to->tp_status, head.status | TP_STATUS_USER, __ATOMIC_RELEASE);
	ring->next = ring->next + 1 == ring->frames ? 0 : ring->next + 1;
	return true;
}

/* Fills the ring with what waits, one turn at most. */
static void fill(int fd)
{
	struct ring *ring = &rings[fd];
	unsigned int i;

	for (i = 0; i < ring->frames; ++i) {
		if (status_of(frame_at(ring, ring->next)) != TP_STATUS_KERNEL ||
		    !fill_one(fd, ring))
			return;
	}
}

/* --- poll ------------------------------------------------------------------------------------------------------- */

static bool wants_frames(const struct pollfd *each)
{
	return (each->events & (POLLIN | POLLRDNORM)) && has_ring(each->fd);
}

/* Fills the rings of the set; whether one of them has frames for the program. */
static bool fill_all(const struct pollfd *set, nfds_t count)
{
	const int error = errno;
	bool ready = false;
	nfds_t i;

	for (i = 0; i < count && i < MOX_MAX_POLLED; ++i) {
		if (wants_frames(&set[i])) {
			fill(set[i].fd);
			ready |= is_ready(&rings[set[i].fd]);
		}
	}
	errno = error;
	return ready;
}

/* Makes the answers for rings those of the rings. Returns how many descriptors have an answer. */
static int correct(struct pollfd *set, nfds_t count)
{
	const short frames = POLLIN | POLLRDNORM;
	int answers = 0;
	nfds_t i;

	for (i = 0; i < count; ++i) {
		if (i < MOX_MAX_POLLED && wants_frames(&set[i])) {
			if (is_ready(&rings[set[i].fd]))
				set[i].revents |= (short)(set[i].events & frames);
			else if (!(set[i].revents & (POLLHUP | POLLERR)))
				set[i].revents &= (short)~frames;
		}
		answers += set[i].revents != 0;
	}
	return answers;
}

typedef int poll_call(struct pollfd *set, nfds_t count, const struct timespec *limit,
		      const void *more);

/* Waits until there is an answer or the time is over: a wake-up for a frame that another thread has taken is none. */
static int poll_rings(poll_call *call, struct pollfd *set, nfds_t count,
		      const struct timespec *limit, const void *more)
{
	static const struct timespec none;
	struct timespec end, now, left;
	int result;

	if (limit) {
		clock_gettime(CLOCK_MONOTONIC, &end);
		end.tv_sec += limit->tv_sec;
		end.tv_nsec += limit->tv_nsec;
		if (end.tv_nsec >= 1000000000) {
			end.tv_nsec -= 1000000000;
			++end.tv_sec;
		}
		left = *limit;
	}
	for (;;) {
		const bool ready = fill_all(set, count);

		result = call(set, count, ready ? &none : limit ? &left : NULL, more);
		if (result < 0)
			return result;
		fill_all(set, count);
		result = correct(set, count);
		if (result > 0)
			return result;
		if (limit) {
			clock_gettime(CLOCK_MONOTONIC, &now);
			left.tv_sec = end.tv_sec - now.tv_sec;
			left.tv_nsec = end.tv_nsec - now.tv_nsec;
			if (left.tv_nsec < 0) {
				left.tv_nsec += 1000000000;
				--left.tv_sec;
			}
			if (left.tv_sec < 0 || (left.tv_sec == 0 && left.tv_nsec == 0))
				return 0;
		}
	}
}

static int call_poll(struct pollfd *set, nfds_t count, const struct timespec *limit,
		     const void *more)
{
	(void)more;
	/* Rounded up, as a wait that is too short would only be repeated. */
	return REAL(poll)(set, count,
			  limit ? (int)(limit->tv_sec * 1000 + (limit->tv_nsec + 999999) / 1000000)
				: -1);
}

static int call_ppoll(struct pollfd *set, nfds_t count, const struct timespec *limit,
		      const void *more)
{
	return REAL(ppoll)(set, count, limit, more);
}

static bool has_rings(void)
{
	return __atomic_load_n(&in_use, __ATOMIC_RELAXED) != 0;
}

MOX_EXPORT int poll(struct pollfd *set, nfds_t count, int milliseconds)
{
	const struct timespec limit = { milliseconds / 1000, milliseconds % 1000 * 1000000L };

	if (!has_rings())
		return REAL(poll)(set, count, milliseconds);
	return poll_rings(call_poll, set, count, milliseconds < 0 ? NULL : &limit, NULL);
}

MOX_EXPORT int ppoll(struct pollfd *set, nfds_t count, const struct timespec *limit,
		     const sigset_t *mask)
{
	if (!has_rings())
		return REAL(ppoll)(set, count, limit, mask);
	return poll_rings(call_ppoll, set, count, limit, mask);
}

extern void __chk_fail(void) __attribute__((noreturn));

MOX_EXPORT int __poll_chk(struct pollfd *set, nfds_t count, int milliseconds, size_t room)
{
	if (room / sizeof(*set) < count)
		__chk_fail();
	return poll(set, count, milliseconds);
}
