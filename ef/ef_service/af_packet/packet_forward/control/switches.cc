// SPDX-License-Identifier: GPL-2.0-only
#include "control/switches.hpp"

#include "base/log.hpp"
#include "locations/registration.hpp"

namespace mox {
namespace {

/* The types of the hook switch name the locations that have a report. */
constexpr u32 kHookTypesBefore = MOX_DEBUG_HOOK_FIRST - kFirstLocation;
static_assert(MOX_DEBUG_HOOK_LAST - kHookTypesBefore == kLastLocation);

void set_switches(u32 first, u32 last, u8 value)
{
	for (u32 number = first; number <= last; number++)
		store(mox_packet_debug[number], value);
}

bool is_hook_type(u32 type)
{
	return type >= MOX_DEBUG_HOOK_FIRST && type <= MOX_DEBUG_HOOK_LAST;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_dereg_msg_deal(const u32 *body)
{
	const u32 type = body[0];
	const u8 away = static_cast<u8>(body[1]);

	if (!is_hook_type(type)) {
		/* No full stop, unlike the line for an illegal request: kept. */
		MOX_DEBUG("MSG TYPE ILLEGAL\n");
		return 0;
	}
	return hook_switch(type - kHookTypesBefore, away != 0);
}

void mox_packet_debug_msg_deal(mox_packet_request *record)
{
	auto &debug = record->body.debug;
	const u32 type = debug.type;
	const u8 value = static_cast<u8>(debug.is_open);

	/* Before anything changes, so that switching the lines off still prints this one. */
	MOX_DEBUG("DEBUG TYPE %d, IS_OPEN %d\n", static_cast<int>(type), value);
	if (type > MOX_DEBUG_HOOK_ALL) {
		MOX_DEBUG("DEBUG TYPE ILLEGAL\n");
		return;
	}
	if (is_hook_type(type)) {
		mox_packet_dereg_msg_deal(&debug.type);
	} else if (type == MOX_DEBUG_HOOK_ALL) {
		/* Leaves the last type in the caller's record, as callers know it. */
		for (debug.type = MOX_DEBUG_HOOK_FIRST;; debug.type++) {
			mox_packet_dereg_msg_deal(&debug.type);
			if (debug.type == MOX_DEBUG_HOOK_LAST)
				break;
		}
	} else if (type == MOX_DEBUG_DELIVER_ALL) {
		/* The bytes of the two groups themselves stay 0, here and below: intended. */
		set_switches(MOX_DEBUG_DELIVER_FIRST, MOX_DEBUG_DELIVER_LAST, value);
	} else if (type == MOX_DEBUG_RECEIVE_ALL) {
		set_switches(MOX_DEBUG_RECEIVE_FIRST, MOX_DEBUG_RECEIVE_LAST, value);
	} else {
		store(mox_packet_debug[type], value);
	}
}
} // extern "C"
