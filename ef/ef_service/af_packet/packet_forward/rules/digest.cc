// SPDX-License-Identifier: GPL-2.0-only
#include "rules/digest.hpp"

namespace mox {
namespace {

/** A condition of one value that is compared as it is. */
void add_value(rule_digest *digest, u32 type, const void *bytes)
{
	const Value value = rule_value(type, bytes);
	const bool first = digest->only == kDigestNothing;

	digest->only = kDigestMore;
	if (type_has_wildcard(type) && value == kAnyEthType)
		return;
	digest->types |= 1u << type;
	digest->sum += digest_part(type, value);
	if (!first)
		return;
	digest->only = type;
	digest->low = value.low;
	digest->high = value.high;
}

void add_item(rule_digest *digest, const regular_item &item)
{
	const bool single = item.count == 1;

	/* Every frame satisfies it. */
	if (item.type == PACKET_ALL)
		return;
	if (single && type_is_compared(item.type)) {
		add_value(digest, item.type, item.root->value);
		return;
	}
	digest->only = kDigestMore;
	if (single && item.type == PACKET_PID_T) {
		digest->types |= kDigestExcludes;
		digest->excluded = field<u32>(item.root->value, 0);
	}
}

/** The key of a copy that is anchored by one of its items. */
void add_key(rule_digest *digest, const filter_list_data &key)
{
	if (key.type == PACKET_ALL)
		return;
	/* Filed under a later item for want of memory, a copy has its key among its items. */
	const bool is_item = key.type < MOX_PACKET_RULE_TYPES &&
			     (digest->types & 1u << key.type) != 0;
	if (!is_item && type_is_compared(key.type) && !key_is_loose(key.type))
		add_value(digest, key.type, key.value);
	else
		digest->only = kDigestMore;
}

/** Conditions that a digest without others holds as they are. */
u32 conditions_of(const rule_digest &digest)
{
	return digest.only == kDigestNothing ? 0 : 1;
}

} // namespace

rule_digest digest_of(const packet_regular *rule)
{
	rule_digest digest = kEmptyDigest;
	u32 others = 0;

	for (const regular_item *item : items_of(rule)) {
		if (item == rule->anchored)
			continue;
		add_item(&digest, *item);
		others++;
	}
	if (rule->entry && rule->anchored)
		add_key(&digest, *rule->entry);
	/* Items without a condition have hits, too, which are found by looking at all items. */
	const bool found_by_value = !rule->entry && rule->anchored;
	if (found_by_value && digest.only != kDigestMore && others != conditions_of(digest))
		digest.only = kDigestMore;
	return digest;
}

} // namespace mox
