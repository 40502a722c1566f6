// SPDX-License-Identifier: GPL-2.0
/*
 * Matching packets against rules: the rule match, which asks one rule, and the
 * fast filters, which ask a library. Read-only, without locks or allocation of
 * their own.
 */
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

/** The treatment of the first rule that matches the packet, or 0. The read lock is held. */
u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
	SEAM_REQUIRES_SHARED(g_wlan_packet_regular_lib.lock);
}
