// SPDX-License-Identifier: GPL-2.0-only
#include "rules/match.hpp"

#include "rules/conditions.hpp"

namespace mox {
namespace {

/** All items must pass; a rule without items matches nothing. */
template <typename Info> int rule_match(const Info &info, const packet_regular &regular)
{
	return !list_empty(&regular.items) && items_pass(info, regular, nullptr);
}

} // namespace
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
} // extern "C"
