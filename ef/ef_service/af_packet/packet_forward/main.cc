// SPDX-License-Identifier: GPL-2.0-only
/* Load and unload: the six units, up in one order and down in two. */
#include "base/log.hpp"
#include "base/module_state.hpp"
#include "control/capture.hpp"
#include "control/requests.hpp"
#include "receive/arrivals.hpp"
#include "receive/queue.hpp"
#include "receive/thread.hpp"
#include "rules/memory.hpp"
#include "services/services.hpp"
#include "socket/family.hpp"

namespace mox {
namespace {

/* Each line is printk's format itself: mox_printk reads the level marker there. */
#define MOX_UNIT(name, init)                                                  \
	{                                                                     \
		init, [] { mox_printk(MOX_KERN_INFO name " init failed\n"); } \
	}

struct Unit {
	int (*init)();
	void (*print_failure)();
};

constexpr Unit kUnits[] = {
	MOX_UNIT("PACKET-SOCK", mox_packet_sock_init),
	MOX_UNIT("PACKET-REGULAR", mox_packet_regular_init),
	MOX_UNIT("PACKET-SERV", mox_packet_serv_init),
	MOX_UNIT("PACKET-MSG", mox_packet_msg_init),
	MOX_UNIT("PACKET-FAMILY", mox_packet_family_init),
	MOX_UNIT("PACKET-THREAD", mox_packet_thread_init),
};

using Deinit = void (*)();

/* Behind the units: what it reads of them is up as long as it is. */
constexpr Unit kReading = MOX_UNIT("PACKET-CAPTURE", mox_capture_init);

/* After a failed load the thread goes first: nothing was queued for it yet. */
constexpr Deinit kUnwind[] = {
	mox_packet_thread_deinit, mox_packet_family_deinit,  mox_packet_msg_deinit,
	mox_packet_serv_deinit,   mox_packet_regular_deinit, mox_packet_sock_deinit,
};

/*
 * At unload it goes last, so that it still consumes what hooks have queued while
 * the family is unregistered. Both orders are deliberate.
 */
constexpr Deinit kUnloadRest[] = {
	mox_packet_msg_deinit,  mox_packet_serv_deinit,   mox_packet_regular_deinit,
	mox_packet_sock_deinit, mox_packet_thread_deinit,
};

/** Take down what is up, as one unit is not. The load's result. */
int give_up(const Unit &failed)
{
	failed.print_failure();
	for (Deinit deinit : kUnwind)
		deinit();
	arrivals_deinit();
	return -1;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" int mox_packet_init(void)
{
	arrivals_init();
	for (const Unit &unit : kUnits)
		if (unit.init() != 0)
			return give_up(unit);
	if (kReading.init() != 0)
		return give_up(kReading);
	set_module_up(true);
	return 0;
}

extern "C" void mox_packet_exit(void)
{
	set_module_up(false);
	mox_capture_deinit();
	mox_packet_family_deinit();
	/*
	 * The last hook was deregistered with the last socket's rule, but one may
	 * still run on another CPU and use what the deinits below take down.
	 */
	seam_wait_for_hooks();
	for (Deinit deinit : kUnloadRest)
		deinit();
	arrivals_deinit();
}
