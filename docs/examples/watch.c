/* SPDX-License-Identifier: MIT */
/* watch - prints the frames of a rule: cc watch.c $(pkg-config --cflags --libs mox); ./a.out eth=arp */
#include <inttypes.h>
#include <mox/mox.h>
#include <stdio.h>

int main(int argc, char **argv)
{
	unsigned char buffer[2048];
	struct mox_frame frame = { .buffer = buffer, .size = sizeof(buffer) };
	mox_socket *s = mox_new(MOX_RAW);
	int got;

	if (!s || mox_add_rule(s, argc > 1 ? argv[1] : "all") || mox_set_timestamps(s, 1) ||
	    mox_set_location(s, PACKET_LEV2_LOC) || mox_start(s)) {
		fprintf(stderr, "watch: %s\n", mox_error());
		return 1;
	}
	while ((got = mox_receive(s, &frame, MOX_WAIT)) >= 0)
		if (got && printf("%" PRId64 " interface %u, vlan %u, type %04x, %zu bytes\n",
				  frame.seconds, frame.ifindex, frame.control.vlan,
				  frame.control.ether_type, frame.length) > 0)
			fflush(stdout);
	fprintf(stderr, "watch: %s\n", mox_error());
	mox_free(s);
	return 1;
}
