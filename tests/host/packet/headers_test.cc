// SPDX-License-Identifier: GPL-2.0-only
// The headers that traces read: by hand for whole frames; and for frames cut at every length
// against a second reading, with memory that cannot be touched behind their end.
#include <sys/mman.h>
#include <unistd.h>

#include "packet/headers.hpp"
#include "packets.h"
#include "rules_fixture.h"

namespace {

using namespace packets;

// Headers as text, so that a failure shows what differs.
std::string text(const FrameHeaders &h)
{
	std::string out;
	char part[96];
	const auto add = [&](const char *name, uint64_t value) {
		snprintf(part, sizeof(part), "%s=%llx ", name,
			 static_cast<unsigned long long>(value));
		out += part;
	};
	const auto bytes = [&](const char *name, const u8 *from, size_t size) {
		out += std::string(name) + "=";
		for (size_t i = 0; i < size; i++) {
			snprintf(part, sizeof(part), "%02x", from[i]);
			out += part;
		}
		out += " ";
	};
	add("length", h.length);
	add("ifindex", h.ifindex);
	add("vlan", h.vlan);
	add("has_macs", h.has_macs);
	bytes("dst_mac", h.dst_mac, 6);
	bytes("src_mac", h.src_mac, 6);
	add("ether_type", h.ether_type);
	add("address_size", h.address_size);
	bytes("src", h.src_address, 16);
	bytes("dst", h.dst_address, 16);
	add("protocol", h.ip_protocol);
	add("has_ports", h.has_ports);
	add("src_port", h.src_port);
	add("dst_port", h.dst_port);
	return out;
}

void put_address(u8 (&to)[16], const ::oracle::Bytes &from)
{
	std::copy(from.begin(), from.end(), to);
}

class Headers : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		const u8 mac[6] = { 2, 0, 0, 0, 0, 9 };
		port = fake::word(efmp().add_interface(7, "eth7", mac));
	}
	FrameHeaders read(Meta m, const Bytes &frame)
	{
		m.source = port;
		return read_headers(make(m, frame));
	}
	// What every frame of eth() with that type has.
	static FrameHeaders ethernet(u16 type, size_t length)
	{
		FrameHeaders h{};
		h.length = static_cast<u32>(length);
		h.ifindex = 7;
		h.has_macs = true;
		const u8 dst[6] = { 2, 0, 0, 0, 0, 1 }, src[6] = { 2, 0, 0, 0, 0, 2 };
		memcpy(h.dst_mac, dst, 6);
		memcpy(h.src_mac, src, 6);
		h.ether_type = type;
		return h;
	}
	static FrameHeaders with_ipv4(FrameHeaders h, u8 protocol)
	{
		h.address_size = 4;
		put_address(h.src_address, { 10, 0, 0, 9 });
		put_address(h.dst_address, { 192, 0, 2, 7 });
		h.ip_protocol = protocol;
		return h;
	}
	static FrameHeaders with_ipv6(FrameHeaders h, u8 protocol)
	{
		h.address_size = 16;
		h.src_address[15] = 9;
		put_address(h.dst_address, addr6(0x20, 0x01, 7));
		h.ip_protocol = protocol;
		return h;
	}
	static FrameHeaders with_ports(FrameHeaders h, u16 src, u16 dst)
	{
		h.has_ports = true;
		h.src_port = src;
		h.dst_port = dst;
		return h;
	}
	static FrameHeaders without_macs(FrameHeaders h)
	{
		h.has_macs = false;
		memset(h.src_mac, 0, 6);
		memset(h.dst_mac, 0, 6);
		h.ether_type = 0;
		return h;
	}

	u32 port = 0;
};

const Bytes kV4{ 192, 0, 2, 7 };
const Bytes kV6 = addr6(0x20, 0x01, 7);

// An IPv4 packet with that word of flags and fragment offset.
Bytes ipv4_fragment(u16 word, u8 protocol, const Bytes &payload)
{
	Bytes packet = ipv4(protocol, kV4, payload);
	packet[6] = word >> 8;
	packet[7] = static_cast<u8>(word);
	return packet;
}

TEST_F(Headers, arp_and_other_ethertypes_have_no_addresses)
{
	for (u16 type : { 0x0806, 0x88cc, 0x888e, 0x0000, 0xffff, 0x8100 }) {
		SCOPED_TRACE(type);
		// What follows looks like an IPv4 packet, and is none.
		const Bytes frame = eth(type) + ipv4(17, kV4, ports(1, 2));
		EXPECT_EQ(text(read({}, frame)), text(ethernet(type, frame.size())));
	}
}

TEST_F(Headers, ipv4__every_length_of_options)
{
	for (u8 protocol : { 6, 17 })
		for (u8 words = 5; words <= 15; words++) {
			SCOPED_TRACE(words);
			const Bytes frame = eth(0x0800) +
					    ipv4(protocol, kV4, ports(0x1234, 0xfedc), words);
			const auto want = with_ipv4(ethernet(0x0800, frame.size()), protocol);
			EXPECT_EQ(text(read({ .kind = 1 }, frame)),
				  text(with_ports(want, 0x1234, 0xfedc)));
		}
}

TEST_F(Headers, ipv4__a_header_length_below_the_least_is_no_packet)
{
	for (u8 words = 0; words < 5; words++) {
		SCOPED_TRACE(words);
		Bytes packet = ipv4(17, kV4, ports(1, 2));
		packet[0] = 0x40 | words;
		const Bytes frame = eth(0x0800) + packet;
		EXPECT_EQ(text(read({}, frame)), text(ethernet(0x0800, frame.size())));
	}
}

TEST_F(Headers, ipv4__only_the_first_fragment_has_ports)
{
	const struct {
		u16 word;
		bool has_ports;
	} rows[] = {
		{ 0x0000, true },  { 0x4000, true },  { 0x2000, true },  { 0x8000, true },
		{ 0x0001, false }, { 0x2001, false }, { 0x1fff, false }, { 0x1000, false },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.word);
		const Bytes frame = eth(0x0800) + ipv4_fragment(row.word, 17, ports(5, 6));
		const auto want = with_ipv4(ethernet(0x0800, frame.size()), 17);
		EXPECT_EQ(text(read({}, frame)),
			  text(row.has_ports ? with_ports(want, 5, 6) : want));
	}
}

TEST_F(Headers, ports__of_tcp_and_udp_only)
{
	for (int protocol = 0; protocol < 256; protocol++) {
		SCOPED_TRACE(protocol);
		const u8 p = static_cast<u8>(protocol);
		const bool has = p == 6 || p == 17;
		const Bytes v4 = eth(0x0800) + ipv4(p, kV4, ports(5, 6));
		auto want = with_ipv4(ethernet(0x0800, v4.size()), p);
		EXPECT_EQ(text(read({}, v4)), text(has ? with_ports(want, 5, 6) : want));
		const Bytes v6 = eth(0x86dd) + ipv6(p, kV6, ports(5, 6));
		want = with_ipv6(ethernet(0x86dd, v6.size()), p);
		EXPECT_EQ(text(read({}, v6)), text(has ? with_ports(want, 5, 6) : want));
	}
}

// The EtherType and the version have to agree.
TEST_F(Headers, ip__version_and_ethertype)
{
	for (u16 type : { 0x0800, 0x86dd })
		for (u8 version = 0; version < 16; version++) {
			SCOPED_TRACE(type * 16 + version);
			Bytes packet = type == 0x0800 ? ipv4(17, kV4, ports(5, 6))
						      : ipv6(17, kV6, ports(5, 6));
			packet[0] = static_cast<u8>(version << 4 | (packet[0] & 0x0f));
			const Bytes frame = eth(type) + packet;
			auto want = ethernet(type, frame.size());
			if (type == 0x0800 && version == 4)
				want = with_ports(with_ipv4(want, 17), 5, 6);
			if (type == 0x86dd && version == 6)
				want = with_ports(with_ipv6(want, 17), 5, 6);
			EXPECT_EQ(text(read({}, frame)), text(want));
		}
}

// Without a layer-2 header, or one too short for Ethernet, the version decides.
TEST_F(Headers, ip__without_a_layer_2_header)
{
	for (u16 l2 : { 0, 4, 13 }) {
		SCOPED_TRACE(l2);
		const Bytes head(l2, 0x45);
		const Bytes v4 = head + ipv4(6, kV4, ports(5, 6));
		auto want = without_macs(ethernet(0, v4.size()));
		EXPECT_EQ(text(read({ .l2_len = l2 }, v4)),
			  text(with_ports(with_ipv4(want, 6), 5, 6)));
		const Bytes v6 = head + ipv6(6, kV6, ports(5, 6));
		want.length = static_cast<u32>(v6.size());
		EXPECT_EQ(text(read({ .l2_len = l2 }, v6)),
			  text(with_ports(with_ipv6(want, 6), 5, 6)));
		const Bytes none = head + Bytes(40, 0x77);
		want.length = static_cast<u32>(none.size());
		EXPECT_EQ(text(read({ .l2_len = l2 }, none)), text(want));
	}
}

TEST_F(Headers, meta__vlan_and_interface)
{
	const Bytes frame = eth(0x88cc) + Bytes(46);
	for (u16 vlan : { 0, 1, 100, 4094, 4095 })
		for (u16 upper : { 0x0000, 0x1000, 0xe000 }) {
			SCOPED_TRACE(vlan);
			auto want = ethernet(0x88cc, frame.size());
			want.vlan = vlan;
			EXPECT_EQ(
				text(read({ .outer_tci = static_cast<u16>(vlan | upper) }, frame)),
				text(want));
		}
	// Made by the device: no interface that it came in on.
	auto want = ethernet(0x88cc, frame.size());
	want.ifindex = 0;
	EXPECT_EQ(text(read_headers(make({}, frame))), text(want));
}

// ---- frames that are cut ---------------------------------------------------------

// An efbuff whose frame ends where memory ends.
class AtTheEnd {
public:
	AtTheEnd()
	{
		size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
		pages_ = static_cast<u8 *>(mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE,
						MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		if (pages_ == MAP_FAILED || mprotect(pages_ + size_, size_, PROT_NONE))
			abort();
	}
	~AtTheEnd() { munmap(pages_, 2 * size_); }
	AtTheEnd(const AtTheEnd &) = delete;
	AtTheEnd &operator=(const AtTheEnd &) = delete;

	const void *put(const Meta &meta, const Bytes &frame)
	{
		const Bytes whole = efbuff(meta, frame);
		const size_t size = meta.mac_offset + frame.size();
		u8 *at = pages_ + size_ - size;
		memcpy(at, whole.data(), size);
		return at;
	}

private:
	u8 *pages_;
	size_t size_;
};

u16 number(const Bytes &bytes, size_t at)
{
	return static_cast<u16>(bytes[at] << 8 | bytes[at + 1]);
}

// A second reading: bytes behind the end are 0.
FrameHeaders naive(const Bytes &frame, u16 l2)
{
	FrameHeaders h{};
	Bytes b = frame;
	b.resize(200);
	h.length = static_cast<u32>(frame.size());
	const bool macs = l2 >= 14;
	if (macs) {
		h.has_macs = true;
		std::copy_n(b.begin(), 6, h.dst_mac);
		std::copy_n(b.begin() + 6, 6, h.src_mac);
		h.ether_type = number(b, 12);
	}
	const Bytes ip(b.begin() + l2, b.end());
	size_t l4 = 0;
	bool first = true;
	if (ip[0] >> 4 == 4 && (ip[0] & 15) >= 5 && (!macs || h.ether_type == 0x0800)) {
		h.address_size = 4;
		std::copy_n(ip.begin() + 12, 4, h.src_address);
		std::copy_n(ip.begin() + 16, 4, h.dst_address);
		h.ip_protocol = ip[9];
		l4 = (ip[0] & 15u) * 4;
		first = number(ip, 6) % 0x2000 == 0;
	} else if (ip[0] >> 4 == 6 && (!macs || h.ether_type == 0x86dd)) {
		h.address_size = 16;
		std::copy_n(ip.begin() + 8, 16, h.src_address);
		std::copy_n(ip.begin() + 24, 16, h.dst_address);
		h.ip_protocol = ip[6];
		l4 = 40;
	}
	if (l4 && first && (h.ip_protocol == 6 || h.ip_protocol == 17)) {
		h.has_ports = true;
		h.src_port = number(ip, l4);
		h.dst_port = number(ip, l4 + 2);
	}
	return h;
}

TEST_F(Headers, cut__at_every_length_nothing_is_read_behind_the_end)
{
	const struct {
		const char *name;
		u16 l2;
		Bytes frame;
	} rows[] = {
		{ "ARP", 14, eth(0x0806) + Bytes(66, 0x11) },
		{ "UDP", 14, eth(0x0800) + ipv4(17, kV4, ports(0x1234, 0x5678, 46)) },
		{ "TCP behind options", 14, eth(0x0800) + ipv4(6, kV4, ports(0x12, 0x34, 8), 15) },
		{ "a later fragment", 14, eth(0x0800) + ipv4_fragment(3, 17, Bytes(46, 0x22)) },
		{ "IPv6", 14, eth(0x86dd) + ipv6(17, kV6, ports(0x1234, 0x5678, 26)) },
		{ "IPv4 alone", 0, ipv4(17, kV4, ports(0x1234, 0x5678, 60)) },
		{ "IPv6 alone", 0, ipv6(6, kV6, ports(0x1234, 0x5678, 40)) },
		{ "long header", 22, eth(0x0800) + Bytes(8) + ipv4(17, kV4, ports(1, 2, 40)) },
	};
	AtTheEnd memory;
	for (const auto &row : rows)
		for (size_t length = 0; length <= 80; length++) {
			SCOPED_TRACE(std::string(row.name) + ", " + std::to_string(length));
			Bytes frame = row.frame;
			ASSERT_GE(frame.size(), 78u);
			frame.resize(length);
			EXPECT_EQ(text(read_headers(memory.put({ .l2_len = row.l2 }, frame))),
				  text(naive(frame, row.l2)));
		}
}

TEST_F(Headers, random__as_the_second_reading)
{
	std::mt19937 rng(20);
	AtTheEnd memory;
	for (int i = 0; i < 20000; i++) {
		Bytes frame(rng() % 130);
		for (u8 &b : frame)
			b = static_cast<u8>(rng());
		const u16 l2 = rng() % 2 ? 14 : static_cast<u16>(rng() % 24);
		const u16 types[] = { 0x0800, 0x86dd, 0x0806 };
		const u16 type = types[rng() % 3];
		if (l2 >= 14 && frame.size() >= 14) {
			frame[12] = type >> 8;
			frame[13] = static_cast<u8>(type);
		}
		if (frame.size() > l2)
			frame[l2] = static_cast<u8>((rng() % 2 ? 0x40 : 0x60) | rng() % 16);
		for (size_t at : { size_t{ 6 }, size_t{ 9 } })
			if (frame.size() > l2 + at && rng() % 2)
				frame[l2 + at] = rng() % 2 ? 6 : 17;
		ASSERT_EQ(text(read_headers(memory.put({ .l2_len = l2 }, frame))),
			  text(naive(frame, l2)))
			<< i;
	}
}

} // namespace
