// SPDX-License-Identifier: GPL-2.0-only
#include "rules/filing.hpp"

#include "base/log.hpp"
#include "locations/registration.hpp"
#include "rules/library.hpp"

namespace mox {

/* One library at a time: that of the old location is let go before the new one's is taken. */
void RuleChange::hold(packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	if (lib == held_)
		return;
	if (held_)
		seam_mutex_unlock(&held_->change_lock);
	held_ = lib;
	if (held_)
		seam_mutex_lock(&held_->change_lock);
}

int RuleChange::handle(packet_regular *regular, u32 add) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	const u32 location = regular->location;
	packet_regular_lib *lib = location_library(location);
	if (!lib) {
		MOX_DEBUG("MOX-PACKET-HANDLE-REGULAR: location illegal!\n");
		return -1;
	}
	hold(lib);
	mox_packet_insert_regular(regular, lib, add);
	hook_follow_library(location);
	return 0;
}

} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_handle_regular(packet_regular *regular, u32 add)
{
	RuleChange change;

	return add ? change.add(regular) : change.remove(regular);
}

int mox_packet_add_regular(packet_regular *regular)
{
	return mox_packet_handle_regular(regular, 1);
}

int mox_packet_remove_regular(packet_regular *regular)
{
	return mox_packet_handle_regular(regular, 0);
}
} // extern "C"
