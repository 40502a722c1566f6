/* SPDX-License-Identifier: MIT */
/* Names of the C API. */
#include "mox/c_error.h"
#include "mox/mox.h"
#include "mox/names.h"
#include "mox/packet_socket.h"
#include "mox/values.h"

using namespace mox;

int mox_location(const char *name)
{
	return guarded(-1, [&] {
		return static_cast<int>(parse_location(not_null(name, "the location")));
	});
}

int mox_treatment(const char *name)
{
	return guarded(-1, [&] {
		return static_cast<int>(parse_treatment(not_null(name, "the treatment")));
	});
}

const char *mox_location_name(uint32_t location)
{
	// The names are string literals.
	return location_name(location).data();
}

const char *mox_treatment_name(uint32_t treatment)
{
	return treatment_name(treatment).data();
}

uint32_t mox_interface_index(const char *name)
{
	return guarded(uint32_t{ 0 }, [&] {
		return parse_interface(not_null(name, "the interface"), system_interface_index);
	});
}
