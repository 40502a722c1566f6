// SPDX-License-Identifier: GPL-2.0-only
/*
 * Filing a rule at its location: the location's library changes first, then its
 * hooks follow. The caller's running flag is set while the rule is filed.
 */
#pragma once

#include "base/sync.hpp"
#include "locations/table.hpp"

extern "C" {
/**
 * Enter the rule in the library of its location, or withdraw it, and bring the
 * location's hook registration in line. 0; -1 for a location without a library.
 * Takes the library's change lock. Process.
 */
int mox_packet_add_regular(packet_regular *regular);
int mox_packet_remove_regular(packet_regular *regular);
int mox_packet_handle_regular(packet_regular *regular, u32 add);
}

namespace mox {

/**
 * Holds the change lock of the library that a rule is in, over its withdrawal, its
 * change and its re-entry: the delivery of a frame comes before all of it or
 * after, and finds the old rule or the new one. Process.
 */
class RuleChange : Pinned {
public:
	RuleChange() = default;
	~RuleChange() { hold(nullptr); }

	/** As the functions of the same names. */
	int add(packet_regular *regular) { return handle(regular, 1); }
	int remove(packet_regular *regular) { return handle(regular, 0); }

private:
	int handle(packet_regular *regular, u32 add);
	void hold(packet_regular_lib *lib);

	packet_regular_lib *held_ = nullptr;
};

} // namespace mox
