// SPDX-License-Identifier: GPL-2.0-only
// Which values of a rule a frame counts for.
#include "module_fixture.h"
#include "rules/ranges.hpp"

namespace {

using namespace packets;

struct Datum {
	u16 type;
	::Bytes value; // empty for a type without one
};

class Hits : public ModuleTest {
protected:
	// Of the value of a rule, or of the item when it has none.
	static uint64_t of(Sock &s, const Datum &wanted)
	{
		for (regular_item *item : items_of(&s.po().regular)) {
			if (item->type != wanted.type)
				continue;
			if (item->count == 0)
				return hits_of(item, nullptr);
			for (regular_data *datum : datas_of(item))
				if (std::equal(wanted.value.begin(), wanted.value.end(),
					       datum->value))
					return hits_of(item, datum);
		}
		ADD_FAILURE() << "the rule has no such value, type " << wanted.type;
		return 0;
	}
};

const ::Bytes kArp = { 8, 6 }, kLldp = { 0x88, 0xcc }, kIp = { 8, 0 }, kAny = { 0, 3 };
const ::Bytes kSix = { 0x06 }, kUdp = { 17 }, kPort1 = { 0, 1 }, kPort2 = { 0, 2 },
	      kPort3 = { 0, 3 };

TEST_F(Hits, count__for_each_value_that_the_frame_has)
{
	const ::Bytes arp = eth(0x0806) + ::Bytes(46, 0), lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
	const ::Bytes udp = eth(0x0800) + ipv4(17, { 10, 0, 0, 1 }, ports(1, 2) + ::Bytes(30, 0));
	const ::Bytes mcast = eth(0x0800) +
			      ipv4(17, { 239, 1, 1, 1 }, ports(1, 2) + ::Bytes(30, 0));
	const ::Bytes attr7 = { 7, 0, 0, 0 };
	struct Expected {
		Datum datum;
		uint64_t hits;
	};
	// The rule's values, how many of the three frames each is hit by.
	const struct {
		const char *name;
		std::vector<Expected> values;
		std::vector<::Bytes> frames;
	} rows[] = {
		{ "one value", { { { PACKET_ETH_PROT_EQUAL, kArp }, 2 } }, { arp, arp, lldp } },
		{ "several of one type",
		  { { { PACKET_ETH_PROT_EQUAL, kArp }, 2 },
		    { { PACKET_ETH_PROT_EQUAL, kLldp }, 1 },
		    { { PACKET_ETH_PROT_EQUAL, kIp }, 0 } },
		  { arp, arp, lldp } },
		{ "any", { { { PACKET_ETH_PROT_EQUAL, kAny }, 3 } }, { arp, lldp, udp } },
		{ "an exact one before any",
		  { { { PACKET_ETH_PROT_EQUAL, kAny }, 2 },
		    { { PACKET_ETH_PROT_EQUAL, kArp }, 1 } },
		  { arp, lldp, udp } },
		{ "two types",
		  { { { PACKET_ETH_PROT_EQUAL, kIp }, 1 },
		    { { PACKET_IPv4_PROT_EQUAL, kUdp }, 1 } },
		  { arp, lldp, udp } },
		{ "two types, the other way round",
		  { { { PACKET_IPv4_PROT_EQUAL, kUdp }, 1 },
		    { { PACKET_ETH_PROT_EQUAL, kIp }, 1 } },
		  { arp, lldp, udp } },
		{ "two types of several values",
		  { { { PACKET_ETH_PROT_EQUAL, kArp }, 0 },
		    { { PACKET_ETH_PROT_EQUAL, kIp }, 2 },
		    { { PACKET_IPv4_PROT_EQUAL, kUdp }, 2 },
		    { { PACKET_IPv4_PROT_EQUAL, kSix }, 0 } },
		  { arp, udp, mcast } },
		{ "three types",
		  { { { PACKET_ETH_PROT_EQUAL, kIp }, 1 },
		    { { PACKET_IPv4_PROT_EQUAL, kUdp }, 1 },
		    { { PACKET_IPv4_SRC_PORT_EQUAL, kPort1 }, 1 },
		    { { PACKET_IPv4_SRC_PORT_EQUAL, kPort2 }, 0 } },
		  { arp, lldp, udp } },
		{ "a type without values",
		  { { { PACKET_IPv4_MCAST_TRAFFIC, {} }, 1 } },
		  { arp, udp, mcast } },
		{ "a type without values, and one with",
		  { { { PACKET_IPv4_MCAST_TRAFFIC, {} }, 1 },
		    { { PACKET_IPv4_PROT_EQUAL, kUdp }, 1 } },
		  { arp, udp, mcast } },
		{ "all frames", { { { PACKET_ALL, {} }, 3 } }, { arp, udp, mcast } },
		{ "all frames, and a value",
		  { { { PACKET_ALL, {} }, 1 }, { { PACKET_ETH_PROT_EQUAL, kArp }, 1 } },
		  { arp, udp, mcast } },
		{ "all frames, and two types",
		  { { { PACKET_ALL, {} }, 1 },
		    { { PACKET_ETH_PROT_EQUAL, kIp }, 1 },
		    { { PACKET_IPv4_DEST_PORT_EQUAL, kPort2 }, 1 } },
		  { arp, udp, lldp } },
		{ "an excluded attribute",
		  { { { PACKET_ETH_PROT_EQUAL, kArp }, 1 }, { { PACKET_PID_T, attr7 }, 0 } },
		  { arp, udp, mcast } },
		{ "a rule that no frame matches",
		  { { { PACKET_ETH_PROT_EQUAL, kIp }, 0 },
		    { { PACKET_IPv4_DEST_PORT_EQUAL, kPort3 }, 0 } },
		  { arp, udp, mcast } },
	};
	for (const auto &row : rows)
		for (u32 treatment : { PACKET_COPY, PACKET_TRAP }) {
			SCOPED_TRACE(row.name);
			Sock other, s, last;
			// Other rules of the same values, before and behind.
			other.capture(PACKET_LEV2_LOC, PACKET_COPY);
			ASSERT_EQ(s.create(), 0);
			for (const Expected &value : row.values)
				ASSERT_EQ(s.add(value.datum.type,
						value.datum.type == PACKET_ALL ? 0 : 1,
						value.datum.value),
					  0);
			ASSERT_EQ(s.set(PACKET_TREATMENT, treatment), 0);
			ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
			for (const ::Bytes &bytes : row.frames) {
				Meta meta;
				meta.kind = bytes[12] == 8 && bytes[13] == 0 ? 1 : 0;
				frame(PACKET_LEV2_LOC, meta, bytes);
			}
			for (const Expected &value : row.values)
				EXPECT_EQ(of(s, value.datum), value.hits)
					<< "type " << value.datum.type;
			// They stay while the rule leaves its library and enters it again.
			ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
			for (const Expected &value : row.values)
				EXPECT_EQ(of(s, value.datum), value.hits);
		}
}

TEST_F(Hits, count__several_sockets_and_values_that_come_again)
{
	const ::Bytes arp = eth(0x0806) + ::Bytes(46, 0);
	std::deque<Sock> socks(5);
	for (Sock &s : socks) {
		ASSERT_EQ(s.create(), 0);
		ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, kArp), 0);
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	}
	frame(PACKET_LEV2_LOC, {}, arp);
	frame(PACKET_LEV2_LOC, {}, arp);
	for (Sock &s : socks)
		EXPECT_EQ(of(s, { PACKET_ETH_PROT_EQUAL, kArp }), 2u);
	// A value that is deleted takes its hits along.
	ASSERT_EQ(socks[0].del(PACKET_ETH_PROT_EQUAL, 1, kArp), 0);
	ASSERT_EQ(socks[0].add(PACKET_ETH_PROT_EQUAL, 1, kArp), 0);
	EXPECT_EQ(of(socks[0], { PACKET_ETH_PROT_EQUAL, kArp }), 0u);
	// One that is there already keeps them.
	ASSERT_EQ(socks[1].add(PACKET_ETH_PROT_EQUAL, 1, kArp), 0);
	EXPECT_EQ(of(socks[1], { PACKET_ETH_PROT_EQUAL, kArp }), 2u);
}

} // namespace
