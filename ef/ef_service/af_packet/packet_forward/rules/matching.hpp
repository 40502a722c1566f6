// SPDX-License-Identifier: GPL-2.0-only
/* The search for all rules that a packet matches, for delivery. */
#pragma once

#include "rules/hits.hpp"
#include "rules/probes.hpp"

namespace mox {

/** Whether a rule matches of which the anchored condition is known to pass. */
template <typename Info>
[[gnu::always_inline]] inline bool matches(const Info &info, const packet_regular &rule)
{
	if (rule.owner->vsd != 0)
		return false;
	const int known = satisfies(info, rule.digest);
	return known < 0 ? items_pass(info, rule, rule.anchored) : known != 0;
}

/**
 * The rules of a library that match a packet and whose socket is of vsd 0, in the
 * library's order; the packet counts as a hit of the values of each that is returned. The
 * library's change lock is held while the object lives; info outlives it.
 */
template <typename Info> class MatchingRules {
public:
	MatchingRules(const Info &info, const packet_regular_lib *lib) : info_(info), lib_(lib) {}
	/** The first one, or null. To be called first, and once. */
	packet_regular *first();
	/** The next one, or null. */
	packet_regular *next() { return count_ != 0 ? search() : nullptr; }

private:
	void look_in_view(u32 present, u32 view);
	void look_in_reserved();
	packet_regular *search();
	const rule_anchor *take_nearest();
	const rule_anchor *take_only();
	/** The rule that an anchor leads to, counted if it matches, else null. */
	[[gnu::always_inline]] packet_regular *matched(const rule_anchor *at)
	{
		packet_regular *rule = at->rule;

		if (!matches(info_, *rule)) {
			fail();
			return nullptr;
		}
		count_hits(info_, rule, at);
		return rule;
	}
	void advance(u32 chain);
	void fail()
	{
		if (!failed_)
			digest_.start();
		failed_ = true;
	}

	const Info &info_;
	const packet_regular_lib *lib_;
	u32 count_;
	/* Where the search goes on in each chain that has candidates. */
	const rule_anchor *heads_[RULE_VIEWS * RULE_SLOTS];
	bool failed_; /* a candidate: digests are compared from then on */
	FrameDigest<Info> digest_{ info_ };
};

template <typename Info>
[[gnu::always_inline]] inline void MatchingRules<Info>::look_in_view(u32 present, u32 view)
{
	for_probes_of_view<kDeliveryBits>(
		info_, present, lib_->delivery_buckets, view,
		[&](const Probe &probe, const rule_anchor *at) __attribute__((always_inline)) {
			while (at && !probe.found(at))
				at = at->next;
			if (at)
				heads_[count_++] = at;
		});
}

template <typename Info> [[gnu::noinline]] void MatchingRules<Info>::look_in_reserved()
{
	for (u32 view = 1; view < RULE_VIEWS; view++) {
		u32 present = lib_->delivery.present[view];
		if (present != 0 && sees_view(info_, view))
			look_in_view(present, view);
	}
}

template <typename Info> [[gnu::always_inline]] inline packet_regular *MatchingRules<Info>::first()
{
	count_ = 0;
	failed_ = false;
	look_in_view(lib_->delivery.present[0], 0);
	if (__builtin_expect(lib_->delivery.reserved_views != 0, false))
		look_in_reserved();
	/* Most often there is one candidate, and it matches. */
	if (count_ == 1) {
		if (packet_regular *rule = matched(take_only()))
			return rule;
	}
	return next();
}

template <typename Info> [[gnu::noinline]] packet_regular *MatchingRules<Info>::search()
{
	while (count_ != 0) {
		if (packet_regular *rule = matched(count_ == 1 ? take_only() : take_nearest()))
			return rule;
	}
	return nullptr;
}

template <typename Info>
[[gnu::always_inline]] inline const rule_anchor *MatchingRules<Info>::take_only()
{
	const rule_anchor *at = heads_[0];

	if (at->next)
		advance(0);
	else
		count_ = 0;
	return at;
}

/** Of the chains' next candidates the one that comes first in the library's order. */
template <typename Info> const rule_anchor *MatchingRules<Info>::take_nearest()
{
	const rule_anchor *first = heads_[0];

	/* A rule with a wildcard beside other values may be in two chains: the exact value counts. */
	for (u32 chain = 1; chain < count_; chain++)
		if (rule_before(heads_[chain]->rule, first->rule) ||
		    (heads_[chain]->rule == first->rule && heads_[chain]->spot < first->spot))
			first = heads_[chain];
	for (u32 chain = count_; chain-- > 0;)
		if (heads_[chain]->rule == first->rule)
			advance(chain);
	return first;
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

} // namespace mox
