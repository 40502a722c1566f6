// SPDX-License-Identifier: GPL-2.0-only
// The packet summaries: by hand where a rule hangs on it, against the reference
// for everything else.
#include <random>

#include "packets.h"
#include "rules_fixture.h"

namespace {

using namespace packets;

uint16_t net16(uint16_t host)
{
	return __builtin_bswap16(host);
}

class PktInfo : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		const uint8_t mac[6] = { 2, 0, 0, 0, 0, 9 };
		port = fake::word(efmp().add_interface(7, "eth7", mac));
	}
	pkt_info build(Meta m, const Bytes &frame)
	{
		m.source = port;
		void *e = make(m, frame);
		pkt_info info;
		memset(static_cast<void *>(&info), 0xff, sizeof info);
		pkt_info_build(e, &info);
		compare(info, e);
		last = e;
		return info;
	}
	pkt_info build4(const Bytes &ip, Meta m = {})
	{
		m.kind = 1;
		return build(m, eth(0x0800) + ip);
	}
	pkt_info build6(const Bytes &ip, Meta m = {})
	{
		m.kind = 27;
		return build(m, eth(0x86dd) + ip);
	}
	u32 wlan(Meta m, const Bytes &frame)
	{
		m.source = port;
		void *e = make(m, frame);
		pkt_wlan_info info;
		memset(&info, 0xff, sizeof info);
		pkt_wlan_info_build(e, &info);
		compare(info, read_wlan(e));
		return info.flags;
	}
	static void compare(const pkt_info &got, const void *e) { compare(got, e, read(e)); }
	static void compare(const pkt_info &got, const void *e, const Packet &want)
	{
		EXPECT_EQ(got.flags, want.flag_byte());
		EXPECT_EQ(memcmp(got.src_mac, want.src_mac.data(), 6), 0);
		EXPECT_EQ(memcmp(got.dst_mac, want.dst_mac.data(), 6), 0);
		EXPECT_EQ(got.eth_type, want.eth_net);
		EXPECT_EQ(got.snap_type, want.snap_net);
		EXPECT_EQ(got.eapol_type, want.eapol_type);
		EXPECT_EQ(got.ip_proto, want.ip_proto);
		EXPECT_EQ(got.icmpv6_type, want.icmp6);
		EXPECT_EQ(got.dst_port, want.dst_port_net);
		EXPECT_EQ(got.src_port, want.src_port_net);
		EXPECT_EQ(got.code, want.code);
		EXPECT_EQ(got.sub_code, want.sub_code);
		EXPECT_EQ(got.vlan, want.vlan);
		EXPECT_EQ(got.ifindex, want.ifindex);
		EXPECT_EQ(got.attr, want.attr);
		EXPECT_EQ(got.arp_op, want.arp_net);
		EXPECT_EQ(memcmp(&got.ipv4_dst, want.v4_dst.data(), 4), 0);
		EXPECT_EQ(got.ipv6_dst != nullptr, want.v6_dst_set);
		if (got.ipv6_dst && want.v6_dst_set)
			EXPECT_EQ(memcmp(got.ipv6_dst, want.v6_dst.data(), 16), 0);
		EXPECT_EQ(got.efbuff, e);
	}
	static void compare(const pkt_wlan_info &got, const WlanPacket &want)
	{
		EXPECT_EQ(got.flags, want.flag_word());
		EXPECT_EQ(got.eapol_type, want.eapol_type);
		EXPECT_EQ(got.eth_type, want.eth_net);
		EXPECT_EQ(got.ifindex, want.ifindex);
		EXPECT_EQ(got.attr, want.attr);
		EXPECT_EQ(got.reserved, 0);
	}

	u32 port = 0;
	void *last = nullptr;
};

const Bytes kHost4{ 10, 0, 0, 1 };
const Bytes kHost6 = addr6(0x20, 1, 1);

TEST_F(PktInfo, record__is_64_byte_aligned)
{
	EXPECT_EQ(alignof(pkt_info), 64u);
}

TEST_F(PktInfo, build__fields_of_every_packet)
{
	pkt_info info = build({ .attr = 0x12345678,
				.inner_tci = 0xabcd,
				.outer_tci = 0xe123,
				.code = 3,
				.sub_code = 4 },
			      eth(0x88cc));
	EXPECT_EQ(info.vlan, __builtin_bswap32(0x0123));
	EXPECT_EQ(info.attr, 0x12345678u);
	EXPECT_EQ(info.code, 3);
	EXPECT_EQ(info.sub_code, 4);
	EXPECT_EQ(info.ifindex, 7u);
	EXPECT_EQ(info.dst_mac, static_cast<u8 *>(last) + 272);
	EXPECT_EQ(info.src_mac, static_cast<u8 *>(last) + 278);
}

TEST_F(PktInfo, build__no_layer2_header)
{
	for (u8 kind : { 1, 27 }) {
		pkt_info info = build({ .kind = kind, .l2_len = 0 }, eth(0x888e));
		EXPECT_EQ(info.flags & ~0x18, 0x20);
		EXPECT_EQ(info.eth_type, 0);
		EXPECT_EQ(info.src_mac, pkt_null_mac);
		EXPECT_EQ(info.dst_mac, pkt_null_mac);
		EXPECT_EQ(memcmp(pkt_null_mac, "\0\0\0\0\0\0", 6), 0);
	}
	EXPECT_EQ(build({ .kind = 2, .l2_len = 0 }, eth(0x0801)).flags, 0);
}

TEST_F(PktInfo, build__eapol_snap_arp)
{
	EXPECT_EQ(build({}, eth(0x888e) + Bytes{ 1, 3 }).eapol_type, 3);
	EXPECT_EQ(build({}, eth(0x888e) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 }).flags, 0x06);
	pkt_info snap = build({}, eth(38) + Bytes{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 });
	EXPECT_EQ(snap.flags, 0x04);
	EXPECT_EQ(snap.snap_type, net16(0x2004));
	EXPECT_EQ(build({}, eth(38) + Bytes{ 0xaa, 0xab, 3, 0, 0, 0, 0x20, 4 }).flags, 0);
	EXPECT_EQ(build({}, eth(0x0806) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 2 }).arp_op, net16(2));
	EXPECT_EQ(build({}, eth(0x8035) + Bytes{ 0, 1, 8, 0, 6, 4, 0, 2 }).arp_op, 0);
}

TEST_F(PktInfo, build__ipv4_ports_bound_is_eight_bytes_strictly)
{
	EXPECT_EQ(build4(ipv4(17, kHost4, ports(68, 67, 9))).dst_port, net16(67));
	EXPECT_EQ(build4(ipv4(17, kHost4, ports(68, 67, 8))).dst_port, 0);
	EXPECT_EQ(build4(ipv4(6, kHost4, ports(68, 67, 9))).src_port, net16(68));
	EXPECT_EQ(build4(ipv4(6, kHost4, ports(68, 67, 8))).src_port, 0);
	EXPECT_EQ(build4(ipv4(1, kHost4, ports(68, 67, 20))).src_port, 0);
	EXPECT_EQ(build4(ipv4(17, kHost4, ports(68, 67, 9), 15)).dst_port, net16(67));
}

TEST_F(PktInfo, build__ipv4_shorter_than_its_layer2_header)
{
	pkt_info info = build({ .kind = 1, .total = 10 },
			      eth(0x0800) + ipv4(17, kHost4, ports(68, 67, 20)));
	EXPECT_EQ(info.flags, 0x08);
	EXPECT_EQ(info.dst_port, 0);
}

TEST_F(PktInfo, build__ipv6_claiming_more_than_there_is)
{
	Bytes ip = ipv6(17, kHost6, ports(546, 547));
	pkt_info info = build({ .kind = 27, .total = 14 + 47 }, eth(0x86dd) + ip);
	EXPECT_EQ(info.flags, 0);
	EXPECT_EQ(info.ipv6_dst, nullptr);
	EXPECT_EQ(build6(ip).flags, 0x10);
	EXPECT_EQ(build({ .kind = 27, .total = 14 + 39 }, eth(0x86dd) + ipv6(17, kHost6, {})).flags,
		  0);
	EXPECT_EQ(build({ .kind = 27, .total = 8 }, eth(0x86dd) + ip).flags, 0);
	EXPECT_EQ(build6(ipv6(17, kHost6, {})).ip_proto, 0);
}

TEST_F(PktInfo, build__ipv6_upper_layer_bounds)
{
	EXPECT_EQ(build6(ipv6(17, kHost6, ports(546, 547, 8))).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(17, kHost6, ports(546, 547, 7))).dst_port, 0);
	EXPECT_EQ(build6(ipv6(17, kHost6, ports(546, 547, 7))).ip_proto, 17);
	EXPECT_EQ(build6(ipv6(6, kHost6, ports(546, 547, 20))).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(6, kHost6, ports(546, 547, 19))).dst_port, 0);
	EXPECT_EQ(build6(ipv6(58, kHost6, { 135, 0, 0, 0 })).icmpv6_type, 135);
	EXPECT_EQ(build6(ipv6(58, kHost6, { 135, 0, 0 })).icmpv6_type, 0);
	EXPECT_EQ(build6(ipv6(103, kHost6, { 135, 0, 0, 0 })).ip_proto, 103);
	EXPECT_EQ(build6(ipv6(103, kHost6, { 135, 0, 0, 0 })).icmpv6_type, 0);
	EXPECT_EQ(build6(ipv6(59, kHost6, ports(1, 2))).ip_proto, 0);
	::Bytes last_hop = ipv6(17, kHost6, ports(546, 547, 8));
	last_hop[7] = 59; // the hop limit: no next header
	EXPECT_EQ(build6(last_hop).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(50, kHost6, ports(1, 2))).ip_proto, 0);
}

TEST_F(PktInfo, build__ipv6_extension_headers)
{
	Bytes udp = ports(546, 547);
	for (u8 next : { 0, 43, 60 }) {
		EXPECT_EQ(build6(ipv6(next, kHost6, options(17) + udp)).dst_port, net16(547));
		EXPECT_EQ(build6(ipv6(next, kHost6, options(17, 2) + udp)).dst_port, net16(547));
		EXPECT_EQ(build6(ipv6(next, kHost6, options(59) + udp)).ip_proto, 0);
		EXPECT_EQ(build6(ipv6(next, kHost6, options(17))).ip_proto, 0);
	}
	EXPECT_EQ(build6(ipv6(51, kHost6, auth(17) + udp)).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(51, kHost6, auth(17, 1) + udp)).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(0, kHost6,
			      options(43) + options(60) + options(51) + auth(44) + fragment(58, 0) +
				      Bytes{ 128, 0, 0, 0 }))
			  .icmpv6_type,
		  128);
}

TEST_F(PktInfo, build__ipv6_fragments)
{
	Bytes udp = ports(546, 547);
	EXPECT_EQ(build6(ipv6(44, kHost6, fragment(17, 0x0001) + udp)).dst_port, net16(547));
	EXPECT_EQ(build6(ipv6(44, kHost6, fragment(17, 0x0007) + udp)).dst_port, net16(547));
	for (uint16_t field : { 0x0008, 0x0009, 0x0100, 0xfff8 }) {
		pkt_info info = build6(ipv6(44, kHost6, fragment(17, field) + udp));
		EXPECT_EQ(info.flags, 0x10);
		EXPECT_EQ(info.ip_proto, 0);
		EXPECT_EQ(info.dst_port, 0);
	}
	EXPECT_EQ(build6(ipv6(44, kHost6, fragment(17, 0))).ip_proto, 0);
}

// An extension header cut at every length must neither be read beyond the frame
// (the fake poisons it) nor yield anything.
TEST_F(PktInfo, build__ipv6_cut_at_every_length)
{
	Bytes whole = ipv6(0, kHost6,
			   options(43) + options(60, 1) + options(51) + auth(44) + fragment(6, 0) +
				   ports(1, 2, 20));
	whole[4] = whole[5] = 0; // claims no payload, so that every length passes the first check
	for (size_t len = 0; len <= whole.size(); len++) {
		SCOPED_TRACE(len);
		Bytes frame = eth(0x86dd) + Bytes(whole.begin(), whole.begin() + len);
		pkt_info info = build({ .kind = 27, .total = int64_t(frame.size()) }, frame);
		EXPECT_EQ(info.dst_port != 0, len == whole.size());
	}
}

TEST_F(PktInfo, build__layer3_only_packets_are_parsed_at_the_network_offset)
{
	pkt_info info = build({ .kind = 1, .l2_len = 0 }, ipv4(17, kHost4, ports(68, 67, 9)));
	EXPECT_EQ(info.flags, 0x28);
	EXPECT_EQ(info.dst_port, net16(67));
	info = build({ .kind = 27, .l2_len = 0 }, ipv6(58, kHost6, { 135, 0, 0, 0 }));
	EXPECT_EQ(info.flags, 0x30);
	EXPECT_EQ(info.icmpv6_type, 135);
}

// ---- frames that end before what is read of them -----------------------------------------

struct Shape {
	const char *what;
	Meta meta;
	Bytes frame;
};

const std::vector<Shape> kShapes = [] {
	Bytes wsc = eth(0x888e) + Bytes(8, 1);
	wsc[22 - 1] = 0;
	wsc = wsc + Bytes{ 0xfe };
	for (char c : std::string("WFA-SimpleConfig-Enrollee-1-0"))
		wsc.push_back(c);
	Bytes expanded = eth(0x888e) + Bytes(20, 1);
	expanded[22] = 0xfe;
	expanded[29] = 1;
	const Bytes snap{ 0xaa, 0xaa, 3, 0, 0, 0, 0x20, 4 };
	const Bytes arp{ 0, 1, 8, 0, 6, 4, 0, 2 };
	const Bytes udp4 = ipv4(17, kHost4, ports(68, 67, 40));
	const Bytes tcp4 = ipv4(6, kHost4, ports(68, 67, 40), 7);
	const Bytes udp6 = ipv6(17, kHost6, ports(546, 547, 20));
	Bytes claims_nothing = ipv6(0, kHost6, options(58) + Bytes{ 135, 0, 0, 0 });
	claims_nothing[4] = claims_nothing[5] = 0;
	return std::vector<Shape>{
		{ "LLDP", {}, eth(0x88cc) + Bytes(60, 0x33) },
		{ "EAPOL", {}, eth(0x888e) + Bytes{ 1, 3 } + Bytes(60, 0x33) },
		{ "SNAP in EAPOL", {}, eth(0x888e) + snap },
		{ "SNAP", {}, eth(38) + snap + Bytes(40, 0x33) },
		{ "ARP", {}, eth(0x0806) + arp + Bytes(40, 0x33) },
		{ "Wi-Fi Simple Config by name", {}, wsc },
		{ "Wi-Fi Simple Config by type", {}, expanded },
		{ "802.11", { .wlan_flags = 0x48000 }, eth(0x888e) },
		{ "IPv4, UDP", { .kind = 1 }, eth(0x0800) + udp4 },
		{ "IPv4, TCP, options", { .kind = 1 }, eth(0x0800) + tcp4 },
		{ "IPv4 alone", { .kind = 1, .l2_len = 0 }, udp4 },
		{ "IPv4 behind a long layer-2 header",
		  { .kind = 1, .l2_len = 30 },
		  eth(0x0800) + Bytes(16, 7) + udp4 },
		{ "IPv4 header farther back than the length says",
		  { .kind = 1, .net_offset = 256 + 16 + 40 },
		  eth(0x0800) + Bytes(26, 7) + udp4 },
		{ "IPv6, UDP", { .kind = 27 }, eth(0x86dd) + udp6 },
		{ "IPv6, claims no payload", { .kind = 27 }, eth(0x86dd) + claims_nothing },
		{ "IPv6 alone", { .kind = 27, .l2_len = 0 }, udp6 },
		{ "IPv6 alone, claims no payload", { .kind = 27, .l2_len = 0 }, claims_nothing },
		{ "IPv6 header farther back than the length says",
		  { .kind = 27, .l2_len = 0, .net_offset = 256 + 16 + 14 },
		  eth(0x86dd) + claims_nothing },
	};
}();

// Each kind of frame at each length: what lies behind the end does not show, be it the rest of
// the frame, old memory, or zeroes.
TEST_F(PktInfo, short__bytes_behind_the_end_read_as_zero)
{
	for (const Shape &shape : kShapes)
		for (size_t total = 0; total <= 66; total++) {
			SCOPED_TRACE(std::string(shape.what) + ", " + std::to_string(total) +
				     " bytes");
			Bytes whole = shape.frame;
			if (whole.size() < total)
				whole.resize(total, 0x44);
			Meta m = shape.meta;
			m.total = int64_t(total);
			m.source = port;
			// The reference's summary of the frame with zeroes behind it.
			m.behind = 0;
			const Bytes cut(whole.begin(), whole.begin() + int64_t(total));
			Packet want;
			WlanPacket wlan_want;
			{
				std::vector<uint8_t> zeroed = efbuff(m, cut);
				zeroed.resize(512);
				want = parse(zeroed.data(), 7);
				wlan_want = parse_wlan(zeroed.data(), 7);
			}
			for (const auto &[behind, frame] : { std::pair<uint8_t, Bytes>{ 0xa5, cut },
							     { 0x00, cut },
							     { 0xaa, cut },
							     { 0xa5, whole } }) {
				m.behind = behind;
				void *e = make(m, frame);
				alignas(64) pkt_info info;
				memset(static_cast<void *>(&info), 0xff, sizeof info);
				pkt_info_build(e, &info);
				compare(info, e, want);
				pkt_wlan_info wlan_info;
				memset(&wlan_info, 0xff, sizeof wlan_info);
				pkt_wlan_info_build(e, &wlan_info);
				compare(wlan_info, wlan_want);
				efmp().drop(e);
			}
		}
}

// By hand, for what a rule or the control record shows of the shortest frames.
TEST_F(PktInfo, short__the_fields_of_cut_frames)
{
	const Bytes frame = eth(0x888e, 0x0e, 0x0f) + Bytes{ 1, 3 };
	for (size_t total = 0; total <= frame.size(); total++) {
		SCOPED_TRACE(total);
		Meta m{ .source = port, .total = int64_t(total), .behind = 0xa5 };
		void *e = make(m, Bytes(frame.begin(), frame.begin() + int64_t(total)));
		pkt_info info;
		pkt_info_build(e, &info);
		for (size_t i = 0; i < 6; i++) {
			EXPECT_EQ(info.dst_mac[i], i < total ? frame[i] : 0) << i;
			EXPECT_EQ(info.src_mac[i], 6 + i < total ? frame[6 + i] : 0) << i;
		}
		EXPECT_EQ(info.eth_type, total >= 14   ? net16(0x888e)
					 : total == 13 ? net16(0x8800)
						       : 0);
		EXPECT_EQ(info.flags, total >= 14 ? 0x02 : 0);
		EXPECT_EQ(info.eapol_type, total >= 16 ? 3 : 0);
		// Whole addresses are the frame's own.
		EXPECT_EQ(info.dst_mac == static_cast<u8 *>(e) + 272, total >= 12);
		efmp().drop(e);
	}
}

TEST_F(PktInfo, wlan__flags)
{
	EXPECT_EQ(wlan({ .wlan_flags = 0x40000 }, eth(0x888e)), 0x40u);
	EXPECT_EQ(wlan({ .wlan_flags = 0x48000 }, eth(0x888e)), 0xc0u);
	EXPECT_EQ(wlan({ .wlan_flags = 0x08000 }, eth(0x0800)), 0u);
	EXPECT_EQ(wlan({ .kind = 27, .l2_len = 0 }, eth(0x888e)), 0x20u);
	EXPECT_EQ(wlan({ .kind = 2, .l2_len = 0 }, eth(0x888e) + Bytes{ 1, 0 }), 0x02u);
	Bytes enrollee = eth(0x888e) + Bytes(9, 0);
	for (char c : std::string("WFA-SimpleConfig-Enrollee-1-0"))
		enrollee.push_back(c);
	EXPECT_EQ(wlan({}, enrollee), 0x102u);
	for (size_t i : { size_t{ 23 }, size_t{ 40 }, enrollee.size() - 1 }) {
		Bytes bent = enrollee;
		bent[i] ^= 1;
		EXPECT_EQ(wlan({}, bent), 0x02u) << i;
	}
	Bytes expanded = eth(0x888e) + Bytes(20, 0);
	expanded[22] = 0xfe;
	expanded[29] = 1;
	EXPECT_EQ(wlan({}, expanded), 0x102u);
	expanded[29] = 2;
	EXPECT_EQ(wlan({}, expanded), 0x02u);
	expanded[29] = 1;
	expanded[12] = 0x08;
	EXPECT_EQ(wlan({}, expanded), 0u);
}

TEST_F(PktInfo, build__random_frames_as_the_reference_reads_them)
{
	uint64_t seed = getenv("SEED") ? strtoull(getenv("SEED"), nullptr, 0)
				       : std::random_device{}();
	printf("SEED=%llu PktInfo random frames\n", static_cast<unsigned long long>(seed));
	std::mt19937_64 rng(seed);
	auto pick = [&](std::initializer_list<uint32_t> of) {
		return *(of.begin() + rng() % of.size());
	};
	for (int i = 0; i < 20000 && !HasFailure(); i++) {
		Bytes payload(rng() % 60);
		for (uint8_t &b : payload)
			b = rng() % 3 ? pick({ 0, 1, 6, 17, 43, 44, 51, 58, 59, 60, 103, 0xaa })
				      : rng();
		Bytes frame = eth(pick({ 0x0800, 0x86dd, 0x888e, 0x0806, 0x88cc, 5 }), rng() % 3,
				  rng() % 3);
		Bytes dst(rng() % 2 ? kHost6 : addr6(0xff, 5, 1));
		switch (rng() % 4) {
		case 0:
			frame = frame + payload;
			break;
		case 1:
			frame = frame + ipv4(pick({ 1, 2, 6, 17 }), kHost4, payload, 5 + rng() % 3);
			break;
		default:
			frame = frame +
				ipv6(pick({ 0, 6, 17, 43, 44, 51, 58, 59, 60, 103 }), dst, payload);
		}
		Meta m;
		m.kind = pick({ 1, 2, 27, 27 });
		m.l2_len = pick({ 14, 14, 14, 0 });
		m.wlan_flags = pick({ 0, 0, 0x40000, 0x48000 });
		m.attr = rng();
		m.outer_tci = rng();
		m.inner_tci = rng();
		if (rng() % 4 == 0)
			m.total = rng() % (frame.size() + 1);
		m.behind = pick({ 0, 1, 17, 0xa5, 0xaa });
		if (m.total >= 0 && rng() % 2)
			frame.resize(m.total);
		build(m, frame);
		efmp().drop(last);
		wlan(m, frame);
		if (efmp().live.size() > 100)
			while (!efmp().live.empty())
				efmp().drop(fake::pointer(efmp().live.begin()->first));
	}
}

} // namespace
