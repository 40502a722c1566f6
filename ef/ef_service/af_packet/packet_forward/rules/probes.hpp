// SPDX-License-Identifier: GPL-2.0-only
/* Where a frame looks in the index of a library. Read-only. */
#pragma once

#include "rules/digest.hpp"

namespace mox {

/** Where a frame looks in an index: a value in a slot of a view. */
struct Probe {
	u32 hash;
	u32 spot;
	Value value;

	/** Whether an anchor of the same hash is of the same value. */
	bool same(const rule_anchor *at) const
	{
		return at->low == value.low && at->high == value.high && at->spot == spot;
	}
	bool found(const rule_anchor *at) const { return at->hash == hash && same(at); }
};

/** Whether a frame belongs to the class of frames of a slot. */
inline bool in_class(const pkt_info &info, u32 slot)
{
	switch (slot) {
	case kSlotAlways:
		return true;
	case kSlotSnap:
		return info.flags & pkt_flag::kSnap;
	case kSlotIpv4Mcast:
		return ipv4_mcast_traffic(info);
	default:
		return slot == kSlotIpv6Mcast && ipv6_mcast_traffic(info);
	}
}

inline bool in_class(const pkt_wlan_info &info, u32 slot)
{
	switch (slot) {
	case kSlotAlways:
		return true;
	case kSlotWps:
		return wlan_wps(info);
	default:
		return slot == kSlotWlanMgmt && wlan_mgmt(info);
	}
}

/** Whether a frame looks into a slot, and for which value. */
template <typename Info>
[[gnu::always_inline]] inline bool probes_slot(const Info &info, u32 slot, Value *value)
{
	if (slot >= MOX_PACKET_RULE_TYPES) {
		*value = {};
		return in_class(info, slot);
	}
	/* Also without ICMPv6, for 0: a key of 0 passes for such frames. */
	return frame_value(info, slot, value) || slot == PACKET_ICMPV6_TYPE_EQUAL;
}

/** The views of a reserved interface that a frame is addressed to. */
inline bool sees_view(const pkt_info &info, u32 view)
{
	return addressed_to_reserved(kLastLocation + view, info.efbuff);
}

inline bool sees_view(const pkt_wlan_info &, u32)
{
	/* The WLAN location is the only one of its library. */
	return false;
}

/**
 * Calls look(probe, head) for each bucket of a set that may hold a rule for the frame,
 * and has an anchor. Runs without the lock under which chains change, if look takes that
 * before it follows a chain, whose head it then reads anew. In line: this is what a
 * frame costs that no rule matches.
 */
template <u32 bits, typename Info, typename Look>
[[gnu::always_inline]] inline void for_probes_of_view(const Info &info, u32 present,
						      rule_anchor *const *heads, u32 view,
						      Look &&look)
{
	for (u32 left = present; left != 0; left &= left - 1) {
		const u32 slot = static_cast<u32>(__builtin_ctz(left));
		Value value{};
		if (!probes_slot(info, slot, &value))
			continue;
		const u32 hash = index_hash(view, slot, value);
		if (const rule_anchor *head = load(heads[hash >> (32 - bits)]))
			look(Probe{ hash, view * kSlots + slot, value }, head);
	}
}

} // namespace mox
