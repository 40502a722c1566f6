// SPDX-License-Identifier: GPL-2.0-only
#include "locations/registration.hpp"

#include "base/log.hpp"

namespace mox {
namespace {

/*
 * Guards the registrations. Two sockets may change the same library at once;
 * the count is read and acted upon under this lock, so that the last one to
 * act always saw the last count.
 */
constinit seam_spinlock g_hook_lock{};

/** The platform's last answer; 0 for a location without hooks. The hook lock is held. */
int register_hooks(const Location &hooks)
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

int deregister_hooks(const Location &hooks)
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

u32 regular_count(const packet_regular_lib *lib)
{
	return load(lib->regular_count);
}

} // namespace

void hook_lock_init()
{
	seam_hook_lock_init(&g_hook_lock);
}

void hook_follow_library(u32 location)
{
	const Location &hooks = location_row(location);
	SpinGuard guard(&g_hook_lock);

	/* Also when already registered: the platform may have refused before. */
	if (regular_count(hooks.library) != 0)
		register_hooks(hooks);
	else
		deregister_hooks(hooks);
}

int hook_switch(u32 location, bool away)
{
	const Location &hooks = location_row(location);
	SpinGuard guard(&g_hook_lock);

	if (away)
		return deregister_hooks(hooks);
	return regular_count(hooks.library) != 0 ? register_hooks(hooks) : 0;
}

} // namespace mox

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

void mox_packet_flush_input_mclist(void) {}

void mox_packet_flush_output_mclist(void) {}
} // extern "C"
