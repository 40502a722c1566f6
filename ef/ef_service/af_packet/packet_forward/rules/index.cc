// SPDX-License-Identifier: GPL-2.0-only
#include "rules/index.hpp"

#include "rules/buckets.hpp"
#include "rules/digest.hpp"
#include "rules/ranges.hpp"

namespace mox {

constinit IndexSeeds g_index_seeds{};

namespace {

/* An item with more values is anchored only where it is the less crowded one. */
constexpr u32 kFewValues = 4;

bool is_wlan(const packet_regular_lib *lib)
{
	return lib == location_library(PACKET_WLAN_LOC);
}

/** The values of a type, as frames of the WLAN location are asked for them. */
Spot wlan_spot(u32 type, const Value &value)
{
	switch (type) {
	case PACKET_ETH_PROT_EQUAL:
		return { value == kAnyEthType ? u32{ kSlotAlways } : type, value };
	case PACKET_EAPOL_TYPE_EQUAL:
		return { type, value };
	case PACKET_EAPOL_TYPE_WPS:
		return { kSlotWps, {} };
	case PACKET_WLAN_MGNT:
		return { kSlotWlanMgmt, {} };
	case PACKET_ALL:
		return { kSlotAlways, {} };
	default:
		return { kSlotNever, {} };
	}
}

Spot full_spot(u32 type, const Value &value)
{
	switch (type) {
	case PACKET_ETH_PROT_EQUAL:
		return { value == kAnyEthType ? u32{ kSlotAlways } : type, value };
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		return { value == kAnyEthType ? u32{ kSlotSnap } : type, value };
	case PACKET_IPv4_MCAST_TRAFFIC:
		return { kSlotIpv4Mcast, {} };
	case PACKET_IPv6_MCAST_TRAFFIC:
		return { kSlotIpv6Mcast, {} };
	case PACKET_ALL:
		return { kSlotAlways, {} };
	case PACKET_EAPOL_TYPE_WPS:
	case PACKET_PID_T:
	case PACKET_WLAN_MGNT:
		return { kSlotNever, {} };
	default:
		return { type < MOX_PACKET_RULE_TYPES ? type : u32{ kSlotNever }, value };
	}
}

Spot spot_of(u32 type, const Value &value, bool wlan)
{
	Spot spot = wlan ? wlan_spot(type, value) : full_spot(type, value);

	if (spot.slot >= MOX_PACKET_RULE_TYPES)
		spot.value = {};
	return spot;
}

/**
 * The spot of a value of a condition: frames that look there satisfy it, and those
 * that satisfy it look there.
 */
Spot item_spot(u32 type, const Value &value, bool wlan)
{
	/* Frames without ICMPv6 look for 0, for keys. As a condition 0 is satisfied by none. */
	if (type == PACKET_ICMPV6_TYPE_EQUAL && value.low == 0)
		return { kSlotNever, {} };
	return spot_of(type, value, wlan);
}

/** The same for a key. Some keys pass for other frames than the condition does: rules/conditions.hpp. */
Spot key_spot(const filter_list_data &key, bool wlan)
{
	if (key.type >= MOX_PACKET_RULE_TYPES)
		return { wlan ? u32{ kSlotNever } : u32{ kSlotAlways }, {} };
	Value value = rule_value(key.type, key.value);
	if (!wlan) {
		switch (key.type) {
		case PACKET_PID_T:
		case PACKET_WLAN_MGNT:
			return { kSlotAlways, {} };
		case PACKET_ARP_TYPE:
			value.low = key.value[0];
			break;
		default:
			break;
		}
	}
	return spot_of(key.type, value, wlan);
}

/** How well a slot tells frames apart, for conditions that are equally crowded. */
u32 rank_of(u32 slot)
{
	switch (slot) {
	case PACKET_SRC_MAC_EQUAL:
		return 9;
	case PACKET_IPv4_SRC_PORT_EQUAL:
	case PACKET_IPv4_DEST_PORT_EQUAL:
	case PACKET_IPv6_DEST_PORT_EQUAL:
		return 8;
	case PACKET_DEST_MAC_EQUAL:
		return 7;
	case PACKET_SRC_INTF_EQUAL:
		return 6;
	case PACKET_PACKET_CODE_EQUAL:
	case PACKET_ICMPV6_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_EQUAL:
	case PACKET_ARP_TYPE:
		return 5;
	case PACKET_ETH_PROT_EQUAL:
	case PACKET_SNAP_ETH_TYPE_EQUAL:
		return 4;
	case PACKET_IPv4_PROT_EQUAL:
	case PACKET_IPv6_PROT_EQUAL:
		return 3;
	case kSlotAlways:
		return 0;
	default:
		return 1;
	}
}

using FilterBuckets = Buckets<kFilterBits, copy_before>;
using DeliveryBuckets = Buckets<kDeliveryBits, rule_before>;

/** A way to anchor a rule. */
struct Choice {
	regular_item *item; /* the condition; null: a copy's key, or none */
	bool by_value;      /* anchor the item's values; else the rule's own anchor, at spot */
	Spot spot;
	u32 crowd;
	u32 rank;
	bool few;
};

bool better(const Choice &choice, const Choice &than)
{
	if (choice.crowd != than.crowd)
		return choice.crowd < than.crowd;
	if (choice.few != than.few)
		return choice.few;
	return choice.rank > than.rank;
}

template <typename Set>
Choice choice_of_spot(const Set &set, u32 view, const Spot &spot, regular_item *item)
{
	/* Every frame is more than any crowd. */
	u32 crowd = spot.slot == kSlotAlways ? kCrowded + 1
					     : set.crowd(index_hash(view, spot.slot, spot.value));

	return { item, false, spot, crowd, rank_of(spot.slot), true };
}

/**
 * What an item offers as an anchor. False when no frame satisfies it, hence the
 * rule neither.
 */
template <typename Set>
bool offer_item(const Set &set, u32 view, bool wlan, regular_item *item, Choice *best)
{
	if (item->type == PACKET_PID_T)
		return !list_empty(&item->datas); /* excludes frames: nothing to look up */
	Spot without = spot_of(item->type, {}, wlan);
	if (without.slot >= MOX_PACKET_RULE_TYPES) {
		if (without.slot == kSlotNever)
			return false;
		Choice choice = choice_of_spot(set, view, without, item);
		if (better(choice, *best))
			*best = choice;
		return true;
	}
	if (list_empty(&item->datas))
		return false;
	Choice choice{ item, true, {}, 0, rank_of(item->type), true };
	u32 seen = 0;
	for (const regular_data *datum : datas_of(item)) {
		if (seen++ == kFewValues) {
			choice.few = false;
			break;
		}
		Spot spot = item_spot(item->type, rule_value(item->type, datum->value), wlan);
		if (spot.slot == kSlotNever)
			continue;
		u32 crowd = choice_of_spot(set, view, spot, item).crowd;
		if (crowd > choice.crowd)
			choice.crowd = crowd;
	}
	if (better(choice, *best))
		*best = choice;
	return true;
}

/** The rule's best anchor, beginning with best. False for a rule that no frame satisfies. */
template <typename Set>
bool choose(const Set &set, packet_regular *rule, u32 view, bool wlan, Choice *best)
{
	for (regular_item *item : items_of(rule))
		if (!offer_item(set, view, wlan, item, best))
			return false;
	return true;
}

/** No lock: what only the holder of the change lock reads. */
struct NoGuard {
	explicit NoGuard(packet_regular_lib *) {}
	/* A destructor of its own, as a lock guard has. */
	~NoGuard() {}
};

struct HookGuard {
	explicit HookGuard(packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
		: guard(&lib->lock)
	{
	}
	~HookGuard() SEAM_NO_THREAD_SAFETY_ANALYSIS {}
	WriteGuard guard;
};

/** Calls act(datum) for all data of an item, some of them while the lock is held once. */
template <typename Guard, typename Act>
void for_all_values(packet_regular_lib *lib, regular_item *item, Act act)
{
	list_head *at = item->datas.next;

	while (at != &item->datas) {
		{
			Guard guard(lib);
			for (u32 n = 0; n < kAnchorsOfHold && at != &item->datas; n++) {
				act(record_of<regular_data, offsetof(regular_data, node)>(at));
				at = at->next;
			}
		}
		if (at != &item->datas)
			seam_cond_resched();
	}
}

template <typename Guard, typename Set>
void enter(Set set, packet_regular *rule, packet_regular_lib *lib, const Choice &choice)
{
	const u32 view = view_of(rule->location);
	const bool wlan = is_wlan(lib);

	rule->anchored = choice.item;
	rule->digest = digest_of(rule);
	if (!choice.by_value) {
		Guard guard(lib);
		set.link(&rule->anchor, rule, view, choice.spot);
		return;
	}
	const u32 type = choice.item->type;
	/* Of most types each value has the type's own slot. */
	const bool special = type_has_wildcard(type) || type == PACKET_ICMPV6_TYPE_EQUAL;
	for_all_values<Guard>(lib, choice.item, [=, &set](regular_data *datum) {
		Spot spot{ type, rule_value(type, datum->value) };
		if (special)
			spot = item_spot(type, spot.value, wlan);
		if (spot.slot != kSlotNever)
			set.link(&datum->anchor, rule, view, spot);
	});
}

template <typename Guard, typename Set>
void leave(Set set, packet_regular *rule, packet_regular_lib *lib)
{
	if (rule->anchor.prev) {
		Guard guard(lib);
		set.unlink(&rule->anchor);
	} else if (regular_item *item = rule->anchored) {
		for_all_values<Guard>(lib, item, [&](regular_data *datum) {
			if (datum->anchor.prev)
				set.unlink(&datum->anchor);
		});
	}
	rule->anchored = nullptr;
}

/** Whether the rule of a copy has more than kFewKeys values of its key. */
bool has_many_keys(const packet_regular *copy)
{
	for (const regular_item *item : items_of(&copy->owner->regular))
		if (item->type == copy->entry->type)
			return item->count > kFewKeys;
	return false;
}

/** The copy that is filed under a datum, if it is anchored by its key. */
packet_regular *anchored_copy(list_head *node)
{
	packet_regular *copy = record_of<regular_data, offsetof(regular_data, node)>(node)->filed;

	return copy && copy->anchor.prev ? copy : nullptr;
}

/** A rule or a copy that is not anchored yet. */
void prepare(packet_regular *rule)
{
	rule->anchored = nullptr;
	rule->anchor.prev = nullptr;
}

/**
 * Whether a copy with further conditions is anchored by its key; sets its digest. If
 * not, it is anchored by one of these, or no frame satisfies it.
 */
[[gnu::noinline]] bool better_by_key(packet_regular *copy, u32 view, const Spot &key,
				     packet_regular_lib *lib)
{
	FilterBuckets set(&lib->filter, lib->filter_buckets);

	if (key.slot == kSlotAlways || !has_many_keys(copy)) {
		Choice best = choice_of_spot(set, view, key, nullptr);
		if (!choose(set, copy, view, is_wlan(lib), &best))
			return false;
		if (best.item) {
			enter<HookGuard>(set, copy, lib, best);
			return false;
		}
	}
	copy->digest = digest_of(copy);
	return true;
}

} // namespace

void index_choose_seeds()
{
	g_index_seeds.low = seam_random() | 1;
	g_index_seeds.high = seam_random() | 1;
	for (auto &view : g_index_seeds.slot)
		for (u32 &slot : view)
			slot = seam_random();
}

void CopyAnchors::enter_copy(packet_regular *copy)
{
	const u32 view = view_of(copy->location);

	prepare(copy);
	/* Local treatments never answer a hook. */
	if (treatment_local(copy->treatment))
		return;
	Spot key = key_spot(*copy->entry, is_wlan(lib_));
	if (key.slot == kSlotNever)
		return;
	copy->digest = kEmptyDigest;
	/* With one condition there is no choice. */
	if (!list_empty(&copy->items) && !better_by_key(copy, view, key, lib_))
		return;
	rule_anchor *anchor = &copy->anchor;
	FilterBuckets::fill(anchor, copy, view, key);
	anchor->next = nullptr;
	*last_ = anchor;
	last_ = &anchor->next;
	if (++count_ == kAnchorsOfHold)
		link_all();
}

void CopyAnchors::link_all()
{
	FilterBuckets set(&lib_->filter, lib_->filter_buckets);

	if (!first_)
		return;
	HookGuard guard(lib_);
	while (rule_anchor *anchor = first_) {
		first_ = anchor->next;
		set.link_filled(anchor);
	}
	last_ = &first_;
	count_ = 0;
}

list_head *index_leave_copies(regular_item *item, list_head *from, packet_regular_lib *lib)
{
	FilterBuckets set(&lib->filter, lib->filter_buckets);
	list_head *at = from;
	u32 n = 0;

	/* No lock for data without anchored copies. */
	while (n < kAnchorsOfHold && at != &item->datas && !anchored_copy(at)) {
		at = at->next;
		n++;
	}
	if (n == kAnchorsOfHold || at == &item->datas)
		return at;
	HookGuard guard(lib);
	for (; n < kAnchorsOfHold && at != &item->datas; at = at->next, n++) {
		if (packet_regular *copy = anchored_copy(at)) {
			set.unlink(&copy->anchor);
			copy->anchored = nullptr;
		}
	}
	return at;
}

void index_leave_anchored(packet_regular *copy, packet_regular_lib *lib)
{
	leave<HookGuard>(FilterBuckets(&lib->filter, lib->filter_buckets), copy, lib);
}

void index_enter_rule(packet_regular *rule, packet_regular_lib *lib)
{
	DeliveryBuckets set(&lib->delivery, lib->delivery_buckets);
	const bool wlan = is_wlan(lib);
	const u32 view = view_of(rule->location);

	prepare(rule);
	/* A rule without a treatment or without conditions gets no frame. */
	if (rule->treatment == PACKET_TREATMENT_NONE || !rule->owner || list_empty(&rule->items))
		return;
	Choice best = choice_of_spot(set, view, { kSlotAlways, {} }, nullptr);
	if (choose(set, rule, view, wlan, &best))
		enter<NoGuard>(set, rule, lib, best);
}

void index_leave_rule(packet_regular *rule, packet_regular_lib *lib)
{
	leave<NoGuard>(DeliveryBuckets(&lib->delivery, lib->delivery_buckets), rule, lib);
}

} // namespace mox
