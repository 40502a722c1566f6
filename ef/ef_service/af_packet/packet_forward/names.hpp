// SPDX-License-Identifier: GPL-2.0
/* The texts under which operators know locations, treatments and rule types. */
#pragma once

#include "seam/seam.h"

/** "PACKET_LEV2_LOC" and its like; "Unknown" for a number that has no name. */
const char *location_name(u32 location);
/** "PACKET_COPY" and its like; "Unknown" for a number that has no name. */
const char *treatment_name(u32 treatment);
/** "PACKET_ETH_PROT_EQUAL" and its like; null beyond the last type. */
const char *rule_type_name(u32 type);
