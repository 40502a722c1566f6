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

/** Whether the key and the copy that is filed under it pass. */
template <typename Info> bool copy_passes(const Info &info, const packet_regular &copy)
{
	if (copy.owner->vsd != 0 || !key_passes(info, *copy.entry))
		return false;
	/* A copy without items had no condition but its key. */
	return list_empty(&copy.items) || rule_match(info, copy);
}

/** Whether a frame is of a slot that is a class of frames. */
bool in_class(const pkt_info &info, u32 slot)
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
	default:
		return false;
	}
}

bool in_class(const pkt_wlan_info &info, u32 slot)
{
	switch (slot) {
	case kSlotAlways:
		return true;
	case kSlotWps:
		return wlan_wps(info);
	case kSlotWlanMgmt:
		return wlan_mgmt(info);
	default:
		return false;
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
 * Calls found(hash, head) for each bucket of a set that may hold a rule for the
 * frame, and has an anchor. May run without the lock under which chains change,
 * if found does not follow the chain.
 */
template <u32 bits, typename Info, typename Found>
void for_buckets_of_view(const Info &info, const rule_index &index, rule_anchor *const *heads,
			 u32 view, Found found)
{
	for (u32 left = load(index.present[view]); left != 0; left &= left - 1) {
		u32 slot = static_cast<u32>(__builtin_ctz(left));
		Value value{};
		if (slot < MOX_PACKET_RULE_TYPES ? !frame_value(info, slot, &value)
						 : !in_class(info, slot))
			continue;
		u32 hash = index_hash(view, slot, value);
		if (rule_anchor *head = load(heads[hash >> (32 - bits)]))
			found(hash, head);
	}
}

template <u32 bits, typename Info, typename Found>
void for_buckets(const Info &info, const rule_index &index, rule_anchor *const *heads, Found found)
{
	for_buckets_of_view<bits>(info, index, heads, 0, found);
	if (load(index.reserved_views) == 0)
		return;
	for (u32 view = 1; view < RULE_VIEWS; view++)
		if (load(index.present[view]) != 0 && sees_view(info, view))
			for_buckets_of_view<bits>(info, index, heads, view, found);
}

template <typename Info>
void look(const Info &info, const packet_regular_lib *lib, FilterCandidates *candidates)
{
	u32 count = 0;

	for_buckets<kFilterBits>(info, lib->filter, lib->filter_buckets,
				 [&](u32 hash, const rule_anchor *) {
					 candidates->hashes[count++] = hash;
				 });
	candidates->count = count;
}

/** The first copy that passes, in the order of keys and copies; behind a key, if it is not null. */
template <typename Info>
const packet_regular *first_copy(const Info &info, const packet_regular_lib *lib,
				 const FilterCandidates &candidates, const filter_list_data *behind)
{
	const packet_regular *first = nullptr;

	for (u32 n = 0; n < candidates.count; n++) {
		const u32 hash = candidates.hashes[n];
		const rule_anchor *at = lib->filter_buckets[hash >> (32 - kFilterBits)];
		for (; at; at = at->next) {
			const packet_regular *copy = at->rule;
			if (at->hash != hash)
				continue;
			if (first && !copy_before(copy, first))
				break;
			if (behind && !key_before(behind, copy->entry))
				continue;
			if (copy_passes(info, *copy)) {
				first = copy;
				break;
			}
		}
	}
	return first;
}

template <typename Info>
u32 decide(const Info &info, const packet_regular_lib *lib, const FilterCandidates &candidates)
{
	const packet_regular *first = first_copy(info, lib, candidates, nullptr);

	/* A copy without a treatment would leave the decision to the next key. */
	while (first && first->treatment == PACKET_TREATMENT_NONE)
		first = first_copy(info, lib, candidates, first->entry);
	return first ? first->treatment : u32{ PACKET_TREATMENT_NONE };
}

} // namespace

void filter_look(const pkt_info &info, const packet_regular_lib *lib, FilterCandidates *candidates)
{
	look(info, lib, candidates);
}

void filter_look(const pkt_wlan_info &info, const packet_regular_lib *lib,
		 FilterCandidates *candidates)
{
	look(info, lib, candidates);
}

u32 filter_decide(const pkt_info &info, const packet_regular_lib *lib,
		  const FilterCandidates &candidates)
{
	return decide(info, lib, candidates);
}

u32 filter_decide(const pkt_wlan_info &info, const packet_regular_lib *lib,
		  const FilterCandidates &candidates)
{
	return decide(info, lib, candidates);
}

template <typename Info>
MatchingRules<Info>::MatchingRules(const Info &info, const packet_regular_lib *lib)
	: info_(info), count_(0)
{
	for_buckets<kDeliveryBits>(info, lib->delivery, lib->delivery_buckets,
				   [&](u32 hash, const rule_anchor *at) {
					   while (at && at->hash != hash)
						   at = at->next;
					   if (at)
						   heads_[count_++] = at;
				   });
}

template <typename Info> void MatchingRules<Info>::advance(u32 chain)
{
	const rule_anchor *at = heads_[chain];
	const u32 hash = at->hash;

	do
		at = at->next;
	while (at && at->hash != hash);
	if (at)
		heads_[chain] = at;
	else
		heads_[chain] = heads_[--count_];
}

template <typename Info> packet_regular *MatchingRules<Info>::next()
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
		if (first->owner->vsd == 0 && rule_match(info_, *first))
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
	FilterCandidates candidates;
	look(*info, lib, &candidates);
	return decide(*info, lib, candidates);
}

u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
{
	FilterCandidates candidates;
	look(*info, &g_wlan_packet_regular_lib, &candidates);
	return decide(*info, &g_wlan_packet_regular_lib, candidates);
}
} // extern "C"
