// SPDX-License-Identifier: GPL-2.0-only
/*
 * Preloaded into DHCP programs of the scene's stations.
 *
 * A DHCP program speaks through a packet socket of its own kernel while its
 * interface has no address yet. The stations of the scene are namespaces of the
 * access point's kernel, where that family is the capture sockets', which look
 * into the platform and not into a namespace. The library hands such programs
 * the nearest thing that is left: for IPv4 packets without their link header,
 * which is what they open, a raw IPv4 socket reads and writes the same bytes.
 * The link header is then the kernel's to write, so servers have to broadcast
 * to clients without an address (udhcpc -B).
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#define PACKET_FAMILY 17
#define ETHER_TYPE_IPV4 0x0800

/* The link-layer address that such programs bind and send to. */
struct link_address {
	uint16_t family;
	uint16_t protocol; /* network order */
	int32_t ifindex;
};

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

int socket(int family, int type, int protocol)
{
	int fd, on = 1;

	if (family != PACKET_FAMILY)
		return NEXT(socket)(family, type, protocol);
	if ((type & 0xf) != SOCK_DGRAM || protocol != htons(ETHER_TYPE_IPV4)) {
		errno = ESOCKTNOSUPPORT;
		return -1;
	}
	fd = NEXT(socket)(AF_INET, SOCK_RAW | (type & ~0xf), IPPROTO_UDP);
	if (fd < 0)
		return -1;
	setsockopt(fd, IPPROTO_IP, IP_HDRINCL, &on, sizeof(on));
	setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
	return fd;
}

int bind(int fd, const struct sockaddr *address, socklen_t length)
{
	const struct link_address *link = (const void *)address;
	char name[IF_NAMESIZE];

	if (length < sizeof(*link) || link->family != PACKET_FAMILY)
		return NEXT(bind)(fd, address, length);
	if (!if_indextoname(link->ifindex, name))
		return -1;
	return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, strlen(name));
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const struct sockaddr *address,
	       socklen_t length)
{
	struct sockaddr_in to = { .sin_family = AF_INET };
	const size_t destination_at = 16, header = 20;

	if (!address || length < sizeof(struct link_address) || address->sa_family != PACKET_FAMILY)
		return NEXT(sendto)(fd, data, size, flags, address, length);
	if (size < header) {
		errno = EINVAL;
		return -1;
	}
	memcpy(&to.sin_addr, (const char *)data + destination_at, sizeof(to.sin_addr));
	return NEXT(sendto)(fd, data, size, flags, (struct sockaddr *)&to, sizeof(to));
}
