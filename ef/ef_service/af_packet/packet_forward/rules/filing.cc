// SPDX-License-Identifier: GPL-2.0
#include "rules/filing.hpp"

#include "base/log.hpp"
#include "locations/registration.hpp"
#include "rules/library.hpp"

using namespace mox;

extern "C" {

int mox_packet_handle_regular(packet_regular *regular, u32 add)
{
	const u32 location = regular->location;
	packet_regular_lib *lib = location_library(location);
	if (!lib) {
		MOX_DEBUG("MOX-PACKET-HANDLE-REGULAR: location illegal!\n");
		return -1;
	}
	mox_packet_insert_regular(regular, lib, add);
	hook_follow_library(location);
	return 0;
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
