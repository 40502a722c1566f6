// SPDX-License-Identifier: GPL-2.0-only
/*
 * The conditions of a rule as one number, and those of a frame: candidates of a crowded
 * bucket that fail a condition of one value are passed over with two comparisons, however
 * many conditions they have.
 *
 * A digest holds the conditions with one value, but for the anchored one, which is known
 * to pass. A frame that satisfies them has the same digest; the reverse holds but for
 * equal sums of seeded hashes, so what has the same digest is compared whole. Most rules
 * have one condition of one value besides the anchored one, or none: that one stands in
 * the digest as it is, and is all there is to compare.
 */
#pragma once

#include "rules/conditions.hpp"
#include "rules/index.hpp"

namespace mox {

/** In rule_digest::types: the rule excludes one attribute. */
inline constexpr u32 kDigestExcludes = 1u << 31;
static_assert(MOX_PACKET_RULE_TYPES < 31);

/** In rule_digest::only: no condition but the anchored one, and more than one or one of another kind. */
inline constexpr u32 kDigestNothing = MOX_PACKET_RULE_TYPES;
inline constexpr u32 kDigestMore = MOX_PACKET_RULE_TYPES + 1;
/** Of a rule without further conditions. */
inline constexpr rule_digest kEmptyDigest = { 0, 0, 0, kDigestNothing, 0, 0 };

/** Keys that pass for other frames than a condition of their value: rules/conditions.hpp. */
constexpr bool key_is_loose(u32 type)
{
	return type == PACKET_ICMPV6_TYPE_EQUAL || type == PACKET_ARP_TYPE || type == PACKET_PID_T;
}

/**
 * Whether the digest of a rule tells that a frame fails a condition with one value of a
 * type, whatever the value is and whether it is the key or not.
 */
constexpr bool digest_decides(u32 type)
{
	if (type == PACKET_PID_T || type == PACKET_ALL)
		return true;
	/* Any SNAP type is a condition too. */
	return type_is_compared(type) && !key_is_loose(type) && type != PACKET_SNAP_ETH_TYPE_EQUAL;
}

/** The part of one value. Not linear, else users could choose values whose sums are equal. */
inline u32 digest_part(u32 type, const Value &value)
{
	const u32 hash = index_hash(0, type, value);

	return hash ^ hash >> 15;
}

/** The digest of a rule or copy whose anchored condition is set. */
rule_digest digest_of(const packet_regular *rule);

/**
 * Whether a frame satisfies all conditions of a rule or copy but the anchored one, as
 * far as the digest holds them exactly: 1 or 0, and -1 when its items have to be asked.
 */
template <typename Info>
[[gnu::always_inline]] inline int satisfies(const Info &info, const rule_digest &rule)
{
	if (rule.only == kDigestNothing)
		return 1;
	if (rule.only == kDigestMore)
		return -1;
	Value value{};
	return frame_value(info, rule.only, &value) && value == Value{ rule.low, rule.high };
}

/** What a frame has of the conditions of digests, each type read once. */
template <typename Info> class FrameDigest {
public:
	explicit FrameDigest(const Info &info) : info_(info) {}
	/** To be called first. Until then it costs nothing to have one. */
	void start()
	{
		types_ = 0;
		sum_ = 0;
		known_ = 0;
	}

	/** False when the frame fails one of the conditions. */
	[[gnu::always_inline]] bool may_satisfy(const rule_digest &rule)
	{
		if (rule.types != types_)
			sum_up(rule.types);
		if (rule.sum != sum_)
			return false;
		return !(rule.types & kDigestExcludes) || !excludes(rule.excluded, info_.attr);
	}

private:
	[[gnu::noinline]] void sum_up(u32 types)
	{
		types_ = types;
		sum_ = 0;
		for (u32 left = types & ~kDigestExcludes; left != 0; left &= left - 1) {
			const u32 type = static_cast<u32>(__builtin_ctz(left));
			if (!(known_ & 1u << type))
				learn(type);
			sum_ += parts_[type];
		}
	}

	[[gnu::noinline]] void learn(u32 type)
	{
		Value value;

		known_ |= 1u << type;
		/* Without a value any part will do: what follows compares exactly. */
		parts_[type] = frame_value(info_, type, &value) ? digest_part(type, value) : 0;
	}

	const Info &info_;
	u32 types_;
	u32 sum_;
	u32 known_; /* a bit for each type whose part is there */
	u32 parts_[MOX_PACKET_RULE_TYPES];
};

} // namespace mox
