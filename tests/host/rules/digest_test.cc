// SPDX-License-Identifier: GPL-2.0-only
// What a digest holds of a rule, and that a frame's is equal when its conditions pass.
#include "rules/digest.hpp"
#include "match_fixture.h"

namespace {

class Digest : public PktMatch {
protected:
	void *udp(u32 attr = 9)
	{
		return frame(eth(0x0800) + ipv4(17, kHost4, ports(68, 67, 9)),
			     { .kind = 1, .attr = attr });
	}
	static bool may_satisfy(void *e, const rule_digest &digest)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		FrameDigest<pkt_info> of_frame(info);
		of_frame.start();
		return of_frame.may_satisfy(digest);
	}
	static int known(void *e, const rule_digest &digest)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		return satisfies(info, digest);
	}
	struct Given {
		u32 type;
		std::vector<V> values;
	};
	static void give(Rule &rule, const Given &given)
	{
		for (const V &value : given.values)
			rule.data(given.type, value);
	}
};

constexpr u32 bit(u32 type)
{
	return 1u << type;
}

TEST_F(Digest, holds_conditions_of_one_value)
{
	struct {
		const char *name;
		Given given;
		u32 types;
		bool satisfied;
		u32 only = kDigestMore;
	} const rows[] = {
		{ "EtherType",
		  { PACKET_ETH_PROT_EQUAL, { n16(0x0800) } },
		  bit(PACKET_ETH_PROT_EQUAL),
		  true,
		  PACKET_ETH_PROT_EQUAL },
		{ "other EtherType",
		  { PACKET_ETH_PROT_EQUAL, { n16(0x0806) } },
		  bit(PACKET_ETH_PROT_EQUAL),
		  false,
		  PACKET_ETH_PROT_EQUAL },
		{ "any EtherType", { PACKET_ETH_PROT_EQUAL, { n16(3) } }, 0, true },
		{ "two EtherTypes", { PACKET_ETH_PROT_EQUAL, { n16(1), n16(2) } }, 0, true },
		{ "no value in the frame",
		  { PACKET_IPv6_PROT_EQUAL, { V{ 17 } } },
		  bit(PACKET_IPv6_PROT_EQUAL),
		  false,
		  PACKET_IPv6_PROT_EQUAL },
		{ "class of frames", { PACKET_IPv4_MCAST_TRAFFIC, { V{} } }, 0, true },
		{ "excluded", { PACKET_PID_T, { n32(9) } }, kDigestExcludes, false },
		{ "other attribute excluded", { PACKET_PID_T, { n32(8) } }, kDigestExcludes, true },
		{ "every attribute excluded",
		  { PACKET_PID_T, { n32(~0u) } },
		  kDigestExcludes,
		  false },
		{ "two attributes excluded", { PACKET_PID_T, { n32(9), n32(8) } }, 0, true },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.name);
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		give(rule, row.given);
		const rule_digest digest = digest_of(&rule.regular());
		EXPECT_EQ(digest.types, row.types);
		EXPECT_EQ(may_satisfy(udp(), digest), row.satisfied);
		EXPECT_EQ(digest.only, row.only);
		if (row.only == row.given.type) {
			EXPECT_EQ(known(udp(), digest), row.satisfied ? 1 : 0);
		} else {
			EXPECT_EQ(known(udp(), digest), row.only == kDigestNothing ? 1 : -1);
		}
		// What is anchored is known to pass.
		for (regular_item *item : items_of(&rule.regular()))
			rule.regular().anchored = item;
		EXPECT_EQ(digest_of(&rule.regular()).types, 0u);
		EXPECT_EQ(digest_of(&rule.regular()).only, kDigestNothing);
		rule.regular().anchored = nullptr;
	}
}

// With two conditions of one value beside the anchored one, the items have to be asked; one that
// every frame satisfies does not count.
TEST_F(Digest, only_one_condition_stands_there_as_it_is)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.item(PACKET_ALL);
	EXPECT_EQ(digest_of(&rule.regular()).only, kDigestNothing);
	rule.data(PACKET_SRC_MAC_EQUAL, { 2, 0, 0, 0, 0, 2 });
	rule_digest digest = digest_of(&rule.regular());
	EXPECT_EQ(digest.only, u32(PACKET_SRC_MAC_EQUAL));
	EXPECT_EQ(known(udp(), digest), 1);
	rule.data(PACKET_ETH_PROT_EQUAL, n16(0x0800));
	digest = digest_of(&rule.regular());
	EXPECT_EQ(digest.only, kDigestMore);
	EXPECT_EQ(known(udp(), digest), -1);
	EXPECT_TRUE(may_satisfy(udp(), digest));
}

TEST_F(Digest, frames_without_attribute_pass_where_every_attribute_is_excluded)
{
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_PID_T, n32(~0u));
	EXPECT_TRUE(may_satisfy(udp(0), digest_of(&rule.regular())));
	EXPECT_FALSE(may_satisfy(udp(1), digest_of(&rule.regular())));
}

// A copy that is anchored elsewhere is asked for its key as well, but for keys that also pass
// for frames without the value.
TEST_F(Digest, key_of_a_copy)
{
	struct {
		u32 type;
		V value;
		bool held;
	} const rows[] = {
		{ PACKET_ETH_PROT_EQUAL, n16(0x0800), true },
		{ PACKET_ETH_PROT_EQUAL, n16(3), false },
		{ PACKET_IPv4_DEST_PORT_EQUAL, n16(67), true },
		{ PACKET_ICMPV6_TYPE_EQUAL, { 0 }, false },
		{ PACKET_ARP_TYPE, n16(1), false },
		{ PACKET_IPv4_MCAST_TRAFFIC, {}, false },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(row.type);
		filter_list_data key{};
		key.type = row.type;
		std::copy(row.value.begin(), row.value.end(), key.value);
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		rule.data(PACKET_SRC_MAC_EQUAL, { 2, 0, 0, 0, 0, 2 });
		packet_regular &copy = rule.regular();
		copy.entry = &key;
		for (regular_item *item : items_of(&copy))
			copy.anchored = item;
		EXPECT_EQ(digest_of(&copy).types, row.held ? bit(row.type) : 0);
		// Anchored by the key.
		copy.anchored = nullptr;
		EXPECT_EQ(digest_of(&copy).types, bit(PACKET_SRC_MAC_EQUAL));
		copy.entry = nullptr;
	}
}

// Without memory for the entry of its first item, a rule is filed under a later one, which its
// copies then hold as an item as well: one condition, not two.
TEST_F(Digest, key_that_is_an_item_too)
{
	filter_list_data key{};
	key.type = PACKET_ETH_PROT_EQUAL;
	const V value = n16(0x0800);
	std::copy(value.begin(), value.end(), key.value);
	Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
	rule.data(PACKET_SRC_MAC_EQUAL, { 2, 0, 0, 0, 0, 2 });
	packet_regular &copy = rule.regular();
	for (regular_item *item : items_of(&copy))
		copy.anchored = item;
	rule.data(PACKET_ETH_PROT_EQUAL, value);
	copy.entry = &key;
	const rule_digest digest = digest_of(&copy);
	EXPECT_EQ(digest.types, bit(PACKET_ETH_PROT_EQUAL));
	EXPECT_TRUE(may_satisfy(udp(), digest));
	EXPECT_NE(known(udp(), digest), 0);
	copy.entry = nullptr;
	copy.anchored = nullptr;
}

// Users choose values: a larger one of one type must not make up for a smaller one of another.
TEST_F(Digest, sums_do_not_cancel_out)
{
	u32 equal = 0;
	for (u32 n = 1; n <= 1000; n++)
		equal += digest_part(PACKET_IPv4_DEST_PORT_EQUAL, { 5000 + n, 0 }) +
				 digest_part(PACKET_IPv4_SRC_PORT_EQUAL, { 5000 - n, 0 }) ==
			 digest_part(PACKET_IPv4_DEST_PORT_EQUAL, { 5000, 0 }) +
				 digest_part(PACKET_IPv4_SRC_PORT_EQUAL, { 5000, 0 });
	EXPECT_LE(equal, 2u);
}

} // namespace
