// SPDX-License-Identifier: GPL-2.0-only
/* Matching packets against one rule. Read-only, without locks or allocation of its own. */
#pragma once

#include "locations/table.hpp"
#include "packet/info.hpp"

extern "C" {
/**
 * 1 when every item of the rule passes for the packet, 0 otherwise and for a
 * rule without items. The library's lock is held.
 */
int pkt_rule_match(const pkt_info *info, const packet_regular *regular);
int pkt_wlan_rule_match(const pkt_wlan_info *info, const packet_regular *regular);
}
