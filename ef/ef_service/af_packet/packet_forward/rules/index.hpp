// SPDX-License-Identifier: GPL-2.0-only
/*
 * The index of a library: hash buckets that say which rules a frame may match,
 * so that a frame costs the same with one rule as with thousands. The lists stay
 * the truth; the index allocates nothing, its links lie in the records.
 *
 * A match copy (for hooks) and a rule (for delivery) is anchored under the values
 * of one of its conditions, the one that it shares with the fewest others. What a
 * bucket yields is a candidate and is compared whole. A rule without a value to
 * look up is anchored under a class of frames. The chain of a bucket is in the
 * order of the list, so that the first candidate that matches is the first rule.
 */
#pragma once

#include "base/sync.hpp"
#include "locations/table.hpp"
#include "rules/places.hpp"
#include "rules/value.hpp"

namespace mox {

/** Slots behind those of the rule types: classes of frames. */
enum IndexSlot : u32 {
	kSlotAlways = MOX_PACKET_RULE_TYPES, /* every frame */
	kSlotSnap,                           /* an LLC/SNAP frame */
	kSlotIpv4Mcast,
	kSlotIpv6Mcast,
	kSlotWps,
	kSlotWlanMgmt,
	kSlots,
	kSlotNever = kSlots, /* no frame: not anchored */
};
static_assert(kSlots == RULE_SLOTS);

/** Bits of a hash that number a bucket. */
inline constexpr u32 kFilterBits = 10;
inline constexpr u32 kDeliveryBits = 9;
static_assert(RULE_FILTER_BUCKETS == 1u << kFilterBits);
static_assert(RULE_DELIVERY_BUCKETS == 1u << kDeliveryBits);

/*
 * Random numbers of this load: users choose the values of rules, and must not be
 * able to choose the buckets.
 */
struct IndexSeeds {
	u32 low;  /* odd */
	u32 high; /* odd */
	u32 slot[RULE_VIEWS][kSlots];
};
extern IndexSeeds g_index_seeds;

/** Choose the seeds. Before the first rule; process. */
void index_choose_seeds();

/**
 * The copies of a key with more values are anchored under the key alone: anchored under a
 * condition that they share, each of them would be compared with the same frame.
 */
inline constexpr u32 kFewKeys = 2;

/** The view of a library that a location of it is. */
constexpr u32 view_of(u32 location)
{
	return location <= kLastLocation ? 0 : location - kLastLocation;
}
static_assert(view_of(PACKET_LEV3_RESV_LOC) == RULE_VIEWS - 1);

/** The hash of a value in a slot. Its upper bits number the bucket, all of it tells candidates apart. */
inline u32 index_hash(u32 view, u32 slot, const Value &value)
{
	return value.low * g_index_seeds.low + value.high * g_index_seeds.high +
	       g_index_seeds.slot[view][slot];
}

/** Anchors that are linked or unlinked while the library lock is held once. */
inline constexpr u32 kAnchorsOfHold = 64;

/**
 * Anchors match copies, some of them while the library lock is held once: hooks find
 * a copy no later than the object's end. The change lock is held as long as the
 * object lives. May sleep.
 */
class CopyAnchors : Pinned {
public:
	explicit CopyAnchors(packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock) : lib_(lib) {}
	~CopyAnchors() { link_all(); }

	/** Anchor a copy whose entry and place are set. It stays in the library meanwhile. */
	void enter_copy(packet_regular *copy);

private:
	void link_all();

	packet_regular_lib *lib_;
	rule_anchor *first_ = nullptr; /* of those to be linked, by next */
	rule_anchor **last_ = &first_; /* the link of the last one */
	u32 count_ = 0;
};

/** Undo the anchoring of a copy that is anchored. May sleep. */
void index_leave_anchored(packet_regular *copy, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
/** The same for any copy. */
inline void index_leave_copy(packet_regular *copy, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	if (copy->anchor.prev || copy->anchored)
		index_leave_anchored(copy, lib);
}
/**
 * The same for the copies that are filed under the data of an item, from one's link
 * on, with one hold of the library lock: the link at which the next call goes on.
 */
list_head *index_leave_copies(regular_item *item, list_head *from, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

/** Anchor a rule that is linked among the library's rules, or undo that. May sleep. */
void index_enter_rule(packet_regular *rule, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);
void index_leave_rule(packet_regular *rule, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock);

} // namespace mox
