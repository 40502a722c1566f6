// SPDX-License-Identifier: GPL-2.0
#include "rules/match.hpp"

#include "rules/index.hpp"
#include "rules/ranges.hpp"
#include "rules/values.hpp"

namespace mox {
namespace {

/** A value of PACKET_PID_T that excludes every packet with an attribute. */
constexpr u32 kAnyAttr = 0xFFFFFFFFu;

constexpr u8 kProtoIgmp = 2;

/** Multicast listener messages, which a rule for traffic leaves out. */
bool is_mld(u8 icmpv6_type)
{
	return (icmpv6_type >= 130 && icmpv6_type <= 132) || icmpv6_type == 143;
}

bool ipv4_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv4) || info.ip_proto == kProtoIgmp)
		return false;
	u32 dst = __builtin_bswap32(info.ipv4_dst);
	/* 224.0.0.0/24 is control traffic of the link. */
	return dst >= 0xE0000100u && dst <= 0xEFFFFFFFu;
}

bool ipv6_mcast_traffic(const pkt_info &info)
{
	if (!(info.flags & pkt_flag::kIpv6) || !info.ipv6_dst)
		return false;
	return info.ipv6_dst[0] == 0xFF && (info.ipv6_dst[1] & 0x0F) >= 3 &&
	       !is_mld(info.icmpv6_type);
}

bool wlan_wps(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kEapol) && (info.flags & pkt_flag::kWps);
}

bool wlan_mgmt(const pkt_wlan_info &info)
{
	return (info.flags & pkt_flag::kWlan80211) && (info.flags & pkt_flag::kWlanMgmt);
}

/**
 * PACKET_PID_T excludes: it fails when a value names the packet's attribute, and
 * without values, as any item does.
 */
bool not_excluded(const regular_item &item, u32 attr)
{
	if (list_empty(&item.datas))
		return false;
	if (item.count == 1) {
		const u32 excluded = field<u32>(item.root->value, 0);
		return excluded != attr && (excluded != kAnyAttr || attr == 0);
	}
	if (item_value(&item, { attr, 0 }))
		return false;
	return attr == 0 || !item_value(&item, { kAnyAttr, 0 });
}

/** Whether the frame has one of the item's values; an item without values passes for no packet. */
template <typename Info> bool has_value(const Info &info, const regular_item &item)
{
	Value value;

	if (!frame_value(info, item.type, &value))
		return false;
	if (item_value(&item, value))
		return true;
	return type_has_wildcard(item.type) && item_value(&item, kAnyEthType);
}

bool item_passes(const pkt_info &info, const regular_item &item)
{
	switch (item.type) {
	case PACKET_IPv4_MCAST_TRAFFIC:
		return ipv4_mcast_traffic(info);
	case PACKET_IPv6_MCAST_TRAFFIC:
		return ipv6_mcast_traffic(info);
	case PACKET_ALL:
		return true;
	case PACKET_PID_T:
		return not_excluded(item, info.attr);
	default:
		/* PACKET_EAPOL_TYPE_WPS and PACKET_WLAN_MGNT never match outside WLAN. */
		return has_value(info, item);
	}
}

bool item_passes(const pkt_wlan_info &info, const regular_item &item)
{
	switch (item.type) {
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_ALL:
		return true;
	case PACKET_PID_T:
		return not_excluded(item, info.attr);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	default:
		return has_value(info, item);
	}
}

/** All items must pass; a rule without items matches nothing. */
template <typename Info> int rule_match(const Info &info, const packet_regular &regular)
{
	if (list_empty(&regular.items))
		return 0;
	for (const regular_item *item : items_of(&regular))
		if (!item_passes(info, *item))
			return 0;
	return 1;
}

/**
 * Whether all items of an anchored rule or copy pass. The anchored one is known to.
 * Exclusion first: of rules that many frames would match it is what differs, and it
 * costs least.
 */
template <typename Info> inline bool items_pass(const Info &info, const packet_regular &regular)
{
	if (regular.excluding && !not_excluded(*regular.excluding, info.attr))
		return false;
	for (const regular_item *item : items_of(&regular))
		if (item != regular.anchored && item != regular.excluding &&
		    !item_passes(info, *item))
			return false;
	return true;
}

/** Whether the frame has a key's value. */
template <typename Info> bool has_key(const Info &info, const filter_list_data &key)
{
	Value wanted = rule_value(key.type, key.value);
	Value value;

	if (!frame_value(info, key.type, &value))
		return false;
	return value == wanted || (type_has_wildcard(key.type) && wanted == kAnyEthType);
}

/**
 * A key of the filter list, tested alone. Some tests are looser or narrower
 * than the rule match of the same type; callers have come to rely on it, so
 * both stay as they are.
 */
bool key_passes(const pkt_info &info, const filter_list_data &key)
{
	switch (key.type) {
	case PACKET_ICMPV6_TYPE_EQUAL:
		/* Also 0, which every packet without ICMPv6 has. */
		return key.value[0] == info.icmpv6_type;
	case PACKET_IPv4_MCAST_TRAFFIC:
		return ipv4_mcast_traffic(info);
	case PACKET_IPv6_MCAST_TRAFFIC:
		return ipv6_mcast_traffic(info);
	case PACKET_EAPOL_TYPE_WPS:
		return false;
	case PACKET_ALL:
	case PACKET_PID_T:
	case PACKET_WLAN_MGNT:
		return true;
	case PACKET_ARP_TYPE:
		/* One byte against the whole operation word: above 255 never passes. */
		return info.arp_op != 0 && key.value[0] == info.arp_op;
	default:
		return key.type >= MOX_PACKET_RULE_TYPES || has_key(info, key);
	}
}

bool key_passes(const pkt_wlan_info &info, const filter_list_data &key)
{
	switch (key.type) {
	case PACKET_EAPOL_TYPE_WPS:
		return wlan_wps(info);
	case PACKET_WLAN_MGNT:
		return wlan_mgmt(info);
	case PACKET_ALL:
		return true;
	default:
		return key.type < MOX_PACKET_RULE_TYPES && has_key(info, key);
	}
}

/** Where a frame looks in an index: a value in a slot of a view. */
struct Probe {
	u32 hash;
	u32 spot;
	Value value;

	bool found(const rule_anchor *at) const
	{
		return at->hash == hash && at->low == value.low && at->high == value.high &&
		       at->spot == spot;
	}
};

/** Whether a frame looks into a slot, and for which value. */
[[gnu::always_inline]] inline bool probes_slot(const pkt_info &info, u32 slot, Value *value)
{
	switch (slot) {
	case kSlotAlways:
		return true;
	case kSlotSnap:
		return info.flags & pkt_flag::kSnap;
	case kSlotIpv4Mcast:
		return ipv4_mcast_traffic(info);
	case kSlotIpv6Mcast:
		return ipv6_mcast_traffic(info);
	case PACKET_ICMPV6_TYPE_EQUAL:
		/* Also without ICMPv6: a key of 0 passes for such frames. */
		value->low = info.icmpv6_type;
		return true;
	default:
		return frame_value(info, slot, value);
	}
}

[[gnu::always_inline]] inline bool probes_slot(const pkt_wlan_info &info, u32 slot, Value *value)
{
	switch (slot) {
	case kSlotAlways:
		return true;
	case kSlotWps:
		return wlan_wps(info);
	case kSlotWlanMgmt:
		return wlan_mgmt(info);
	default:
		return frame_value(info, slot, value);
	}
}

/** The views of a reserved interface that a frame is addressed to. */
bool sees_view(const pkt_info &info, u32 view)
{
	return addressed_to_reserved(kLastLocation + view, info.efbuff);
}

bool sees_view(const pkt_wlan_info &, u32)
{
	/* The WLAN location is the only one of its library. */
	return false;
}

/**
 * Calls look(probe) for each bucket of a set that may hold a rule for the frame, and
 * has an anchor. Runs without the lock under which chains change, if look takes that
 * before it follows a chain, whose head it reads anew. In line: this is what a frame
 * costs that no rule matches.
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
		if (load(heads[hash >> (32 - bits)]))
			look(Probe{ hash, view * kSlots + slot, value });
	}
}

/** Whether a copy passes of which the anchored condition, the key or an item, is known to. */
template <typename Info> inline bool copy_passes(const Info &info, const packet_regular &copy)
{
	if (copy.owner->vsd != 0)
		return false;
	/* A copy without items had no condition but its key. */
	return items_pass(info, copy) && (!copy.anchored || key_passes(info, *copy.entry));
}

/** The read lock of a library, taken when it is first needed. */
class LazyReadGuard : Pinned {
public:
	explicit LazyReadGuard(packet_regular_lib *lib) : lib_(lib) {}
	~LazyReadGuard() SEAM_NO_THREAD_SAFETY_ANALYSIS
	{
		if (taken_)
			seam_read_unlock(&lib_->lock);
	}
	void take() SEAM_NO_THREAD_SAFETY_ANALYSIS
	{
		if (taken_)
			return;
		seam_read_lock(&lib_->lock);
		taken_ = true;
	}

private:
	packet_regular_lib *lib_;
	bool taken_ = false;
};

/** The caller holds the lock. */
class HeldGuard : Pinned {
public:
	explicit HeldGuard(const packet_regular_lib *) {}
	void take() {}
};

/** The search of a fast filter for the first copy that passes, in the order of keys and copies. */
template <typename Info, typename Guard> class FirstCopy {
public:
	/** behind: of keys behind that one only; null for all. */
	FirstCopy(const Info &info, const packet_regular_lib *lib, Guard &guard,
		  const filter_list_data *behind)
		: info_(info), lib_(lib), guard_(guard), behind_(behind)
	{
	}

	[[gnu::always_inline]] const packet_regular *find()
	{
		for_probes_of_view<kFilterBits>(info_, load(lib_->filter.present[0]),
						lib_->filter_buckets, 0,
						[this](const Probe &probe) { look(probe); });
		if (__builtin_expect(load(lib_->filter.reserved_views) != 0, false))
			find_reserved();
		return first_;
	}

private:
	[[gnu::noinline]] void find_reserved()
	{
		for (u32 view = 1; view < RULE_VIEWS; view++) {
			u32 present = load(lib_->filter.present[view]);
			if (present != 0 && sees_view(info_, view))
				for_probes_of_view<kFilterBits>(
					info_, present, lib_->filter_buckets, view,
					[this](const Probe &probe) { look(probe); });
		}
	}

	[[gnu::always_inline]] void look(const Probe &probe)
	{
		guard_.take();
		const rule_anchor *at = lib_->filter_buckets[probe.hash >> (32 - kFilterBits)];
		for (; at; at = at->next) {
			if (!probe.found(at))
				continue;
			const packet_regular *copy = at->rule;
			if (first_ && !copy_before(copy, first_))
				return;
			if (behind_ && !key_before(behind_, copy->entry))
				continue;
			if (copy_passes(info_, *copy)) {
				first_ = copy;
				return;
			}
		}
	}

	const Info &info_;
	const packet_regular_lib *const lib_;
	Guard &guard_;
	const filter_list_data *const behind_;
	const packet_regular *first_ = nullptr;
};

template <typename Info, typename Guard>
[[gnu::noinline]] const packet_regular *first_copy_behind(const Info &info,
							  const packet_regular_lib *lib,
							  Guard &guard,
							  const filter_list_data *behind)
{
	return FirstCopy<Info, Guard>(info, lib, guard, behind).find();
}

template <typename Guard, typename Info, typename Library>
inline u32 decide(const Info &info, Library *lib)
{
	Guard guard(lib);
	const packet_regular *first = FirstCopy<Info, Guard>(info, lib, guard, nullptr).find();

	if (!first)
		return PACKET_TREATMENT_NONE;
	/* A copy without a treatment would leave the decision to the next key. */
	while (__builtin_expect(first && first->treatment == PACKET_TREATMENT_NONE, false))
		first = first_copy_behind(info, lib, guard, first->entry);
	return first ? first->treatment : u32{ PACKET_TREATMENT_NONE };
}

} // namespace

u32 filter_frame(const pkt_info &info, packet_regular_lib *lib)
{
	return decide<LazyReadGuard>(info, lib);
}

u32 filter_frame(const pkt_wlan_info &info, packet_regular_lib *lib)
{
	return decide<LazyReadGuard>(info, lib);
}

template <typename Info>
MatchingRules<Info>::MatchingRules(const Info &info, const packet_regular_lib *lib)
	: info_(info), count_(0)
{
	const u32 views = lib->delivery.reserved_views ? RULE_VIEWS : 1;

	for (u32 view = 0; view < views; view++) {
		u32 present = lib->delivery.present[view];
		if (view != 0 && (present == 0 || !sees_view(info, view)))
			continue;
		for_probes_of_view<kDeliveryBits>(
			info, present, lib->delivery_buckets, view, [&](const Probe &probe) {
				const rule_anchor *at =
					lib->delivery_buckets[probe.hash >> (32 - kDeliveryBits)];
				while (at && !probe.found(at))
					at = at->next;
				if (at)
					heads_[count_++] = at;
			});
	}
}

template <typename Info> void MatchingRules<Info>::advance(u32 chain)
{
	const rule_anchor *at = heads_[chain];
	const Probe probe{ at->hash, at->spot, { at->low, at->high } };

	do
		at = at->next;
	while (at && !probe.found(at));
	if (at)
		heads_[chain] = at;
	else
		heads_[chain] = heads_[--count_];
}

template <typename Info> packet_regular *MatchingRules<Info>::search()
{
	while (count_ != 0) {
		packet_regular *first = heads_[0]->rule;
		for (u32 chain = 1; chain < count_; chain++)
			if (rule_before(heads_[chain]->rule, first))
				first = heads_[chain]->rule;
		/* A rule with a wildcard beside other values may be in two chains. */
		for (u32 chain = count_; chain-- > 0;)
			if (heads_[chain]->rule == first)
				advance(chain);
		if (first->owner->vsd == 0 && items_pass(info_, *first))
			return first;
	}
	return nullptr;
}

template class MatchingRules<pkt_info>;
template class MatchingRules<pkt_wlan_info>;

} // namespace mox

using namespace mox;

extern "C" {

int pkt_rule_match(const pkt_info *info, const packet_regular *regular)
{
	return rule_match(*info, *regular);
}

int pkt_wlan_rule_match(const pkt_wlan_info *info, const packet_regular *regular)
{
	return rule_match(*info, *regular);
}

u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
{
	return decide<HeldGuard>(*info, lib);
}

u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
{
	return decide<HeldGuard>(*info, &g_wlan_packet_regular_lib);
}
} // extern "C"
