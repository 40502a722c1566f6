// SPDX-License-Identifier: GPL-2.0-only
// Pins naive matching: for each rule type a value that matches and its near miss,
// as a condition (item) and as a key.
#include <gtest/gtest.h>

#include "frames.h"
#include "match.h"

namespace oracle {
namespace {

Value n16(uint16_t host)
{
	return int_value<uint16_t>(__builtin_bswap16(host));
}
Value n8(uint8_t b)
{
	return bytes_value({ b });
}
Value n32(uint32_t v)
{
	return int_value<uint32_t>(v);
}

Packet eth_packet(uint16_t type, const Bytes &rest = {}, Meta m = {})
{
	return parse(efbuff(m, eth(type) + rest).data(), 7);
}
Packet v4(uint8_t proto, const Bytes &dst, const Bytes &payload = {})
{
	return eth_packet(0x0800, ipv4(proto, dst, payload), { .kind = 1 });
}
Packet v6(uint8_t next, const Bytes &dst, const Bytes &payload)
{
	return eth_packet(0x86dd, ipv6(next, dst, payload), { .kind = 27 });
}

World plain_world()
{
	World w;
	w.vsd = [](int owner) { return owner == 99 ? 1u : 0u; };
	w.lev2_block = 0x4000;
	w.lev3_block = 0x5000;
	return w;
}

bool item(const Packet &p, uint32_t type, const std::vector<Value> &datas)
{
	Regular r;
	r.items = { Item{ type, datas } };
	return rule_match(p, r);
}

bool key(const Packet &p, uint32_t type, const Value &v)
{
	Library lib;
	Entry e{ type, v, {}, {} };
	e.match_list = { Regular{ 1, kCopy, 2, {} } };
	lib.filter_list = { e };
	return fast_filter(p, lib, plain_world()) == kCopy;
}

struct Case {
	const char *name;
	uint32_t type;
	Packet packet;
	Value hit, miss;
};

const Bytes kHost4{ 10, 0, 0, 1 };
const Bytes kHost6 = addr6(0x20, 1, 1);

TEST(OracleMatch, value_types__hit_and_near_miss)
{
	Meta coded;
	coded.code = 3;
	coded.sub_code = 4;
	const Case cases[] = {
		{ "code", kCode, eth_packet(1, {}, coded), bytes_value({ 3, 4 }),
		  bytes_value({ 3, 5 }) },
		{ "dst", kDstMac, eth_packet(1), bytes_value({ 2, 0, 0, 0, 0, 1 }),
		  bytes_value({ 2, 0, 0, 0, 0, 2 }) },
		{ "src", kSrcMac, eth_packet(1), bytes_value({ 2, 0, 0, 0, 0, 2 }),
		  bytes_value({ 2, 0, 0, 0, 0, 1 }) },
		{ "eth", kEth, eth_packet(0x88cc), n16(0x88cc), n16(0x88cd) },
		{ "snap", kSnap, eth_packet(8, { 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 }), n16(0x2004),
		  n16(0x2005) },
		{ "v4proto", kV4Proto, v4(1, kHost4), n8(1), n8(2) },
		{ "v6proto", kV6Proto, v6(58, kHost6, { 1, 0, 0, 0 }), n8(58), n8(59) },
		{ "v4dport", kV4DstPort, v4(17, kHost4, ports(68, 67, 9)), n16(67), n16(68) },
		{ "v4sport", kV4SrcPort, v4(17, kHost4, ports(68, 67, 9)), n16(68), n16(67) },
		{ "v6dport", kV6DstPort, v6(17, kHost6, ports(68, 67)), n16(67), n16(68) },
		{ "intf", kIntf, eth_packet(1), n32(7), n32(0x10007) },
		{ "icmp6", kIcmp6, v6(58, kHost6, { 135, 0, 0, 0 }), n8(135), n8(134) },
		{ "eapol", kEapol, eth_packet(0x888e, { 1, 3 }), n8(3), n8(2) },
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		EXPECT_TRUE(item(c.packet, c.type, { c.hit }));
		EXPECT_TRUE(item(c.packet, c.type, { c.miss, c.hit }));
		EXPECT_FALSE(item(c.packet, c.type, { c.miss }));
		EXPECT_FALSE(item(c.packet, c.type, {}));
		EXPECT_TRUE(key(c.packet, c.type, c.hit));
		EXPECT_FALSE(key(c.packet, c.type, c.miss));
	}
}

TEST(OracleMatch, family_and_presence_are_required)
{
	EXPECT_FALSE(item(v6(17, kHost6, ports(68, 67)), kV4DstPort, { n16(67) }));
	EXPECT_FALSE(item(v4(17, kHost4, ports(68, 67, 9)), kV6DstPort, { n16(67) }));
	EXPECT_FALSE(item(eth_packet(0x0800), kV4Proto, { n8(0) }));
	EXPECT_FALSE(item(v4(1, kHost4), kV4DstPort, { n16(0) }));
	EXPECT_FALSE(item(v6(17, kHost6, ports(1, 2)), kIcmp6, { n8(0) }));
	// As a key, ICMPv6 type 0 is a value like any other.
	EXPECT_TRUE(key(v6(17, kHost6, ports(1, 2)), kIcmp6, n8(0)));
	EXPECT_FALSE(item(eth_packet(0x88cc, { 1, 3 }), kEapol, { n8(3) }));
	EXPECT_FALSE(
		item(eth_packet(8, { 0xaa, 0xab, 3, 0, 0, 0, 0x20, 4 }), kSnap, { n16(0x2004) }));
}

TEST(OracleMatch, wildcards)
{
	EXPECT_TRUE(item(eth_packet(0x1234), kEth, { int_value<uint16_t>(768) }));
	EXPECT_TRUE(key(eth_packet(0x1234), kEth, n16(3)));
	EXPECT_TRUE(item(eth_packet(8, { 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 }), kSnap, { n16(3) }));
	EXPECT_FALSE(item(eth_packet(8), kSnap, { n16(3) }));
	EXPECT_TRUE(item(eth_packet(1), kAll, {}));
	EXPECT_TRUE(key(eth_packet(1), kAll, {}));
}

TEST(OracleMatch, arp__key_compares_one_byte_with_two)
{
	Packet request = eth_packet(0x0806, { 0, 1, 8, 0, 6, 4, 0, 1 });
	EXPECT_TRUE(item(request, kArp, { n16(1) }));
	EXPECT_FALSE(item(request, kArp, { n16(2) }));
	EXPECT_FALSE(key(request, kArp, n16(1)));
	Packet swapped = eth_packet(0x0806, { 0, 1, 8, 0, 6, 4, 1, 0 });
	EXPECT_TRUE(key(swapped, kArp, n8(1)));
	EXPECT_TRUE(key(swapped, kArp, bytes_value({ 1, 9 })));
	EXPECT_FALSE(key(eth_packet(0x0800), kArp, n8(0)));
}

TEST(OracleMatch, pid_is_an_exclusion)
{
	Packet zero = eth_packet(1), five = eth_packet(1, {}, { .attr = 5 });
	EXPECT_FALSE(item(five, kPid, { n32(5) }));
	EXPECT_FALSE(item(five, kPid, { n32(4), n32(5) }));
	EXPECT_TRUE(item(five, kPid, { n32(4) }));
	EXPECT_FALSE(item(five, kPid, { n32(0xffffffff) }));
	EXPECT_TRUE(item(zero, kPid, { n32(0xffffffff) }));
	EXPECT_FALSE(item(zero, kPid, { n32(0) }));
	EXPECT_FALSE(item(zero, kPid, {}));
	EXPECT_TRUE(key(five, kPid, n32(5)));
}

TEST(OracleMatch, ipv4_multicast)
{
	auto both = [](const Packet &p) {
		bool as_item = item(p, kV4Mcast, {});
		EXPECT_EQ(as_item, key(p, kV4Mcast, {}));
		return as_item;
	};
	EXPECT_FALSE(both(v4(17, { 224, 0, 0, 1 })));
	EXPECT_FALSE(both(v4(17, { 224, 0, 0, 255 })));
	EXPECT_TRUE(both(v4(17, { 224, 0, 1, 0 })));
	EXPECT_TRUE(both(v4(17, { 239, 1, 1, 1 })));
	EXPECT_TRUE(both(v4(17, { 239, 255, 255, 255 })));
	EXPECT_FALSE(both(v4(17, { 240, 0, 0, 0 })));
	EXPECT_FALSE(both(v4(17, { 223, 255, 255, 255 })));
	EXPECT_FALSE(both(v4(2, { 239, 1, 1, 1 })));
}

TEST(OracleMatch, ipv6_multicast)
{
	auto both = [](const Packet &p) {
		bool as_item = item(p, kV6Mcast, {});
		EXPECT_EQ(as_item, key(p, kV6Mcast, {}));
		return as_item;
	};
	Bytes udp = ports(1, 2);
	EXPECT_FALSE(both(v6(17, addr6(0xff, 0x02, 1), udp)));
	EXPECT_TRUE(both(v6(17, addr6(0xff, 0x03, 1), udp)));
	EXPECT_TRUE(both(v6(17, addr6(0xff, 0x1e, 1), udp)));
	EXPECT_FALSE(both(v6(17, addr6(0xfe, 0x0e, 1), udp)));
	for (uint8_t mld : { 130, 131, 132, 143 })
		EXPECT_FALSE(both(v6(58, addr6(0xff, 0x05, 1), { mld, 0, 0, 0 })));
	for (uint8_t other : { 129, 133, 142, 144 })
		EXPECT_TRUE(both(v6(58, addr6(0xff, 0x05, 1), { other, 0, 0, 0 })));
	EXPECT_FALSE(both(v4(17, { 239, 1, 1, 1 })));
}

TEST(OracleMatch, types_of_the_other_family_and_unknown_types)
{
	Packet p = eth_packet(0x888e, { 1, 0 });
	EXPECT_FALSE(item(p, kWps, { n8(0) }));
	EXPECT_FALSE(key(p, kWps, n8(0)));
	EXPECT_FALSE(item(p, kWlanMgnt, { Value{} }));
	EXPECT_TRUE(key(p, kWlanMgnt, {}));
	EXPECT_FALSE(item(p, 20, { Value{} }));
	EXPECT_TRUE(key(p, 20, {}));
}

TEST(OracleMatch, rule_match__and_over_items)
{
	Packet p = v4(17, kHost4, ports(68, 67, 9));
	Regular r;
	EXPECT_FALSE(rule_match(p, r));
	r.items = { Item{ kV4Proto, { n8(17) } }, Item{ kV4DstPort, { n16(66), n16(67) } } };
	EXPECT_TRUE(rule_match(p, r));
	r.items.push_back(Item{ kEth, { n16(0x0806) } });
	EXPECT_FALSE(rule_match(p, r));
}

TEST(OracleMatch, fast_filter__first_key_and_first_copy_decide)
{
	World w = plain_world();
	Packet p = eth_packet(0x0800, {}, { .dest = 0x4000 });
	Library lib;
	Entry first{ kEth, n16(0x0800), {}, {} }, second{ kAll, std::nullopt, {}, {} };
	first.match_list = { Regular{ 1, kTrap, 2, { Item{ kIntf, { n32(8) } } } },
			     Regular{ 2, kFetch, 2, {} } };
	second.match_list = { Regular{ 3, kCopy, 2, {} } };
	lib.filter_list = { first, second };
	EXPECT_EQ(fast_filter(p, lib, w), uint32_t(kFetch));
	lib.filter_list[0].match_list[1].owner = 99; // vsd 1
	EXPECT_EQ(fast_filter(p, lib, w), uint32_t(kCopy));
	lib.filter_list[0].match_list[1].owner = 2;
	lib.filter_list[0].match_list[1].treatment = 0;
	EXPECT_EQ(fast_filter(p, lib, w), uint32_t(kCopy));
	lib.filter_list[0].match_list[0].items.clear();
	lib.filter_list[0].match_list[0].location = 9;
	EXPECT_EQ(fast_filter(p, lib, w), uint32_t(kTrap));
	lib.filter_list[0].match_list[0].location = 10;
	EXPECT_EQ(fast_filter(p, lib, w), uint32_t(kCopy));
	lib.filter_list[1].local_match_list.swap(lib.filter_list[1].match_list);
	EXPECT_EQ(fast_filter(p, lib, w), 0u);
}

TEST(OracleMatch, wlan__items_and_keys)
{
	World w = plain_world();
	auto wlan = [](const Meta &m, const Bytes &f) {
		return parse_wlan(efbuff(m, f).data(), 7);
	};
	auto wlan_item = [](const WlanPacket &p, uint32_t type, const std::vector<Value> &datas) {
		Regular r;
		r.items = { Item{ type, datas } };
		return wlan_rule_match(p, r);
	};
	auto wlan_key = [&](const WlanPacket &p, uint32_t type, const Value &v) {
		Library lib;
		lib.filter_list = { Entry{ type, v, { Regular{ 1, kTrap, 8, {} } }, {} } };
		return wlan_fast_filter(p, lib, w) == kTrap;
	};
	WlanPacket mgnt = wlan({ .wlan_flags = 0x48000 }, {}),
		   data = wlan({ .wlan_flags = 0x40000 }, {});
	WlanPacket start = wlan({ .attr = 5 }, eth(0x888e) + Bytes{ 1, 1 });
	Bytes expanded = eth(0x888e) + Bytes(20, 0);
	expanded[22] = 0xfe;
	expanded[29] = 1;
	WlanPacket wps = wlan({}, expanded);

	EXPECT_TRUE(wlan_item(mgnt, kWlanMgnt, { Value{} }) && wlan_key(mgnt, kWlanMgnt, {}));
	EXPECT_FALSE(wlan_item(data, kWlanMgnt, { Value{} }) || wlan_key(data, kWlanMgnt, {}));
	EXPECT_TRUE(wlan_item(start, kEapol, { n8(1) }) && wlan_key(start, kEapol, n8(1)));
	EXPECT_FALSE(wlan_item(start, kEapol, { n8(2) }) || wlan_key(start, kEapol, n8(2)));
	EXPECT_TRUE(wlan_item(wps, kWps, { n8(9) }) && wlan_key(wps, kWps, n8(9)));
	EXPECT_FALSE(wlan_item(start, kWps, { n8(0) }) || wlan_key(start, kWps, n8(0)));
	EXPECT_TRUE(wlan_item(start, kEth, { n16(0x888e) }) && wlan_key(start, kEth, n16(0x888e)));
	EXPECT_TRUE(wlan_item(data, kEth, { n16(3) }) && wlan_key(data, kEth, n16(3)));
	EXPECT_FALSE(wlan_item(start, kEth, { n16(0x888f) }) || wlan_key(start, kEth, n16(0x888f)));
	EXPECT_TRUE(wlan_item(data, kAll, {}) && wlan_key(data, kAll, {}));
	EXPECT_FALSE(wlan_item(start, kPid, { n32(5) }));
	EXPECT_TRUE(wlan_item(start, kPid, { n32(4) }));
	EXPECT_FALSE(wlan_key(start, kPid, n32(4)));
	EXPECT_FALSE(wlan_item(start, kIntf, { n32(7) }) || wlan_key(start, kIntf, n32(7)));
	EXPECT_FALSE(wlan_rule_match(start, Regular{}));
}

TEST(OracleMatch, value_equal__widths_and_missing_values)
{
	Value a = bytes_value({ 1, 2, 3, 4, 5, 6, 7, 8 });
	for (uint32_t type : { 12u, 13u, 16u, 18u }) {
		EXPECT_TRUE(value_equal(type, nullptr, nullptr));
		EXPECT_TRUE(value_equal(type, &a, nullptr));
	}
	static const size_t width[20] = {
		2, 6, 6, 2, 2, 1, 1, 2, 2, 2, 4, 1, 0, 0, 1, 1, 0, 4, 0, 2
	};
	for (uint32_t type = 0; type < 20; type++) {
		if (!width[type])
			continue;
		EXPECT_FALSE(value_equal(type, &a, nullptr));
		EXPECT_FALSE(value_equal(type, nullptr, &a));
		for (size_t i = 0; i < 8; i++) {
			Value b = a;
			b[i] ^= 1;
			EXPECT_EQ(value_equal(type, &a, &b), i >= width[type])
				<< type << " byte " << i;
		}
	}
	EXPECT_FALSE(value_equal(20, &a, &a));
}

} // namespace
} // namespace oracle
