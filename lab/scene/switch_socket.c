// SPDX-License-Identifier: GPL-2.0-only
/*
 * Preloaded into lldpd, which stands in for the switch behind port3.
 *
 * lldpd sends and receives through a packet socket of its own kernel. Here that
 * is the access point's kernel, where the family is the capture sockets'. The
 * library puts the wire of port3 in the socket's place: the other end of its
 * TAP device, $SWITCH_TAP, in the access point's namespace. lldpd gives its
 * privileges away before it opens the socket, so the device is opened as the
 * program starts.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#define PACKET_FAMILY 17
#define OUT_OF_THE_WAY 200 /* programs close the low descriptors that they do not know */

static int tap = -1;

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

static int open_tap(const char *name)
{
	struct ifreq request;
	int fd = open("/dev/net/tun", O_RDWR);
	int high;

	memset(&request, 0, sizeof(request));
	request.ifr_flags = IFF_TAP | IFF_NO_PI;
	strncpy(request.ifr_name, name, sizeof(request.ifr_name) - 1);
	if (fd < 0 || ioctl(fd, TUNSETIFF, &request))
		return -1; /* lldpd's helpers are preloaded too, and find it taken */
	high = fcntl(fd, F_DUPFD_CLOEXEC, OUT_OF_THE_WAY);
	close(fd);
	return high;
}

__attribute__((constructor)) static void take_wire(void)
{
	const char *name = getenv("SWITCH_TAP");
	int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
	int access_point = open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC);

	if (name && own >= 0 && access_point >= 0 && !setns(access_point, CLONE_NEWNET)) {
		tap = open_tap(name);
		setns(own, CLONE_NEWNET);
	}
	close(own);
	close(access_point);
}

int socket(int family, int type, int protocol)
{
	if (family != PACKET_FAMILY)
		return NEXT(socket)(family, type, protocol);
	return fcntl(tap, F_DUPFD_CLOEXEC, 0);
}

/* What is asked of the wire as a socket, by any holder of the descriptor. */
static int unless_wire(int result)
{
	return result != 0 && errno == ENOTSOCK ? 0 : result;
}

int bind(int fd, const struct sockaddr *address, socklen_t length)
{
	return unless_wire(NEXT(bind)(fd, address, length));
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
	return unless_wire(NEXT(setsockopt)(fd, level, option, value, length));
}

ssize_t recvfrom(int fd, void *data, size_t size, int flags, struct sockaddr *address,
		 socklen_t *length)
{
	ssize_t received = NEXT(recvfrom)(fd, data, size, flags, address, length);

	if (received >= 0 || errno != ENOTSOCK)
		return received;
	if (address && length)
		memset(address, 0, *length); /* a frame to this host */
	return read(fd, data, size);
}
