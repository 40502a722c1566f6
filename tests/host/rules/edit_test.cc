// SPDX-License-Identifier: GPL-2.0-only
#include "rules_fixture.h"

namespace {

class RegularEdit : public RulesTest {};

TEST_F(RegularEdit, data_match__widths_and_missing_values)
{
	static const size_t width[20] = {
		2, 6, 6, 2, 2, 1, 1, 2, 2, 2, 4, 1, 0, 0, 1, 1, 0, 4, 0, 2
	};
	const u8 a[8] = { 1, 2, 3, 4, 5, 6, 7, 8 };
	for (u32 type = 0; type < 20; type++) {
		SCOPED_TRACE(type);
		bool any = width[type] == 0;
		EXPECT_TRUE(pkt_regular_data_match(type, a, a));
		EXPECT_EQ(pkt_regular_data_match(type, nullptr, a), any);
		EXPECT_EQ(pkt_regular_data_match(type, a, nullptr), any);
		EXPECT_EQ(pkt_regular_data_match(type, nullptr, nullptr), any);
		for (size_t i = 0; i < 8; i++) {
			u8 b[8];
			memcpy(b, a, 8);
			b[i] ^= 0x80;
			EXPECT_EQ(pkt_regular_data_match(type, a, b), i >= width[type])
				<< "byte " << i;
		}
	}
}

TEST_F(RegularEdit, data_match__illegal_type_is_never_equal_and_printed)
{
	const u8 a[8] = {};
	EXPECT_FALSE(pkt_regular_data_match(20, a, a));
	EXPECT_TRUE(kernel().log.empty());
	mox_packet_debug[0] = 1;
	EXPECT_FALSE(pkt_regular_data_match(0xffffffff, a, a));
	EXPECT_EQ(kernel().text(),
		  "[MOX-PACKET(0)]: MOX-PACKET-SEARCH-DATA-FROME-ITEM: illegal type\n");
}

TEST_F(RegularEdit, add_data__same_value_twice_keeps_one)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_ETH_PROT_EQUAL, { 8, 0 }).data(PACKET_ETH_PROT_EQUAL, { 8, 0, 9 });
	EXPECT_EQ(g_regular_data_stats[PACKET_ETH_PROT_EQUAL], 1u);
	EXPECT_EQ(g_regular_item_stats[PACKET_ETH_PROT_EQUAL], 1u);
}

TEST_F(RegularEdit, add_data__items_and_values_keep_their_order)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_IPv4_PROT_EQUAL, { 6 }).data(PACKET_ETH_PROT_EQUAL, { 8, 0 });
	rule.data(PACKET_IPv4_PROT_EQUAL, { 17 });
	EXPECT_EQ(view(rule.regular()).items,
		  (std::vector<std::pair<u32, std::vector<oracle::Value>>>{
			  { PACKET_IPv4_PROT_EQUAL,
			    { oracle::bytes_value({ 6 }), oracle::bytes_value({ 17 }) } },
			  { PACKET_ETH_PROT_EQUAL, { oracle::bytes_value({ 8, 0 }) } } }));
}

TEST_F(RegularEdit, add_data__without_an_item_leaves_the_datum_with_the_caller)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	mox_packet_debug[0] = 1;
	kernel().fail(Fail::kItemAlloc);
	regular_data *d = datum(PACKET_ETH_PROT_EQUAL, { 8, 0 });
	EXPECT_EQ(mox_packet_add_data_to_regular(d, &rule.regular()), -ENOMEM);
	EXPECT_TRUE(kernel().said(
		"[MOX-PACKET(0)]: MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed\n"));
	EXPECT_EQ(rule.regular().items.next, &rule.regular().items);
	mox_packet_free_data(d);
}

TEST_F(RegularEdit, del_data__missing_item_or_value_changes_nothing)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_ETH_PROT_EQUAL, { 8, 0 });
	rule.del(PACKET_ETH_PROT_EQUAL, { 8, 1 }).del(PACKET_SRC_MAC_EQUAL, { 8, 0 });
	EXPECT_EQ(g_regular_data_stats[PACKET_ETH_PROT_EQUAL], 1u);
	rule.del(PACKET_ETH_PROT_EQUAL, { 8, 0 });
	EXPECT_EQ(counters(), oracle::Counters{});
	EXPECT_EQ(rule.regular().items.next, &rule.regular().items);
}

TEST_F(RegularEdit, del_data__item_stays_until_its_last_value)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_IPv4_PROT_EQUAL, { 6 }).data(PACKET_IPv4_PROT_EQUAL, { 17 });
	rule.del(PACKET_IPv4_PROT_EQUAL, { 6 });
	EXPECT_EQ(g_regular_item_stats[PACKET_IPv4_PROT_EQUAL], 1u);
	rule.del(PACKET_IPv4_PROT_EQUAL, { 17 });
	EXPECT_EQ(g_regular_item_stats[PACKET_IPv4_PROT_EQUAL], 0u);
}

} // namespace
