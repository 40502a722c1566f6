// SPDX-License-Identifier: GPL-2.0
/*
 * The search for the rules that a packet matches: the fast filters, which ask a library
 * for hooks, and the rules that match, for delivery. Read-only, without allocation.
 */
#pragma once

#include "rules/digest.hpp"

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

/**
 * The rules of a library that match a packet and whose socket is of vsd 0, in the
 * library's order. The library's change lock is held while the object lives; info
 * outlives it.
 */
template <typename Info> class MatchingRules {
public:
	MatchingRules(const Info &info, const packet_regular_lib *lib);
	/** The next one, or null. */
	packet_regular *next() { return count_ != 0 ? search() : nullptr; }

private:
	packet_regular *search();
	void advance(u32 chain);

	const Info &info_;
	u32 count_ = 0;
	bool failed_ = false; /* a candidate: digests are compared from then on */
	FrameDigest<Info> digest_;
	const rule_anchor *heads_[RULE_VIEWS * RULE_SLOTS];
};

} // namespace mox
