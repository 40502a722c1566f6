// SPDX-License-Identifier: GPL-2.0-only
// The index beside the lists of a library. The random tests of the library recount it
// after each step; here stand the cases that they are not sure to reach.
#include "rules/index.hpp"
#include "rules_fixture.h"

namespace {

class Index : public RulesTest {
protected:
	// Anchors of the library's buckets for hooks, and the longest chain.
	struct Chains {
		u32 anchors = 0, longest = 0;
	};
	static Chains chains(const packet_regular_lib *lib)
	{
		Chains out;
		for (const rule_anchor *at : lib->filter_buckets) {
			u32 length = 0;
			for (; at; at = at->next)
				length++;
			out.anchors += length;
			out.longest = std::max(out.longest, length);
		}
		return out;
	}
};

// Rules that share one condition are anchored by the other one, whichever is the key.
TEST_F(Index, shared_condition__anchors_spread)
{
	const std::vector<u8> shared{ 8, 0 };
	struct {
		u32 first, second;
		bool first_is_own;
	} const shapes[] = {
		{ PACKET_ETH_PROT_EQUAL, PACKET_IPv4_DEST_PORT_EQUAL, false },
		{ PACKET_IPv4_DEST_PORT_EQUAL, PACKET_ETH_PROT_EQUAL, true },
		{ PACKET_SRC_INTF_EQUAL, PACKET_ETH_PROT_EQUAL, true },
		{ PACKET_ETH_PROT_EQUAL, PACKET_SRC_INTF_EQUAL, false },
		{ PACKET_SRC_INTF_EQUAL, PACKET_ETH_PROT_EQUAL, false },
	};
	for (auto &shape : shapes) {
		std::vector<std::unique_ptr<Rule>> rules;
		for (u32 n = 0; n < 1024; n++) {
			std::vector<u8> own{ u8(n), u8(0x10 + (n >> 8)) };
			auto rule = std::make_unique<Rule>(PACKET_LEV2_LOC, PACKET_COPY);
			rule->data(shape.first, shape.first_is_own ? own : shared);
			rule->data(shape.second, shape.first_is_own ? shared : own);
			rule->add();
			rules.push_back(std::move(rule));
		}
		Chains seen = chains(&g_lev2_packet_regular_lib);
		EXPECT_EQ(seen.anchors, 1024u);
		EXPECT_LT(seen.longest, 12u) << "keys of type " << shape.first;
	}
}

// The copies of a rule whose key has many values are found by the key, however crowded it is: by
// a condition that they share, a frame would have to be compared with all of them.
TEST_F(Index, many_keys__anchor_by_the_key)
{
	const std::vector<u8> own{ 2, 0, 0, 0, 0, 9 };
	for (u32 keys : { 1u, 2u, 3u, 100u }) {
		std::vector<std::unique_ptr<Rule>> others;
		for (u32 n = 0; n < 20; n++) {
			others.push_back(std::make_unique<Rule>(PACKET_LEV2_LOC, PACKET_COPY));
			for (u32 key = 0; key < keys; key++)
				others.back()->data(PACKET_ETH_PROT_EQUAL, { 0x90, u8(key) });
			others.back()->add();
		}
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		for (u32 key = 0; key < keys; key++)
			rule.data(PACKET_ETH_PROT_EQUAL, { 0x90, u8(key) });
		rule.data(PACKET_SRC_MAC_EQUAL, own).add();
		u32 by_key = 0, by_item = 0;
		for (const regular_item *item : items_of(&rule.regular()))
			for (const regular_data *datum : datas_of(item))
				if (datum->filed)
					(datum->filed->anchored ? by_item : by_key)++;
		EXPECT_EQ(by_key, keys > kFewKeys ? keys : 0);
		EXPECT_EQ(by_item, keys > kFewKeys ? 0 : keys);
	}
}

TEST_F(Index, buckets_change_with_the_seeds)
{
	u32 before = index_hash(0, PACKET_ETH_PROT_EQUAL, { 0x0008, 0 });
	index_choose_seeds();
	EXPECT_NE(index_hash(0, PACKET_ETH_PROT_EQUAL, { 0x0008, 0 }), before);
}

} // namespace
