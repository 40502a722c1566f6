/* SPDX-License-Identifier: GPL-2.0-only */
/* The header in C99, pedantically: it alone, and every function with the type that it has there. */
#include "mox/mox.h"

#include <string.h>

/* Called by a test in C++. */
int use_in_c99(mox_socket *s);

int use_in_c99(mox_socket *s)
{
	unsigned char buffer[64];
	struct mox_frame frame;
	struct mox_send_control answer;

	memset(&frame, 0, sizeof(frame));
	frame.buffer = buffer;
	frame.size = sizeof(buffer);
	if (mox_add_rule(s, "eth=arp") || mox_set_location(s, PACKET_LEV2_LOC) || mox_start(s))
		return -1;
	if (mox_receive(s, &frame, MOX_NO_WAIT) != 1 || !(frame.flags & MOX_FRAME_CONTROL))
		return -2;
	mox_reply_control(&answer, &frame.control);
	return mox_send_to(s, frame.buffer, frame.captured, NULL, &answer);
}
