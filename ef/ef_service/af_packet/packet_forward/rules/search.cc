// SPDX-License-Identifier: GPL-2.0
#include "rules/search.hpp"

namespace mox {
namespace {

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
	return items_pass(info, copy, copy.anchored) &&
	       (!copy.anchored || key_passes(info, *copy.entry));
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
		look_in_view(load(lib_->filter.present[0]), 0);
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
				look_in_view(present, view);
		}
	}

	[[gnu::always_inline]] void look_in_view(u32 present, u32 view)
	{
		for_probes_of_view<kFilterBits>(
			info_, present, lib_->filter_buckets,
			view, [this](const Probe &probe) __attribute__((always_inline)) {
				guard_.take();
				const rule_anchor *at =
					lib_->filter_buckets[probe.hash >> (32 - kFilterBits)];
				/* Most often what the bucket holds is of other values. */
				while (at && at->hash != probe.hash)
					at = at->next;
				if (at)
					try_chain(at, probe);
			});
	}

	/** The candidates of a value, of which at has the hash; most often there is one. */
	[[gnu::noinline]] void try_chain(const rule_anchor *at, const Probe &probe)
	{
		while (!probe.same(at)) {
			do
				at = at->next;
			while (at && at->hash != probe.hash);
			if (!at)
				return;
		}
		if (!ends_at(at->rule) && at->next)
			try_crowd(at->next, probe);
	}

	/** Those behind one that has failed. */
	[[gnu::noinline]] void try_crowd(const rule_anchor *at, const Probe &probe)
	{
		FrameDigest<Info> digest(info_);

		for (; at; at = at->next) {
			if (at->hash != probe.hash || !digest.may_satisfy(at->rule->digest))
				continue;
			if (probe.same(at) && ends_at(at->rule))
				return;
		}
	}

	/** Whether a candidate ends the search of its chain, which is in the order of the list. */
	[[gnu::always_inline]] bool ends_at(const packet_regular *copy)
	{
		if (first_ && !copy_before(copy, first_))
			return true;
		if (behind_ && !key_before(behind_, copy->entry))
			return false;
		if (!copy_passes(info_, *copy))
			return false;
		first_ = copy;
		return true;
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
	: info_(info), digest_(info)
{
	const u32 views = lib->delivery.reserved_views ? RULE_VIEWS : 1;

	for (u32 view = 0; view < views; view++) {
		u32 present = lib->delivery.present[view];
		if (view != 0 && (present == 0 || !sees_view(info, view)))
			continue;
		for_probes_of_view<kDeliveryBits>(
			info, present, lib->delivery_buckets,
			view, [&](const Probe &probe) __attribute__((always_inline)) {
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
	while (at && (at->hash != probe.hash ||
		      (failed_ && !digest_.may_satisfy(at->rule->digest)) || !probe.same(at)));
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
		if (first->owner->vsd == 0 && items_pass(info_, *first, first->anchored))
			return first;
		failed_ = true;
	}
	return nullptr;
}

template class MatchingRules<pkt_info>;
template class MatchingRules<pkt_wlan_info>;

} // namespace mox

using namespace mox;

extern "C" {

u32 pkt_fast_filter(const pkt_info *info, const packet_regular_lib *lib)
{
	return decide<HeldGuard>(*info, lib);
}

u32 pkt_wlan_fast_filter(const pkt_wlan_info *info)
{
	return decide<HeldGuard>(*info, &g_wlan_packet_regular_lib);
}
} // extern "C"
