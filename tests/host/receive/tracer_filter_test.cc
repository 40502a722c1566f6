// SPDX-License-Identifier: GPL-2.0-only
// Which frames a trace follows.
#include "trace_frames.h"

namespace {

TEST_F(Tracer, matches__each_criterion_alone)
{
	const struct {
		const char *name;
		TraceFilter filter;
		FrameHeaders frame;
		bool matches;
	} rows[] = {
		{ "nothing asked", filter({}), udp4(), true },
		{ "nothing asked, nothing known", filter({}), bare(), true },
		{ "location", by_location(kLocation), udp4(), true },
		{ "another location", by_location(PACKET_LOCAL_LOC), udp4(), false },
		{ "interface", by_ifindex(7), udp4(), true },
		{ "another interface", by_ifindex(8), udp4(), false },
		{ "VLAN", by_vlan(100), udp4(), true },
		{ "another VLAN", by_vlan(101), udp4(), false },
		{ "no VLAN", by_vlan(0), arp(), true },
		{ "a VLAN instead of none", by_vlan(0), udp4(), false },
		{ "destination MAC", by_mac(kDst), udp4(), true },
		{ "source MAC", by_mac(kSrc), udp4(), true },
		{ "another MAC", by_mac(kOther), udp4(), false },
		{ "MAC in the first byte", by_mac({ 3, 0, 0, 0, 0, 1 }), udp4(), false },
		{ "MAC of a frame without one", by_mac(Bytes(6)), bare(), false },
		{ "EtherType", by_type(0x0800), udp4(), true },
		{ "another EtherType", by_type(0x0008), udp4(), false },
		{ "source address", by_address({ 10, 0, 0, 9 }), udp4(), true },
		{ "destination address", by_address({ 192, 0, 2, 7 }), udp4(), true },
		{ "another address", by_address({ 10, 0, 0, 8 }), udp4(), false },
		{ "address of no IP packet", by_address({ 0, 0, 0, 0 }), arp(), false },
		{ "any address of no IP packet", by_address({ 0, 0, 0, 0 }, 0), arp(), false },
		{ "any IPv4 address", by_address({ 9, 9, 9, 9 }, 0), udp4(), true },
		{ "any IPv4 address of IPv6", by_address({ 9, 9, 9, 9 }, 0), tcp6(), false },
		{ "any IPv6 address", by_address(Bytes(16, 9), 0), tcp6(), true },
		{ "any IPv6 address of IPv4", by_address(Bytes(16, 9), 0), udp4(), false },
		{ "protocol", by_protocol(17), udp4(), true },
		{ "another protocol", by_protocol(6), udp4(), false },
		{ "next header", by_protocol(6), tcp6(), true },
		{ "protocol 0 of no IP packet", by_protocol(0), arp(), false },
		{ "source port", by_port(1000), udp4(), true },
		{ "destination port", by_port(53), udp4(), true },
		{ "another port", by_port(0x3500), udp4(), false },
		{ "port 0 of a frame without ports", by_port(0), arp(), false },
	};
	for (const auto &row : rows)
		EXPECT_EQ(trace_matches(row.filter, row.frame, kLocation), row.matches) << row.name;
	EXPECT_FALSE(trace_matches(by_location(kLocation), udp4(), 0)) << "a send";
	EXPECT_TRUE(trace_matches(filter({}), udp4(), 0)) << "a send";
}

// Of several criteria each one has to be satisfied.
TEST_F(Tracer, matches__several_criteria)
{
	TraceFilter whole = by_address({ 192, 0, 2, 0 }, 24);
	for (auto which :
	     { MOX_CAPTURE_REQUEST_LOCATION, MOX_CAPTURE_REQUEST_IFINDEX, MOX_CAPTURE_REQUEST_VLAN,
	       MOX_CAPTURE_REQUEST_MAC, MOX_CAPTURE_REQUEST_ETHER_TYPE,
	       MOX_CAPTURE_REQUEST_IP_PROTOCOL, MOX_CAPTURE_REQUEST_PORT })
		whole.criteria |= 1u << which;
	whole.location = kLocation;
	whole.ifindex = 7;
	whole.vlan = 100;
	memcpy(whole.mac, kSrc.data(), 6);
	whole.ether_type = 0x0800;
	whole.ip_protocol = 17;
	whole.port = 53;
	EXPECT_TRUE(trace_matches(whole, udp4(), kLocation));

	const struct {
		const char *name;
		void (*spoil)(TraceFilter &f);
	} rows[] = {
		{ "location", [](TraceFilter &f) { f.location++; } },
		{ "interface", [](TraceFilter &f) { f.ifindex++; } },
		{ "VLAN", [](TraceFilter &f) { f.vlan++; } },
		{ "MAC", [](TraceFilter &f) { f.mac[5] = 9; } },
		{ "EtherType", [](TraceFilter &f) { f.ether_type++; } },
		{ "address", [](TraceFilter &f) { f.address[2]++; } },
		{ "protocol", [](TraceFilter &f) { f.ip_protocol++; } },
		{ "port", [](TraceFilter &f) { f.port++; } },
	};
	for (const auto &row : rows) {
		TraceFilter spoiled = whole;
		row.spoil(spoiled);
		EXPECT_FALSE(trace_matches(spoiled, udp4(), kLocation)) << row.name;
	}
}

// An address that differs in bit i from the filter's matches prefixes of up to i bits.
TEST_F(Tracer, matches__prefixes_of_every_length)
{
	for (const FrameHeaders &frame : { udp4(), tcp6() })
		for (bool source : { true, false }) {
			const u32 bits = frame.address_size * 8u;
			const u8 *own = source ? frame.src_address : frame.dst_address;
			for (u32 prefix = 0; prefix <= bits; prefix++) {
				const Bytes same(own, own + frame.address_size);
				ASSERT_TRUE(
					trace_matches(by_address(same, static_cast<int>(prefix)),
						      frame, kLocation));
				for (u32 bit = 0; bit < bits; bit++) {
					Bytes other = same;
					other[bit / 8] ^= static_cast<u8>(0x80 >> bit % 8);
					// The other address of the frame is far from both.
					FrameHeaders one = frame;
					u8 *rest = source ? one.dst_address : one.src_address;
					for (u32 i = 0; i < frame.address_size; i++)
						rest[i] = static_cast<u8>(~other[i]);
					ASSERT_EQ(trace_matches(by_address(other, static_cast<int>(
											  prefix)),
								one, kLocation),
						  prefix <= bit)
						<< "prefix " << prefix << ", bit " << bit;
				}
			}
		}
}

} // namespace
