// SPDX-License-Identifier: GPL-2.0-only
// The debug packet filter: its match, its lines, and where it is applied.
#include "contract/control.h"
#include "control_fixture.h"

namespace {

using namespace packets;

using contract::FilterField;
using contract::kAllFilterFlags;
using contract::kFilterFields;

class DebugFilter : public ControlTest {
protected:
	// A packet that carries everything a filter can name; no real one has both IP
	// versions, but the match does not ask why.
	struct Everything {
		Everything()
		{
			Meta m;
			m.source = word(efmp().add_interface(11, "in", Bytes(6).data()));
			m.dest = word(efmp().add_interface(12, "out", Bytes(6).data()));
			m.outer_tci = 0x0123;
			::Bytes frame = eth(0x0800, 0x77, 0x66);
			for (u8 b = 0; b < 60; b++)
				frame.push_back(0x80 + b);
			efbuff = make(m, frame);
			pkt_info_build(efbuff, &info);
			info.flags = pkt_flag::kIpv4 | pkt_flag::kIpv6;
			auto *net = net_header(efbuff);
			memcpy(&info.ipv4_dst, net + 16, 4);
			info.ipv6_dst = v6_dst;
			for (u8 b = 0; b < 16; b++)
				v6_dst[b] = 0xf0 - b;
		}
		~Everything() { efmp().drop(efbuff); }

		// The filter that names this packet in every field.
		::Bytes filter() const
		{
			::Bytes f(72);
			auto *net = net_header(efbuff);
			memcpy(&f[8], &info.vlan, 4);
			memcpy(&f[12], info.src_mac, 6);
			memcpy(&f[18], info.dst_mac, 6);
			f[24] = 11;
			f[28] = 12;
			memcpy(&f[32], net + 12, 4);
			memcpy(&f[36], net + 16, 4);
			memcpy(&f[40], net + 8, 16);
			memcpy(&f[56], v6_dst, 16);
			return f;
		}
		void *efbuff;
		pkt_info info;
		u8 v6_dst[16];
	};

	static void store(::Bytes filter, u32 flags)
	{
		memcpy(&filter[4], &flags, 4);
		mox_packet_filter f;
		memcpy(&f, filter.data(), sizeof f);
		pktd_filter_store(f);
	}
	static u32 word(const void *p) { return fake::word(p); }
	int match(const Everything &e) { return pktd_match_filter_debug(e.efbuff, &e.info); }
};

// ---- the match -----------------------------------------------------------------------

TEST_F(DebugFilter, match__without_flags_everything)
{
	Everything e;
	store(::Bytes(72, 0xff), 0);
	EXPECT_EQ(match(e), 1);
	store(::Bytes(72, 0xff), 0x001);
	EXPECT_EQ(match(e), 1) << "a bit that names nothing";
	e.info.flags = 0;
	EXPECT_EQ(match(e), 1);
}

// Every combination of bits (each alone, all pairs and all of them are among these)
// against the packet itself, and with each byte of the record changed in turn.
TEST_F(DebugFilter, match__every_combination_of_bits_and_every_byte)
{
	Everything e;
	const ::Bytes filter = e.filter();
	for (u32 flags = 0; flags <= 0x3ff; flags++) {
		store(filter, flags);
		ASSERT_EQ(match(e), 1) << flags;
		for (const FilterField &f : kFilterFields)
			for (size_t i = 0; i < f.length; i++)
				for (u8 change : { 0x01, 0x80 }) {
					::Bytes other = filter;
					other[f.offset + i] ^= change;
					store(other, flags);
					ASSERT_EQ(match(e), flags & f.flag ? 0 : 1)
						<< "flags " << flags << ", byte " << f.offset + i;
				}
	}
}

// The source addresses are read from the frame: behind its end they are zero.
TEST_F(DebugFilter, match__addresses_behind_the_frames_end_are_zero)
{
	for (int64_t total = 0; total <= 64; total++) {
		SCOPED_TRACE(total);
		Meta m{ .kind = 1, .total = total, .behind = 0xa5 };
		::Bytes frame = eth(0x0800) + ipv4(17, { 10, 1, 2, 3 }, ::Bytes(30, 1));
		::Bytes filter(72);
		for (int64_t i = 0; i < 4 && 26 + i < total; i++)
			filter[32 + i] = frame[26 + i];
		frame.resize(total);
		void *e = make(m, frame);
		pkt_info info;
		pkt_info_build(e, &info);
		store(filter, MOX_FILTER_SRC_IPV4);
		EXPECT_EQ(pktd_match_filter_debug(e, &info), 1);
		filter[35] ^= 0xa5;
		store(filter, MOX_FILTER_SRC_IPV4);
		EXPECT_EQ(pktd_match_filter_debug(e, &info), 0);
		efmp().drop(e);
	}
}

// The same from the packet's side: one byte of it changed.
TEST_F(DebugFilter, match__packets_that_differ_in_one_byte)
{
	Everything e;
	const ::Bytes filter = e.filter();
	auto *net = const_cast<u8 *>(net_header(e.efbuff));
	auto *mac = const_cast<u8 *>(mac_header(e.efbuff));
	auto *in = static_cast<u8 *>(
		fake::pointer(*reinterpret_cast<u32 *>(static_cast<u8 *>(e.efbuff) + 8)));
	struct Byte {
		u8 *at;
		u32 bits; // of the fields that see it
	};
	std::vector<Byte> bytes;
	for (int i = 0; i < 4; i++)
		bytes.push_back({ reinterpret_cast<u8 *>(&e.info.vlan) + i, 0x002 });
	for (int i = 0; i < 6; i++)
		bytes.push_back({ mac + 6 + i, 0x004 });
	for (int i = 0; i < 6; i++)
		bytes.push_back({ mac + i, 0x008 });
	for (int i = 0; i < 4; i++)
		bytes.push_back({ reinterpret_cast<u8 *>(&e.info.ifindex) + i, 0x010 });
	for (int i = 0; i < 4; i++)
		bytes.push_back({ in + i, 0x020 });
	for (int i = 0; i < 24; i++)
		bytes.push_back({ net + i, (i >= 12 && i < 16 ? 0x040u : 0u) |
						   (i >= 8 && i < 24 ? 0x100u : 0u) });
	for (int i = 0; i < 4; i++)
		bytes.push_back({ reinterpret_cast<u8 *>(&e.info.ipv4_dst) + i, 0x080 });
	for (int i = 0; i < 16; i++)
		bytes.push_back({ e.v6_dst + i, 0x200 });
	for (u32 flags = 0; flags <= 0x3fe; flags += 2) {
		store(filter, flags);
		for (const Byte &b : bytes) {
			*b.at ^= 0x10;
			ASSERT_EQ(match(e), flags & b.bits ? 0 : 1) << "flags " << flags;
			*b.at ^= 0x10;
		}
		ASSERT_EQ(match(e), 1);
	}
}

TEST_F(DebugFilter, match__addresses_need_their_header)
{
	Everything e;
	for (u32 flags = 0; flags <= 0x3fe; flags += 2)
		for (u8 has : { 0, int(pkt_flag::kIpv4), int(pkt_flag::kIpv6),
				int(pkt_flag::kIpv4 | pkt_flag::kIpv6) }) {
			store(e.filter(), flags);
			e.info.flags = has;
			bool missing = (flags & 0x0c0 && !(has & pkt_flag::kIpv4)) ||
				       (flags & 0x300 && !(has & pkt_flag::kIpv6));
			ASSERT_EQ(match(e), missing ? 0 : 1)
				<< "flags " << flags << ", headers " << int(has);
		}
}

// What only a header makes readable is not read without one.
TEST_F(DebugFilter, match__real_packets)
{
	const ::Bytes v4 = eth(0x0800) + ipv4(17, { 10, 0, 0, 1 }, ports(68, 67));
	const ::Bytes v6 = eth(0x86dd) + ipv6(17, addr6(0xff, 2, 1), ports(546, 547));
	const ::Bytes arp = eth(0x0806) + ::Bytes(28);
	struct {
		const ::Bytes &frame;
		u8 kind;
		bool v4, v6;
	} const cases[] = {
		{ v4, 1, true, false },  { v6, 27, false, true }, { arp, 2, false, false },
		{ v4, 2, false, false }, { v6, 2, false, false },
	};
	for (auto &c : cases) {
		Meta m;
		m.kind = c.kind;
		m.source = port;
		void *e = make(m, c.frame);
		pkt_info info;
		pkt_info_build(e, &info);
		::Bytes filter(72);
		memcpy(&filter[32], ::Bytes{ 10, 0, 0, 9 }.data(), 4);
		memcpy(&filter[36], ::Bytes{ 10, 0, 0, 1 }.data(), 4);
		filter[55] = 9;
		memcpy(&filter[56], addr6(0xff, 2, 1).data(), 16);
		for (u32 flags : { 0x040u, 0x080u, 0x0c0u }) {
			store(filter, flags);
			EXPECT_EQ(pktd_match_filter_debug(e, &info), c.v4);
		}
		for (u32 flags : { 0x100u, 0x200u, 0x300u }) {
			store(filter, flags);
			EXPECT_EQ(pktd_match_filter_debug(e, &info), c.v6);
		}
		store(filter, 0x2c0);
		EXPECT_EQ(pktd_match_filter_debug(e, &info), 0);
		efmp().drop(e);
	}
}

// IPv4 packets are all that 0x080 lets by, whatever their address.
TEST_F(DebugFilter, match__ipv4_destination_alone_rejects_before_it_compares)
{
	Everything e;
	::Bytes filter = e.filter();
	e.info.flags = pkt_flag::kIpv6;
	store(filter, 0x080);
	EXPECT_EQ(match(e), 0);
	e.info.flags = pkt_flag::kIpv4;
	EXPECT_EQ(match(e), 1);
	store(filter, 0x200);
	EXPECT_EQ(match(e), 0);
}

TEST_F(DebugFilter, match__destination_interface_needs_a_record)
{
	Everything e;
	auto *dst = static_cast<u8 *>(e.efbuff) + 8;
	const u32 zero = 0;
	memcpy(dst, &zero, 4);
	::Bytes filter = e.filter();
	for (u32 number : { 12u, 0u }) {
		memcpy(&filter[28], &number, 4);
		store(filter, 0x020);
		EXPECT_EQ(match(e), 0);
	}
	store(filter, 0x010);
	EXPECT_EQ(match(e), 1);
}

// A filter set in a vsd asks for that vsd in the tag word, which packets of vsd 0 lack.
TEST_F(DebugFilter, match__vlan_of_another_vsd)
{
	Everything e;
	kernel().cwd = "/data/var/run/vsd/2/work";
	::Bytes body(72);
	body[4] = 0x02;
	body[8] = 100;
	ask(15, body);
	e.info.vlan = __builtin_bswap32(100);
	EXPECT_EQ(match(e), 0);
	e.info.vlan = __builtin_bswap32(100 | 2u << 28);
	EXPECT_EQ(match(e), 1);
	e.info.vlan = __builtin_bswap32(101 | 2u << 28);
	EXPECT_EQ(match(e), 0);
	kernel().cwd = "/root";
	ask(15, body);
	e.info.vlan = __builtin_bswap32(100);
	EXPECT_EQ(match(e), 1);
}

// The tag word of a packet with VLAN 0x123 and of a filter for VLAN 0x123 are one.
TEST_F(DebugFilter, match__vlan_as_hooks_read_it)
{
	Meta m;
	m.source = port;
	m.outer_tci = 0xe123; // with a priority
	m.inner_tci = 0x0456;
	void *e = make(m, eth(0x88cc));
	pkt_info info;
	pkt_info_build(e, &info);
	::Bytes body(72);
	body[4] = 0x02;
	body[8] = 0x23;
	body[9] = 0x01;
	ask(15, body);
	EXPECT_EQ(pktd_match_filter_debug(e, &info), 1);
	efmp().drop(e);
}

// ---- the lines ----------------------------------------------------------------------------

// Of Everything, field by field.
const char *const kValues[] = {
	"291",
	"02:00:00:00:00:66",
	"02:00:00:00:00:77",
	"4294967295",
	"12",
	"140.141.142.143",
	"144.145.146.147",
	"8889:8a8b:8c8d:8e8f:9091:9293:9495:9697",
	"f0ef:eeed:eceb:eae9:e8e7:e6e5:e4e3:e2e1",
};

TEST_F(DebugFilter, show__fields_that_take_part_in_order)
{
	Everything e;
	::Bytes bytes = e.filter();
	memset(&bytes[24], 0xff, 4);
	bytes[8] |= 0x70; // the vsd is not shown
	for (u32 flags = 0; flags <= 0x7ff; flags++) {
		memcpy(&bytes[4], &flags, 4);
		mox_packet_filter filter;
		memcpy(&filter, bytes.data(), sizeof filter);
		std::string wanted;
		for (size_t i = 0; i < std::size(kFilterFields); i++)
			if (flags & kFilterFields[i].flag)
				wanted += tagged(filter_line(kFilterFields[i], kValues[i]));
		debug();
		ASSERT_EQ(printed([&] { show_pktd_filter_debug(&filter); }), wanted) << flags;
		debug(false);
		ASSERT_EQ(printed([&] { show_pktd_filter_debug(&filter); }), "") << flags;
	}
}

// ---- where it is applied ----------------------------------------------------------------------

// With the filter in force and every switch on, an unmarked packet leaves no line, and
// its fate is what it was.
TEST_F(DebugFilter, paths__neither_filter_nor_switches_print_or_decide)
{
	for (const HookTraits &h : kHooks) {
		if (h.location == 5 || h.location == 6)
			continue;
		SCOPED_TRACE(h.name);
		Sock s;
		s.capture(h.location, PACKET_COPY);
		u32 answers[3];
		size_t queued[3];
		for (int round = 0; round < 3; round++) {
			::Bytes filter(72, 0xff);
			memset(mox_packet_debug, 0, sizeof mox_packet_debug);
			if (round > 0) {
				memset(mox_packet_debug + 1, 1, 18);
				filter[0] = 1;
				memcpy(&filter[4], &round, 4);
				store(filter, round == 1 ? 0 : kAllFilterFlags);
			}
			kernel().log.clear();
			Meta m;
			answers[round] = frame(h.location, m, eth(0x88cc));
			queued[round] = s.queued();
			EXPECT_EQ(said(), "");
		}
		EXPECT_EQ(answers[1], answers[0]);
		EXPECT_EQ(answers[2], answers[0]);
		EXPECT_EQ(queued[0], 1u);
		EXPECT_EQ(queued[1], 2u);
		EXPECT_EQ(queued[2], 3u);
		memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	}
}

// The mark prints, even for a packet that the filter rejects.
TEST_F(DebugFilter, paths__marked_packets_are_traced_all_the_same)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	Meta m;
	m.flags = 0x4000;
	std::string without = printed([&] { frame(PACKET_LEV2_LOC, m, eth(0x88cc)); });
	::Bytes filter(72, 0xff);
	store(filter, kAllFilterFlags);
	std::string with = printed([&] { frame(PACKET_LEV2_LOC, m, eth(0x88cc)); });
	EXPECT_FALSE(without.empty());
	EXPECT_EQ(std::count(with.begin(), with.end(), '\n'),
		  std::count(without.begin(), without.end(), '\n'));
	EXPECT_NE(with.find("MOX-PACKET-RCV: src_mac"), std::string::npos);
	EXPECT_NE(with.find("MOX-PACKET-FW: src_mac"), std::string::npos);
}

#if defined(__SANITIZE_ADDRESS__)
// Nothing shows that the filter was asked, but the reading of the packet's destination
// interface: here it lies where reading is fatal.
using DebugFilterDeathTest = DebugFilter;

TEST_F(DebugFilterDeathTest, paths__hooks_ask_for_unmarked_packets_while_it_is_in_force)
{
	const u8 mac[6]{};
	auto *gone = static_cast<u8 *>(efmp().add_interface(12, "gone", mac)) + 364; // past its end
	for (const HookTraits &h : kHooks) {
		SCOPED_TRACE(h.name);
		auto call = [&](u32 flags, u8 enable) {
			::Bytes filter(72);
			filter[0] = enable;
			store(filter, 0x020);
			Meta m;
			m.source = port;
			m.dest = word(gone) & ~3u;
			m.flags = flags;
			void *e = make(m, eth(0x88cc));
			hook(h.func, e);
			efmp().drop(e);
		};
		call(0, 0);
		call(0x4000, 1);
		if (h.location == 8)
			call(0, 1); // the small summary has nothing to compare
		else
			EXPECT_DEATH(call(0, 1), "AddressSanitizer");
	}
}

TEST_F(DebugFilterDeathTest, paths__delivery_asks_for_every_matched_packet)
{
	const u8 mac[6]{};
	auto *gone = static_cast<u8 *>(efmp().add_interface(12, "gone", mac)) + 364;
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	for (u32 flags : { 0u, 0x4000u }) {
		auto deliver = [&](u8 enable) {
			Meta m;
			m.source = port;
			m.dest = word(gone) & ~3u;
			m.flags = flags;
			void *e = make(m, eth(0x88cc));
			hook(mox_packet_lev2_rcv, e); // not in force yet
			::Bytes filter(72);
			filter[0] = enable;
			store(filter, 0x020);
			drain();
			efmp().drop(e);
		};
		deliver(0);
		EXPECT_DEATH(deliver(1), "AddressSanitizer");
	}
}
#endif

// What the trace asks: a filter that is off lets everything pass, one that is on what it matches.
TEST_F(DebugFilter, passes__when_off_or_matched)
{
	Everything e;
	::Bytes other = e.filter();
	other[8] ^= 1; // of the VLAN
	for (u8 enable : { 0, 1, 2 })
		for (bool matches : { true, false }) {
			store(matches ? e.filter() : other, MOX_FILTER_VID);
			g_pktd_kdbg_filter.enable = enable;
			EXPECT_EQ(pktd_filter_passes(e.info), enable == 0 || matches)
				<< int(enable) << matches;
		}
	g_pktd_kdbg_filter = {};
}

} // namespace
