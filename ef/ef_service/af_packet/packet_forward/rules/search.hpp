// SPDX-License-Identifier: GPL-2.0-only
/* The search for the first rule that a packet matches, for hooks. Read-only, without allocation. */
#pragma once

#include "locations/table.hpp"
#include "packet/info.hpp"

extern "C" {
/** The treatment of the first rule that matches the packet, or 0. The read lock is held. */
u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
	SEAM_REQUIRES_SHARED(lib->lock);
u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
	SEAM_REQUIRES_SHARED(g_wlan_packet_regular_lib.lock);
}

namespace mox {

/**
 * The fast filter of a hook: the treatment of the first rule that matches, or 0. The
 * read lock is taken inside, if the frame has a candidate: most frames that no rule
 * matches have none. What a rule change adds or removes meanwhile counts for the next
 * frame. Any context.
 */
u32 filter_frame(const pkt_info &info, packet_regular_lib *lib);
u32 filter_frame(const pkt_wlan_info &info, packet_regular_lib *lib);

/** What decides at a hook, for traces. */
struct Decision {
	u32 treatment; /* 0: no rule matches */
	u32 key_type;
	u8 key[REGULAR_VALUE_SIZE];
};

/**
 * The fast filter once more: what it finds, and describe(context, socket) for the socket
 * of the rule that decides, which stays meanwhile. Any context.
 */
using DescribeSocket = void (*)(void *context, mox_packet_sock *po);
Decision explain_frame(const pkt_info &info, packet_regular_lib *lib, DescribeSocket describe,
		       void *context);
Decision explain_frame(const pkt_wlan_info &info, packet_regular_lib *lib, DescribeSocket describe,
		       void *context);

} // namespace mox
