// SPDX-License-Identifier: GPL-2.0
#include "hooks.hpp"

#include "log.hpp"
#include "receive.hpp"

namespace {

constexpr packet_module record(const char *name, efmp_pkt_func receive,
			       platform::record_numbers numbers)
{
	return { 0, name,
		 { 0, receive, platform::kRecordMask, numbers.point, numbers.priority, 0 } };
}

} // namespace

extern "C" {
constinit packet_module g_lev2_packet_module =
	record("PACKET-LEV2-MODULE", mox_packet_lev2_rcv, platform::kLev2Record);
constinit packet_module g_ipv4_packet_module =
	record("PACKET-IPV4-MODULE", mox_packet_ipv4_rcv, platform::kIpv4Record);
constinit packet_module g_ipv6_packet_module =
	record("PACKET-IPV6-MODULE", mox_packet_ipv6_rcv, platform::kIpv6Record);
constinit packet_module g_wlan_packet_module =
	record("PACKET-WLAN-MODULE", mox_packet_wlan_in_rcv, platform::kWlanRecord);
}

namespace {

/*
 * Guards the registrations. Two sockets may change the same library at once;
 * the count is read and acted upon under this lock, so that the last one to
 * act always saw the last count.
 */
constinit seam_spinlock g_hook_lock{};

/** What a location registers: a module record, an output function, a receive function. */
struct LocationHooks {
	packet_module *module;
	efmp_pkt_func output;
	efmp_pkt_func recv;
};

constexpr LocationHooks kHooks[] = {
	/* PACKET_NONE_LOC */ { nullptr, nullptr, nullptr },
	/* PACKET_LOCAL_LOC */ { nullptr, mox_packet_local_rcv, nullptr },
	/* PACKET_LEV2_LOC */ { &g_lev2_packet_module, nullptr, nullptr },
	/* PACKET_IPv4_LOC */ { &g_ipv4_packet_module, nullptr, nullptr },
	/* PACKET_IPv6_LOC */ { &g_ipv6_packet_module, nullptr, nullptr },
	/* MPLS and TRILL have receivers that no path registers. */
	/* PACKET_MPLS_LOC */ { nullptr, nullptr, nullptr },
	/* PACKET_TRILL_LOC */ { nullptr, nullptr, nullptr },
	/* PACKET_RESV_LOC */ { nullptr, nullptr, mox_packet_resv_rcv },
	/* PACKET_WLAN_LOC */ { &g_wlan_packet_module, mox_packet_wlan_out_rcv, nullptr },
	/* PACKET_LEV2_RESV_LOC */ { nullptr, nullptr, mox_packet_resv_rcv },
	/* PACKET_LEV3_RESV_LOC */ { nullptr, nullptr, mox_packet_resv_rcv },
};

/** The platform's last answer; 0 for a location without hooks. The hook lock is held. */
int register_hooks(const LocationHooks &hooks)
{
	int result = 0;
	if (hooks.module)
		result = mox_packet_reg_module(hooks.module);
	if (hooks.output)
		result = efmp_reg_output_pkt_func(hooks.output, platform::kOutputPoint);
	if (hooks.recv)
		result = efmp_reg_recv_pkt_func(hooks.recv, platform::kRecvPoint);
	return result;
}

int deregister_hooks(const LocationHooks &hooks)
{
	int result = 0;
	if (hooks.module)
		mox_packet_dereg_module(hooks.module);
	if (hooks.output)
		result = efmp_dereg_output_pkt_func(hooks.output, platform::kOutputPoint);
	if (hooks.recv)
		result = efmp_dereg_recv_pkt_func(hooks.recv, platform::kRecvPoint);
	return result;
}

u32 regular_count(packet_regular_lib *lib)
{
	ReadGuard guard(&lib->lock);
	return lib->regular_count;
}

} // namespace

void hook_lock_init()
{
	seam_hook_lock_init(&g_hook_lock);
}

void hook_follow_library(u32 location, packet_regular_lib *lib)
{
	const LocationHooks &hooks = kHooks[location];
	SpinGuard guard(&g_hook_lock);

	/* Also when already registered: the platform may have refused before. */
	if (regular_count(lib) != 0)
		register_hooks(hooks);
	else
		deregister_hooks(hooks);
}

int hook_switch(u32 location, packet_regular_lib *lib, bool away)
{
	const LocationHooks &hooks = kHooks[location];
	SpinGuard guard(&g_hook_lock);

	if (away)
		return deregister_hooks(hooks);
	return regular_count(lib) != 0 ? register_hooks(hooks) : 0;
}

extern "C" {

int mox_packet_reg_module(packet_module *module)
{
	if (module->registered)
		return 0;
	int result = efmp_reg_module(&module->descriptor);
	if (result != 0) {
		mox_printk("reg %s failed\n", module->name);
		return result;
	}
	module->registered = 1;
	return 0;
}

void mox_packet_dereg_module(packet_module *module)
{
	if (!module->registered)
		return;
	efmp_dereg_module(&module->descriptor);
	module->registered = 0;
}

void mox_packet_flush_input_mclist(void)
{
}

void mox_packet_flush_output_mclist(void)
{
}
} // extern "C"
