// SPDX-License-Identifier: GPL-2.0-only
#include "rules/search.hpp"

#include "rules/probes.hpp"

namespace mox {
namespace {

/** Whether a copy passes of which the anchored condition, the key or an item, is known to. */
template <typename Info> inline bool copy_passes(const Info &info, const packet_regular &copy)
{
	if (copy.owner->vsd != 0)
		return false;
	const int known = satisfies(info, copy.digest);
	if (known >= 0)
		return known;
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
			info_, present, lib_->filter_buckets, view,
			[this](const Probe &probe,
			       const rule_anchor *) __attribute__((always_inline)) {
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
		digest.start();

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

/** The copy that decides, or null. */
template <typename Guard, typename Info, typename Library>
[[gnu::always_inline]] inline const packet_regular *deciding(const Info &info, Library *lib,
							     Guard &guard)
{
	const packet_regular *first = FirstCopy<Info, Guard>(info, lib, guard, nullptr).find();

	/* A copy without a treatment would leave the decision to the next key. */
	while (__builtin_expect(first && first->treatment == PACKET_TREATMENT_NONE, false))
		first = first_copy_behind(info, lib, guard, first->entry);
	return first;
}

template <typename Guard, typename Info, typename Library>
inline u32 decide(const Info &info, Library *lib)
{
	Guard guard(lib);
	const packet_regular *first = deciding(info, lib, guard);

	return first ? first->treatment : u32{ PACKET_TREATMENT_NONE };
}

template <typename Info>
Decision explain(const Info &info, packet_regular_lib *lib, DescribeSocket describe, void *context)
{
	LazyReadGuard guard(lib);
	const packet_regular *first = deciding(info, lib, guard);
	Decision decision{};

	if (!first)
		return decision;
	decision.treatment = first->treatment;
	decision.key_type = first->entry->type;
	__builtin_memcpy(decision.key, first->entry->value, sizeof(decision.key));
	describe(context, first->owner);
	return decision;
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

Decision explain_frame(const pkt_info &info, packet_regular_lib *lib, DescribeSocket describe,
		       void *context)
{
	return explain(info, lib, describe, context);
}

Decision explain_frame(const pkt_wlan_info &info, packet_regular_lib *lib, DescribeSocket describe,
		       void *context)
{
	return explain(info, lib, describe, context);
}

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
