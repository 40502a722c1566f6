// SPDX-License-Identifier: GPL-2.0
#include "rules/digest.hpp"

namespace mox {
namespace {

/** A condition of one value that is compared as it is. */
void add_value(rule_digest *digest, u32 type, const void *bytes)
{
	const Value value = rule_value(type, bytes);

	if (type_has_wildcard(type) && value == kAnyEthType)
		return;
	digest->types |= 1u << type;
	digest->sum += digest_part(type, value);
}

void add_item(rule_digest *digest, const regular_item &item)
{
	if (item.count != 1)
		return;
	if (item.type == PACKET_PID_T) {
		digest->types |= kDigestExcludes;
		digest->excluded = field<u32>(item.root->value, 0);
	} else if (item.type < MOX_PACKET_RULE_TYPES && kRuleTypes[item.type].has_value()) {
		add_value(digest, item.type, item.root->value);
	}
}

} // namespace

rule_digest digest_of(const packet_regular *rule)
{
	rule_digest digest{};

	for (const regular_item *item : items_of(rule))
		if (item != rule->anchored)
			add_item(&digest, *item);
	const filter_list_data *key = rule->entry;
	if (key && rule->anchored && key->type < MOX_PACKET_RULE_TYPES &&
	    kRuleTypes[key->type].has_value() && !key_is_loose(key->type))
		add_value(&digest, key->type, key->value);
	return digest;
}

} // namespace mox
