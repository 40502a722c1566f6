// SPDX-License-Identifier: GPL-2.0-only
#include "bench_shapes.hpp"

#include <algorithm>

#include "mox_packet.h"

namespace bench {

namespace {

using moxlab::Bytes;

constexpr uint16_t kIpv4 = 0x0800;
constexpr uint16_t kOtherPort = 9; // of no rule

Item mac(uint16_t type, unsigned i)
{
	return { type, 6, { 2, 0, 0, 1, uint8_t(i >> 8), uint8_t(i) } };
}

Item byte(uint16_t type, unsigned value)
{
	return { type, 1, { uint8_t(value) } };
}

Item interface(unsigned i)
{
	const uint32_t index = own_interface(i);
	return { PACKET_SRC_INTF_EQUAL,
		 4,
		 { uint8_t(index), uint8_t(index >> 8), uint8_t(index >> 16),
		   uint8_t(index >> 24) } };
}

uint16_t ethertype(unsigned i)
{
	return uint16_t(0x9000 + i);
}

uint16_t port(unsigned i)
{
	return uint16_t(20000 + i);
}

Frame udp(uint16_t source_port, uint16_t destination_port)
{
	Bytes frame = plain_frame(kIpv4);
	const uint8_t ip[] = { 0x45,
			       0,
			       0,
			       50,
			       0,
			       0,
			       0,
			       0,
			       64,
			       17,
			       0,
			       0,
			       10,
			       0,
			       0,
			       1,
			       10,
			       0,
			       0,
			       2,
			       uint8_t(source_port >> 8),
			       uint8_t(source_port),
			       uint8_t(destination_port >> 8),
			       uint8_t(destination_port),
			       0,
			       30,
			       0,
			       0 };
	std::copy(std::begin(ip), std::end(ip), frame.begin() + 14);
	return { frame, kSource };
}

Frame near_miss()
{
	return udp(kOtherPort, kOtherPort);
}

Frame unknown_type()
{
	return { plain_frame(0x88b6), kSource };
}

Frame of_type(unsigned i)
{
	return { plain_frame(ethertype(i)), kSource };
}

Frame from_mac(unsigned i)
{
	Frame frame = unknown_type();
	const Bytes own = mac(PACKET_SRC_MAC_EQUAL, i).values;
	std::copy(own.begin(), own.end(), frame.bytes.begin() + 6);
	return frame;
}

Frame to_port(unsigned i)
{
	return udp(kOtherPort, port(i));
}

Frame on_interface(unsigned i)
{
	Frame frame = near_miss();
	frame.source = own_interface(i);
	return frame;
}

/// A MAC address of frames that no rule asks for.
Item frame_mac(uint16_t type = PACKET_SRC_MAC_EQUAL)
{
	const Bytes frame = near_miss().bytes;
	const auto at = frame.begin() + (type == PACKET_SRC_MAC_EQUAL ? 6 : 0);
	return { type, 6, { at, at + 6 } };
}

/// The interface of such frames.
Item frame_interface()
{
	return { PACKET_SRC_INTF_EQUAL,
		 4,
		 { uint8_t(kSource), uint8_t(kSource >> 8), uint8_t(kSource >> 16),
		   uint8_t(kSource >> 24) } };
}

/// Two values of one type.
Item pair(Item one, const Item &other)
{
	one.values.insert(one.values.end(), other.values.begin(), other.values.end());
	return one;
}

/// Ports that such frames do not have.
Item other_ports()
{
	Item ports = value16(PACKET_IPv4_DEST_PORT_EQUAL, port(0));
	for (unsigned i = 1; i < 64; ++i) {
		const Item more = value16(PACKET_IPv4_DEST_PORT_EQUAL, port(i));
		ports.values.insert(ports.values.end(), more.values.begin(), more.values.end());
	}
	return ports;
}

/// Thousands of values of one of five types, none of them the frame's.
Item many_values(unsigned i)
{
	static constexpr uint16_t kTypes[] = { PACKET_SRC_MAC_EQUAL, PACKET_DEST_MAC_EQUAL,
					       PACKET_ETH_PROT_EQUAL, PACKET_IPv4_DEST_PORT_EQUAL,
					       PACKET_IPv4_SRC_PORT_EQUAL };
	const uint16_t type = kTypes[i % std::size(kTypes)];
	const bool is_mac = type == PACKET_SRC_MAC_EQUAL || type == PACKET_DEST_MAC_EQUAL;
	const unsigned first = i / std::size(kTypes) * 12000;
	Item item{ type, uint16_t(is_mac ? 6 : 2), {} };
	for (unsigned n = first; n < first + 12000; ++n) {
		const Item one = is_mac ? mac(type, n) : value16(type, uint16_t(0x1000 + n));
		item.values.insert(item.values.end(), one.values.begin(), one.values.end());
	}
	return item;
}

/// A value of any type, of which the frames here have none.
Item of_each_type(unsigned i)
{
	static constexpr uint16_t kTypes[kAllTypesCount] = {
		PACKET_PACKET_CODE_EQUAL,   PACKET_DEST_MAC_EQUAL,
		PACKET_SRC_MAC_EQUAL,       PACKET_ETH_PROT_EQUAL,
		PACKET_SNAP_ETH_TYPE_EQUAL, PACKET_IPv4_PROT_EQUAL,
		PACKET_IPv6_PROT_EQUAL,     PACKET_IPv4_DEST_PORT_EQUAL,
		PACKET_IPv4_SRC_PORT_EQUAL, PACKET_IPv6_DEST_PORT_EQUAL,
		PACKET_SRC_INTF_EQUAL,      PACKET_ICMPV6_TYPE_EQUAL,
		PACKET_EAPOL_TYPE_EQUAL,    PACKET_ARP_TYPE,
	};
	const uint16_t type = kTypes[i / kOfEachType % kAllTypesCount];
	const unsigned value = 100 + i % kOfEachType;
	switch (type) {
	case PACKET_PACKET_CODE_EQUAL:
		return value16(type, uint16_t(0xc000 + value));
	case PACKET_DEST_MAC_EQUAL:
	case PACKET_SRC_MAC_EQUAL:
		return mac(type, value);
	case PACKET_SRC_INTF_EQUAL:
		return interface(value);
	case PACKET_IPv4_PROT_EQUAL:
	case PACKET_IPv6_PROT_EQUAL:
	case PACKET_ICMPV6_TYPE_EQUAL:
	case PACKET_EAPOL_TYPE_EQUAL:
		return byte(type, value);
	default:
		return value16(type, uint16_t(0x9000 + value));
	}
}

} // namespace

uint32_t own_interface(unsigned i)
{
	return 30000 + i;
}

Item value16(uint16_t type, uint16_t value)
{
	return { type, 2, { uint8_t(value >> 8), uint8_t(value) } };
}

const std::vector<Shape> kShapes = {
	{ "EtherType",
	  [](unsigned i) { return std::vector{ value16(PACKET_ETH_PROT_EQUAL, ethertype(i)) }; },
	  of_type, unknown_type },
	{ "source MAC", [](unsigned i) { return std::vector{ mac(PACKET_SRC_MAC_EQUAL, i) }; },
	  from_mac, unknown_type },
	{ "port",
	  [](unsigned i) { return std::vector{ value16(PACKET_IPv4_DEST_PORT_EQUAL, port(i)) }; },
	  to_port, near_miss },
	{ "shared EtherType, port",
	  [](unsigned i) {
		  return std::vector{ value16(PACKET_ETH_PROT_EQUAL, kIpv4),
				      value16(PACKET_IPv4_DEST_PORT_EQUAL, port(i)) };
	  },
	  to_port, near_miss },
	{ "port, shared EtherType",
	  [](unsigned i) {
		  return std::vector{ value16(PACKET_IPv4_DEST_PORT_EQUAL, port(i)),
				      value16(PACKET_ETH_PROT_EQUAL, kIpv4) };
	  },
	  to_port, near_miss },
	{ "interface, shared EtherType",
	  [](unsigned i) {
		  return std::vector{ interface(i), value16(PACKET_ETH_PROT_EQUAL, kIpv4) };
	  },
	  on_interface, near_miss },
};

const std::vector<Shape> kHurting = {
	// The frame has their EtherType and port, and the attribute that they exclude.
	{ "same values, attribute excluded",
	  [](unsigned) {
		  return std::vector{ value16(PACKET_ETH_PROT_EQUAL, kIpv4),
				      value16(PACKET_IPv4_DEST_PORT_EQUAL, kOtherPort),
				      Item{ PACKET_PID_T, 4, { 0, 0, 0, 0 } } };
	  },
	  nullptr, near_miss },
	{ "all frames, attribute excluded",
	  [](unsigned) {
		  return std::vector{ Item{ PACKET_ALL, 0, {} },
				      Item{ PACKET_PID_T, 4, { 0, 0, 0, 0 } } };
	  },
	  nullptr, near_miss },
	// The frame has the source MAC, which tells frames apart best, and all other values but one.
	{ "source MAC, one of six others fails",
	  [](unsigned i) {
		  std::vector items{ frame_mac(),
				     value16(PACKET_ETH_PROT_EQUAL, kIpv4),
				     byte(PACKET_IPv4_PROT_EQUAL, 17),
				     value16(PACKET_IPv4_DEST_PORT_EQUAL, kOtherPort),
				     value16(PACKET_IPv4_SRC_PORT_EQUAL, kOtherPort),
				     Item{ PACKET_PID_T, 4, { 1, 0, 0, 0 } } };
		  Item &failing = items[1 + i % 4];
		  failing.values[0] ^= 0x80;
		  return items;
	  },
	  nullptr, near_miss },
	{ "source MAC, one other fails",
	  [](unsigned i) {
		  const Item others[] = { value16(PACKET_ETH_PROT_EQUAL, 0x9000),
					  byte(PACKET_IPv4_PROT_EQUAL, 18),
					  value16(PACKET_IPv4_DEST_PORT_EQUAL, port(0)),
					  value16(PACKET_IPv4_SRC_PORT_EQUAL, port(0)) };
		  return std::vector{ frame_mac(), others[i % 4] };
	  },
	  nullptr, near_miss },
	{ "source MAC, 64 other ports",
	  [](unsigned) {
		  return std::vector{ frame_mac(), other_ports() };
	  },
	  nullptr, near_miss },
	{ "two EtherTypes, source MAC, 64 other ports",
	  [](unsigned) {
		  Item types = value16(PACKET_ETH_PROT_EQUAL, kIpv4);
		  types.values.insert(types.values.end(), { 0x90, 0x00 });
		  return std::vector{ types, frame_mac(), other_ports() };
	  },
	  nullptr, near_miss },
	// All that the frame has, and another value each; the last condition fails.
	{ "seven types of two values, the last fails",
	  [](unsigned) {
		  return std::vector{
			  pair(value16(PACKET_ETH_PROT_EQUAL, kIpv4),
			       value16(PACKET_ETH_PROT_EQUAL, 0x9000)),
			  pair(frame_mac(), mac(PACKET_SRC_MAC_EQUAL, 1)),
			  pair(frame_mac(PACKET_DEST_MAC_EQUAL), mac(PACKET_DEST_MAC_EQUAL, 1)),
			  pair(byte(PACKET_IPv4_PROT_EQUAL, 17), byte(PACKET_IPv4_PROT_EQUAL, 18)),
			  pair(value16(PACKET_IPv4_DEST_PORT_EQUAL, kOtherPort),
			       value16(PACKET_IPv4_DEST_PORT_EQUAL, port(0))),
			  pair(frame_interface(), interface(0)),
			  pair(value16(PACKET_IPv4_SRC_PORT_EQUAL, port(0)),
			       value16(PACKET_IPv4_SRC_PORT_EQUAL, port(1)))
		  };
	  },
	  nullptr, near_miss },
	// Of the types that the frame has values of: long chains in the buckets where it looks.
	{ "12,000 values each", [](unsigned i) { return std::vector{ many_values(i) }; }, nullptr,
	  near_miss },
	{ "any EtherType, own port",
	  [](unsigned i) {
		  return std::vector{ value16(PACKET_ETH_PROT_EQUAL, 3),
				      value16(PACKET_IPv4_DEST_PORT_EQUAL, port(i)) };
	  },
	  nullptr, near_miss },
};

const Shape &hurting_most()
{
	static const std::string kMostly = "source MAC, one other fails";
	return *std::find_if(kHurting.begin(), kHurting.end(),
			     [](const Shape &shape) { return shape.name == kMostly; });
}

const Shape kAllTypes = {
	"14 types, 73 each", [](unsigned i) { return std::vector{ of_each_type(i) }; },
	// Of the source ports, the ninth type.
	[](unsigned) { return udp(uint16_t(0x9000 + 100 + kOfEachType / 2), kOtherPort); },
	near_miss
};

} // namespace bench
