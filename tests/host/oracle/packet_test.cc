// SPDX-License-Identifier: GPL-2.0-only
// Pins the naive parser with frames whose reading was worked out by hand.
#include <gtest/gtest.h>

#include "frames.h"
#include "packet.h"

namespace oracle {
namespace {

uint16_t net16(uint16_t host)
{
	return __builtin_bswap16(host);
}

Packet read(const Meta &m, const Bytes &frame)
{
	return parse(efbuff(m, frame).data(), 7);
}
Packet read4(const Bytes &ip)
{
	return read({ .kind = 1 }, eth(0x0800) + ip);
}
Packet read6(const Bytes &ip)
{
	return read({ .kind = 27 }, eth(0x86dd) + ip);
}

const Bytes kHost6 = addr6(0x20, 0x01, 1);

TEST(OraclePacket, parse__ethernet_fields)
{
	Packet p = read({ .kind = 2, .attr = 5, .outer_tci = 0xe123, .code = 3, .sub_code = 4 },
			eth(0x88cc, 0x0e, 0x0f) + Bytes{ 1, 2, 3 });
	EXPECT_EQ(p.dst_mac, (std::array<uint8_t, 6>{ 2, 0, 0, 0, 0, 0x0e }));
	EXPECT_EQ(p.src_mac, (std::array<uint8_t, 6>{ 2, 0, 0, 0, 0, 0x0f }));
	EXPECT_EQ(p.eth_net, net16(0x88cc));
	EXPECT_EQ(p.flag_byte(), 0);
	EXPECT_EQ(p.attr, 5u);
	EXPECT_EQ(p.ifindex, 7u);
	EXPECT_EQ(p.code, 3);
	EXPECT_EQ(p.sub_code, 4);
	EXPECT_EQ(__builtin_bswap32(p.vlan), 0x0123u); // the priority bits are gone
}

TEST(OraclePacket, parse__second_vlan_is_masked_out)
{
	Packet p = read({ .inner_tci = 0xffff, .outer_tci = 0x0fff }, eth(0x88cc));
	EXPECT_EQ(__builtin_bswap32(p.vlan), 0x0fffu);
}

TEST(OraclePacket, parse__no_layer2_for_ip_kinds_only)
{
	for (uint8_t kind : { 1, 27 }) {
		Packet p = read({ .kind = kind, .l2_len = 0 }, eth(0x0800));
		EXPECT_TRUE(p.no_l2);
		EXPECT_EQ(p.eth_net, 0);
		EXPECT_EQ(p.dst_mac, (std::array<uint8_t, 6>{}));
	}
	Packet other = read({ .kind = 2, .l2_len = 0 }, eth(0x88cc));
	EXPECT_FALSE(other.no_l2);
	EXPECT_EQ(other.eth_net, net16(0x88cc));
}

TEST(OraclePacket, parse__eapol_snap_arp)
{
	EXPECT_EQ(read({}, eth(0x888e) + Bytes{ 1, 3 }).eapol_type, 3);
	EXPECT_EQ(read({}, eth(0x888e) + Bytes{ 1, 3 }).flag_byte(), 0x02);

	Packet snap = read({}, eth(0x0040) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 0x04 });
	EXPECT_EQ(snap.flag_byte(), 0x04);
	EXPECT_EQ(snap.snap_net, net16(0x2004));

	Packet both = read({}, eth(0x888e) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 0x04 });
	EXPECT_EQ(both.flag_byte(), 0x06);
	EXPECT_EQ(both.eapol_type, 0xaa);

	Packet arp = read({}, eth(0x0806) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 2 });
	EXPECT_EQ(arp.arp_net, net16(2));
	EXPECT_EQ(read({}, eth(0x0805) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 2 }).arp_net, 0);
}

TEST(OraclePacket, parse__ipv4_ports_need_more_than_eight_bytes_behind_the_header)
{
	Packet p = read4(ipv4(17, { 10, 0, 0, 1 }, ports(68, 67) + Bytes{ 0 }));
	EXPECT_TRUE(p.v4);
	EXPECT_EQ(p.src_port_net, net16(68));
	EXPECT_EQ(p.dst_port_net, net16(67));
	EXPECT_EQ(p.v4_dst, (std::array<uint8_t, 4>{ 10, 0, 0, 1 }));

	Packet exact = read4(ipv4(17, { 10, 0, 0, 1 }, ports(68, 67)));
	EXPECT_EQ(exact.ip_proto, 17);
	EXPECT_EQ(exact.dst_port_net, 0);

	Packet tcp = read4(ipv4(6, { 10, 0, 0, 1 }, ports(1, 2, 9)));
	EXPECT_EQ(tcp.dst_port_net, net16(2));
	EXPECT_EQ(read4(ipv4(1, { 10, 0, 0, 1 }, ports(1, 2, 20))).dst_port_net, 0);

	Packet with_options = read4(ipv4(17, { 10, 0, 0, 1 }, ports(68, 67, 9), 6));
	EXPECT_EQ(with_options.dst_port_net, net16(67));
}

TEST(OraclePacket, parse__ipv6_upper_layers)
{
	Packet udp = read6(ipv6(17, kHost6, ports(546, 547)));
	EXPECT_TRUE(udp.v6);
	EXPECT_EQ(udp.ip_proto, 17);
	EXPECT_EQ(udp.dst_port_net, net16(547));
	EXPECT_EQ(read6(ipv6(17, kHost6, ports(546, 547, 7))).dst_port_net, 0);
	EXPECT_EQ(read6(ipv6(6, kHost6, ports(1, 2, 19))).dst_port_net, 0);
	EXPECT_EQ(read6(ipv6(6, kHost6, ports(1, 2, 19))).ip_proto, 6);
	EXPECT_EQ(read6(ipv6(6, kHost6, ports(1, 2, 20))).dst_port_net, net16(2));
	EXPECT_EQ(read6(ipv6(58, kHost6, { 135, 0, 0, 0 })).icmp6, 135);
	EXPECT_EQ(read6(ipv6(58, kHost6, { 135, 0, 0 })).icmp6, 0);
	EXPECT_EQ(read6(ipv6(58, kHost6, { 135, 0, 0 })).ip_proto, 58);
	EXPECT_EQ(read6(ipv6(103, kHost6, { 1, 2, 3, 4 })).ip_proto, 103);
	EXPECT_EQ(read6(ipv6(50, kHost6, { 1, 2, 3, 4 })).ip_proto, 0);
	EXPECT_EQ(read6(ipv6(59, kHost6, { 1, 2, 3, 4 })).ip_proto, 0);
	EXPECT_EQ(read6(ipv6(17, kHost6, {})).ip_proto, 0);
}

TEST(OraclePacket, parse__ipv6_extension_headers)
{
	Bytes udp = ports(546, 547);
	for (uint8_t next : { 0, 43, 60 })
		EXPECT_EQ(read6(ipv6(next, kHost6, options(17, 1) + udp)).dst_port_net, net16(547))
			<< int(next);
	EXPECT_EQ(read6(ipv6(51, kHost6, auth(17) + udp)).dst_port_net, net16(547));
	EXPECT_EQ(read6(ipv6(0, kHost6, options(43) + options(60) + options(51) + auth(17) + udp))
			  .dst_port_net,
		  net16(547));
	EXPECT_EQ(read6(ipv6(0, kHost6, options(59) + udp)).ip_proto, 0);
}

TEST(OraclePacket, parse__ipv6_fragments)
{
	Bytes udp = ports(546, 547);
	EXPECT_EQ(read6(ipv6(44, kHost6, fragment(17, 0x0001) + udp)).dst_port_net, net16(547));
	EXPECT_EQ(read6(ipv6(44, kHost6, fragment(17, 0x0008) + udp)).dst_port_net, 0);
	EXPECT_EQ(read6(ipv6(44, kHost6, fragment(17, 0x0008) + udp)).ip_proto, 0);
	EXPECT_TRUE(read6(ipv6(44, kHost6, fragment(17, 0x0008) + udp)).v6);
}

TEST(OraclePacket, parse__ipv6_lengths)
{
	Bytes ip = ipv6(17, kHost6, ports(546, 547));
	EXPECT_FALSE(read({ .kind = 27, .total = 14 + 47 }, eth(0x86dd) + ip).v6);
	EXPECT_TRUE(read({ .kind = 27, .total = 14 + 48 }, eth(0x86dd) + ip).v6);
	EXPECT_FALSE(read({ .kind = 27, .total = 14 + 39 }, eth(0x86dd) + ipv6(17, kHost6, {})).v6);
	EXPECT_TRUE(read({ .kind = 27, .total = 14 + 40 }, eth(0x86dd) + ipv6(17, kHost6, {})).v6);
	// An options header that ends the packet has nothing behind it.
	EXPECT_EQ(read6(ipv6(0, kHost6, options(17))).ip_proto, 0);
}

TEST(OraclePacket, parse__layer3_without_layer2)
{
	Packet p = read({ .kind = 1, .l2_len = 0 }, ipv4(17, { 10, 0, 0, 1 }, ports(68, 67, 9)));
	EXPECT_EQ(p.flag_byte(), 0x28);
	EXPECT_EQ(p.dst_port_net, net16(67));
}

TEST(OraclePacket, parse__behind_a_short_frame_are_zeroes)
{
	Packet one = read({ .total = 1 }, eth(0x88cc, 0x0e, 0x0f));
	EXPECT_EQ(one.dst_mac, (std::array<uint8_t, 6>{ 2 }));
	EXPECT_EQ(one.src_mac, (std::array<uint8_t, 6>{}));
	EXPECT_EQ(one.eth_net, 0);
	EXPECT_EQ(read({ .total = 13 }, eth(0x88cc)).eth_net, net16(0x8800));
	EXPECT_EQ(read({ .total = 14 }, eth(0x888e) + Bytes{ 1, 3 }).eapol_type, 0);
	EXPECT_TRUE(read({ .total = 14 }, eth(0x888e) + Bytes{ 1, 3 }).eapol);
	Packet ip = read({ .kind = 1, .total = 14 + 17 },
			 eth(0x0800) + ipv4(17, { 10, 1, 2, 3 }, {}));
	EXPECT_EQ(ip.ip_proto, 17);
	EXPECT_EQ(ip.v4_dst, (std::array<uint8_t, 4>{ 10 }));
	EXPECT_EQ(parse_wlan(efbuff({ .total = 13 }, eth(0x888e)).data(), 3).eth_net,
		  net16(0x8800));
}

TEST(OraclePacket, parse_wlan__kinds_of_frames)
{
	auto flags = [](const Meta &m, const Bytes &f) {
		return parse_wlan(efbuff(m, f).data(), 3).flag_word();
	};
	EXPECT_EQ(flags({ .wlan_flags = 0x40000 }, eth(0x888e)), 0x40u);
	EXPECT_EQ(flags({ .wlan_flags = 0x48000 }, eth(0x888e)), 0xc0u);
	EXPECT_EQ(flags({ .wlan_flags = 0x8000 }, eth(0x0800)), 0u);
	EXPECT_EQ(flags({ .kind = 1, .l2_len = 0 }, eth(0x888e)), 0x20u);
	EXPECT_EQ(flags({}, eth(0x888e) + Bytes{ 1, 0 }), 0x02u);

	Bytes enrollee = eth(0x888e) + Bytes(9, 0);
	for (char c : std::string("WFA-SimpleConfig-Enrollee-1-0"))
		enrollee.push_back(c);
	EXPECT_EQ(flags({}, enrollee), 0x102u);
	enrollee.back() = '1';
	EXPECT_EQ(flags({}, enrollee), 0x02u);

	Bytes expanded = eth(0x888e) + Bytes(20, 0);
	expanded[22] = 0xfe;
	EXPECT_EQ(flags({}, expanded), 0x02u);
	expanded[29] = 1;
	EXPECT_EQ(flags({}, expanded), 0x102u);
	expanded[13] = 0x8f;
	EXPECT_EQ(flags({}, expanded), 0u);
}

} // namespace
} // namespace oracle
