// SPDX-License-Identifier: GPL-2.0
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

TEST_F(Index, buckets_change_with_the_seeds)
{
	u32 before = index_hash(0, PACKET_ETH_PROT_EQUAL, { 0x0008, 0 });
	index_choose_seeds();
	EXPECT_NE(index_hash(0, PACKET_ETH_PROT_EQUAL, { 0x0008, 0 }), before);
}

} // namespace
