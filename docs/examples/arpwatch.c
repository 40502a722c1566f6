/* SPDX-License-Identifier: MIT */
/*
 * arpwatch - print who asks and who answers in ARP, frame by frame.
 *
 *     arm-linux-gnueabihf-gcc -static -Wall -Wextra -Iinclude docs/examples/arpwatch.c -o arpwatch
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "mox_packet.h"

static int set_u32(int fd, int option, uint32_t value)
{
	return setsockopt(fd, MOX_SOL_PACKET, option, &value, sizeof(value));
}

int main(void)
{
	const uint16_t arp = htons(0x0806);
	unsigned char rule[MOX_PACKET_RULE_LENGTH(sizeof(arp), 1)];
	size_t rule_len = mox_packet_build_rule(rule, sizeof(rule), PACKET_ETH_PROT_EQUAL, &arp,
						sizeof(arp), 1);
	struct mox_packet_ctrl_info ctrl;
	unsigned char frame[2048], *a = frame + 14; /* the ARP packet */
	ssize_t len;

	int fd = socket(MOX_PACKET_FAMILY, SOCK_RAW, 0);
	/* The rule and the treatment first: the location is what starts the capture. */
	if (fd < 0 || setsockopt(fd, MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, rule, rule_len) ||
	    set_u32(fd, PACKET_TREATMENT, PACKET_COPY) || set_u32(fd, PACKET_CTRL_INFO, 1) ||
	    set_u32(fd, PACKET_LOCATION, PACKET_LEV2_LOC)) {
		perror("arpwatch: cannot open the capture socket");
		return 1;
	}
	for (;;) {
		struct iovec iov = { frame, sizeof(frame) };
		struct msghdr msg;

		memset(&msg, 0, sizeof(msg));
		memset(&ctrl, 0, sizeof(ctrl));
		msg.msg_iov = &iov;
		msg.msg_iovlen = 1;
		msg.msg_control = &ctrl; /* 48 bytes, raw */
		msg.msg_controllen = sizeof(ctrl);
		len = recvmsg(fd, &msg, 0);
		if (len < 0) {
			perror("arpwatch: recvmsg");
			return 1;
		}
		if (len < 14 + 28)
			continue;
		printf("if %u vlan %u: %u.%u.%u.%u (%02x:%02x:%02x:%02x:%02x:%02x) %s %u.%u.%u.%u\n",
		       ctrl.pkt_ifx, ctrl.vlan >> 4, a[14], a[15], a[16], a[17], a[8], a[9], a[10],
		       a[11], a[12], a[13], a[7] == 1 ? "asks for" : "answers", a[24], a[25], a[26],
		       a[27]);
		fflush(stdout);
	}
}
