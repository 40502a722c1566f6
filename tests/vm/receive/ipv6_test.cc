// SPDX-License-Identifier: GPL-2.0-only
// The walk through IPv6 extension headers: where it goes on, where it stops, and what is known when it does.
#include "receive/match_table.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;

class Ipv6 : public VmTest {
protected:
	void at_ipv6(const std::vector<MatchRow> &rows)
	{
		try_rows(PACKET_IPv6_LOC, lab::Hook::Ipv6, rows);
	}
	Rule port(uint16_t value) { return be16s(PACKET_IPv6_DEST_PORT_EQUAL, { value }); }
	Rule proto(uint8_t value) { return u8s(PACKET_IPv6_PROT_EQUAL, { value }); }
};

TEST_F(Ipv6, extension_headers_are_walked_through)
{
	Bytes datagram = udp(1, 53);
	at_ipv6({ row("hop-by-hop", port(53), ipv6(0, extension(17, 0, datagram)), true),
		  row("hop-by-hop of 24 bytes", port(53), ipv6(0, extension(17, 2, datagram)),
		      true),
		  row("routing", port(53), ipv6(43, extension(17, 1, datagram)), true),
		  row("destination options", port(53), ipv6(60, extension(17, 0, datagram)), true),
		  row("authentication: units of four bytes", port(53),
		      ipv6(51, authentication(17, 4, datagram)), true),
		  row("authentication of 12 bytes", port(53),
		      ipv6(51, authentication(17, 1, datagram)), true),
		  row("all of them", port(53),
		      ipv6(0, extension(43, 0,
					extension(60, 0,
						  extension(51, 1,
							    authentication(44, 2,
									   fragment(17, 0, true,
										    datagram)))))),
		      true),
		  row("the protocol is the last one's", proto(17),
		      ipv6(0, extension(17, 0, datagram)), true),
		  row("and not the first's", proto(0), ipv6(0, extension(17, 0, datagram)),
		      false) });
}

TEST_F(Ipv6, fragments)
{
	Bytes datagram = udp(1, 53);
	at_ipv6({ row("the first is followed", port(53), ipv6(44, fragment(17, 0, true, datagram)),
		      true),
		  row("a whole packet in a fragment header too", port(53),
		      ipv6(44, fragment(17, 0, false, datagram)), true),
		  row("its protocol is known", proto(17), ipv6(44, fragment(17, 0, true, datagram)),
		      true),
		  row("a later one has no ports", port(53),
		      ipv6(44, fragment(17, 1, true, datagram)), false),
		  row("nor a protocol", proto(17), ipv6(44, fragment(17, 1, false, datagram)),
		      false),
		  row(
			  "only the offset decides, not the reserved bits below it", port(53),
			  [&] {
				  Frame frame = ipv6(44, fragment(17, 0, true, datagram));
				  frame.bytes[14 + 40 + 3] |= 0x06;
				  return frame;
			  }(),
			  true),
		  row("the largest offset", port(53),
		      ipv6(44, fragment(17, 0x1fff, false, datagram)), false),
		  row("ICMPv6 in a first fragment", u8s(PACKET_ICMPV6_TYPE_EQUAL, { 135 }),
		      ipv6(44, fragment(58, 0, true, icmpv6(135))), true),
		  row("nothing behind the fragment header", proto(17),
		      ipv6(44, fragment(17, 0, true, {})), false) });
}

TEST_F(Ipv6, the_walk_stops)
{
	Bytes datagram = udp(1, 53);
	at_ipv6({ row("at an unknown header", port(53), ipv6(135, extension(17, 0, datagram)),
		      false),
		  row("at no next header", proto(59), ipv6(59, datagram), false),
		  row("at no next header inside", port(53), ipv6(0, extension(59, 0, datagram)),
		      false),
		  row("at ESP", port(53), ipv6(50, extension(17, 0, datagram)), false),
		  row("when an extension reaches the end", proto(17), ipv6(0, extension(17, 0, {})),
		      false),
		  row("when an extension claims to reach beyond", proto(17),
		      ipv6(0, Bytes{ 17, 200, 0, 0, 0, 0, 0, 0 } + datagram), false),
		  row("when an authentication header claims 1028 bytes", proto(17),
		      ipv6(51, Bytes{ 17, 255, 0, 0, 0, 0, 0, 0 } + datagram), false) });
}

TEST_F(Ipv6, bare_and_short_headers)
{
	Frame bare = ipv6(17, {});
	Frame cut = ipv6(17, udp(1, 53));
	cut.total_len = 14 + 39;
	at_ipv6({ row("nothing behind the header: no protocol", proto(17), bare, false),
		  row("but the destination is known", flag(PACKET_IPv6_MCAST_TRAFFIC),
		      ipv6(17, {}, addr6({ 0xff, 0x05 }, 1)), true),
		  row("39 bytes are no IPv6", proto(17), cut, false),
		  row("UDP header cut short: no ports", port(53),
		      ipv6(17, Bytes{ 0, 1, 0, 53, 0, 8, 0 }), false),
		  row("but a protocol", proto(17), ipv6(17, Bytes{ 0, 1, 0, 53, 0, 8, 0 }), true),
		  row("ICMPv6 of four bytes has a type", u8s(PACKET_ICMPV6_TYPE_EQUAL, { 128 }),
		      ipv6(58, Bytes{ 128, 0, 0, 0 }), true) });
}

TEST_F(Ipv6, a_payload_length_beyond_the_buffer_leaves_the_packet_unparsed)
{
	Bytes datagram = udp(1, 53);
	int length = int(datagram.size());
	at_ipv6({ row("one byte too many", proto(17), ipv6(17, datagram, kHost6, length + 1),
		      false),
		  row("no destination either", flag(PACKET_IPv6_MCAST_TRAFFIC),
		      ipv6(17, datagram, addr6({ 0xff, 5 }, 1), length + 1), false),
		  row("65535", proto(17), ipv6(17, datagram, kHost6, 65535), false),
		  row("exactly", proto(17), ipv6(17, datagram, kHost6, length), true),
		  row("less is taken as it is: padding counts", port(53),
		      ipv6(17, datagram, kHost6, 0), true) });
}

TEST_F(Ipv6, protocol_103_is_a_known_end)
{
	at_ipv6({ row("PIM", proto(103), ipv6(103, Bytes(8)), true),
		  row("PIM behind options", proto(103), ipv6(60, extension(103, 0, Bytes(8))),
		      true),
		  row("another is not known", proto(89), ipv6(89, Bytes(8)), false) });
}

TEST_F(Ipv6, without_a_layer_2_header)
{
	at_ipv6({ row("ports", port(53), without_l2(ipv6(17, udp(1, 53))), true),
		  row(
			  "short by one", proto(17),
			  [] {
				  Frame frame = without_l2(ipv6(17, udp(1, 53)));
				  frame.total_len = int64_t(frame.bytes.size()) - 1;
				  return frame;
			  }(),
			  false) });
}

TEST_F(Ipv6, every_length_of_a_chain_of_headers_is_survived)
{
	// Each cut of the packet in turn; under the checked kernel a read past the buffer is an error of its own.
	Frame whole = ipv6(
		0, extension(43, 0,
			     extension(44, 0,
				       fragment(51, 0, true, authentication(17, 1, udp(1, 53))))));
	Socket socket = capture(PACKET_IPv6_LOC, PACKET_COPY, port(53));
	size_t received = 0;
	for (size_t length = 14; length <= whole.bytes.size(); ++length) {
		Frame cut = whole;
		cut.bytes.resize(length);
		uint16_t payload = length > 54 ? uint16_t(length - 54) : 0;
		if (length > 20) {
			cut.bytes[18] = uint8_t(payload >> 8);
			cut.bytes[19] = uint8_t(payload);
		}
		put(lab::Hook::Ipv6, cut);
		received += socket.drain();
	}
	// Complete from the UDP header on: with 0 to 4 bytes of its data.
	EXPECT_EQ(received, 5u);
}

TEST_F(Ipv6, every_first_byte_of_every_header_type_is_survived)
{
	Socket socket = capture(PACKET_IPv6_LOC, PACKET_COPY, all());
	size_t sent = 0;
	for (int next = 0; next < 256; ++next)
		for (uint8_t length : { 0, 1, 127, 255 }) {
			lab::inject(lab::Hook::Ipv6,
				    ipv6(uint8_t(next), Bytes{ uint8_t(next), length, 0, 0, 0, 0, 0,
							       0, 17, 0, 0, 53 }));
			++sent;
			if (sent % 64 == 0) {
				ASSERT_TRUE(lab::settle());
				socket.drain();
			}
		}
	ASSERT_TRUE(lab::settle());
	EXPECT_EQ(socket.stats().packets, sent);
}

} // namespace
