// SPDX-License-Identifier: GPL-2.0
/* Load and unload: the six units, up in one order and down in two. */
#include "log.hpp"
#include "msg.hpp"
#include "regular.hpp"
#include "serv.hpp"
#include "socket.hpp"
#include "thread.hpp"

namespace {

struct Unit {
	int (*init)();
	const char *failure;
};

constexpr Unit kUnits[] = {
	{ mox_packet_sock_init, MOX_KERN_INFO "PACKET-SOCK init failed\n" },
	{ mox_packet_regular_init, MOX_KERN_INFO "PACKET-REGULAR init failed\n" },
	{ mox_packet_serv_init, MOX_KERN_INFO "PACKET-SERV init failed\n" },
	{ mox_packet_msg_init, MOX_KERN_INFO "PACKET-MSG init failed\n" },
	{ mox_packet_family_init, MOX_KERN_INFO "PACKET-FAMILY init failed\n" },
	{ mox_packet_thread_init, MOX_KERN_INFO "PACKET-THREAD init failed\n" },
};

using Deinit = void (*)();

/* After a failed load the thread goes first: nothing was queued for it yet. */
constexpr Deinit kUnwind[] = {
	mox_packet_thread_deinit, mox_packet_family_deinit, mox_packet_msg_deinit,
	mox_packet_serv_deinit,   mox_packet_regular_deinit, mox_packet_sock_deinit,
};

/*
 * At unload it goes last, so that what hooks have queued still meets its
 * consumer while the family is taken away. Both orders are deliberate.
 */
constexpr Deinit kUnloadRest[] = {
	mox_packet_msg_deinit,  mox_packet_serv_deinit,  mox_packet_regular_deinit,
	mox_packet_sock_deinit, mox_packet_thread_deinit,
};

} // namespace

extern "C" int mox_packet_init(void)
{
	for (const Unit &unit : kUnits) {
		if (unit.init() == 0)
			continue;
		mox_printk("%s", unit.failure);
		for (Deinit deinit : kUnwind)
			deinit();
		return -1;
	}
	return 0;
}

extern "C" void mox_packet_exit(void)
{
	mox_packet_family_deinit();
	/*
	 * The last socket took the last hook registration with it, but a hook
	 * may still run on another CPU with what comes down below in its hands.
	 */
	seam_wait_for_hooks();
	for (Deinit deinit : kUnloadRest)
		deinit();
}
