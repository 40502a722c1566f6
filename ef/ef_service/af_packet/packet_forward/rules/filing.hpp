// SPDX-License-Identifier: GPL-2.0
/*
 * Filing a rule at its location: the location's library changes first, then its
 * hooks follow. The caller's running flag is set while the rule is filed.
 */
#pragma once

#include "seam/seam.h"

extern "C" {
/**
 * Enter the rule in the library of its location, or withdraw it, and bring the
 * location's hook registration in line. 0; -1 for a location without a library.
 * Never sleeps.
 */
int mox_packet_add_regular(packet_regular *regular);
int mox_packet_remove_regular(packet_regular *regular);
int mox_packet_handle_regular(packet_regular *regular, u32 add);
}
