// SPDX-License-Identifier: GPL-2.0-only
// sendmsg: which frame leaves, to where, and what the platform's answer makes of it.
// What can fail on the way: send_checks_test.cc; the efbuff's header: send_efbuff_test.cc.
#include <climits>

#include "read_trap.h"
#include "send_fixture.h"

namespace {

class Sendmsg : public SendTest {};

Bytes counting(size_t len)
{
	Bytes out(len);
	for (size_t i = 0; i < len; i++)
		out[i] = u8(i * 7 + i / 256);
	return out;
}

// ---- frames -------------------------------------------------------------------------

TEST_F(Sendmsg, raw__the_data_is_the_frame)
{
	Outgoing message{ .data = counting(100) };
	expect_sent(message, 100);
	EXPECT_EQ(last().frame, counting(100));
	EXPECT_EQ(last().header, SentHeader(100).bytes);
	EXPECT_EQ(g_local_mac.calls, 0) << "the process wrote the header";
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Sendmsg, dgram__a_header_of_14_bytes_stands_before_the_data)
{
	open(kDgram);
	Outgoing message{ .data = counting(100), .name = address(7, 0xcc88) };
	expect_sent(message, 100);
	EXPECT_EQ(last().frame, (kPeerMac + kLocalMac + Bytes{ 0x88, 0xcc } + counting(100)));
	EXPECT_EQ(last().header, SentHeader(114).put<u32>(8, port).bytes);
	EXPECT_EQ(g_local_mac.calls, 1);
	EXPECT_EQ(g_local_mac.unit, 0u) << "the device's own";
}

// The address decides, then the socket; 0 when neither has one. All network order.
TEST_F(Sendmsg, dgram__ethertype)
{
	struct {
		u16 of_name, of_socket, of_bind, sent;
	} const cases[] = {
		{ 0xcc88, 0, 0, 0xcc88 },      { 0xcc88, 0x0608, 0, 0xcc88 },
		{ 0, 0x0608, 0, 0x0608 },      { 0, 0, 0, 0 },
		{ 0, 0, 0x8e88, 0x8e88 },      { 0, 0x0608, 0x8e88, 0x8e88 },
		{ 0x0100, 0x0608, 0, 0x0100 }, { 0x0001, 0x0608, 0, 0x0001 },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message()
			     << std::hex << c.of_name << " " << c.of_socket << " " << c.of_bind);
		open(kDgram, c.of_socket);
		if (c.of_bind)
			ASSERT_EQ(s.bind(0, c.of_bind), 0);
		expect_sent({ .name = address(7, c.of_name) }, 60);
		u16 type;
		memcpy(&type, &last().frame[12], 2);
		EXPECT_EQ(type, c.sent);
	}
}

// A longer MAC (of other media) gives its first six bytes.
TEST_F(Sendmsg, dgram__destination_of_a_longer_mac)
{
	open(kDgram);
	for (u8 mac_len : { 6, 7, 8 }) {
		expect_sent({ .name = address(7, 0, mac_len) }, 60);
		EXPECT_EQ(Bytes(last().frame.begin(), last().frame.begin() + 6), kPeerMac);
	}
	Bytes longest = address(7, 0, 255);
	longest.resize(12 + 255, 0x77);
	expect_sent({ .name = longest }, 60);
	EXPECT_EQ(Bytes(last().frame.begin(), last().frame.begin() + 6), kPeerMac);
}

TEST_F(Sendmsg, lengths__of_frames)
{
	for (int type : { kRaw, kDgram }) {
		open(type);
		for (size_t len : { 0, 1, 13, 14, 15, 60, 1514, 9000, 65000 }) {
			SCOPED_TRACE(testing::Message()
				     << "type " << type << ", " << len << " bytes");
			expect_sent({ .data = counting(len), .name = address(7) }, len);
			const size_t header = type == kDgram ? 14 : 0;
			EXPECT_EQ(last().header, SentHeader(header + len).put<u32>(8, port).bytes);
			ASSERT_EQ(last().frame.size(), header + len);
			EXPECT_EQ(Bytes(last().frame.begin() + header, last().frame.end()),
				  counting(len));
		}
	}
}

// Too short for a header: there is none, and the network header is where it would be.
TEST_F(Sendmsg, lengths__below_14_have_no_layer_2)
{
	struct {
		size_t len;
		u16 l2;
	} const cases[] = { { 0, 0 }, { 1, 0 }, { 12, 0 }, { 13, 0 }, { 14, 14 }, { 15, 14 } };
	for (auto &c : cases) {
		expect_sent({ .data = counting(c.len) }, c.len);
		EXPECT_EQ(last().field<u16>(20), c.l2) << c.len;
		EXPECT_EQ(last().field<u16>(24), efmp().room_at + c.l2) << c.len;
		EXPECT_EQ(last().field<u32>(164), c.len);
	}
}

// The platform decides where the frame goes.
TEST_F(Sendmsg, room__wherever_the_platform_has_it)
{
	for (int type : { kRaw, kDgram })
		for (u16 room : { 256, 258, 288, 384, 4096 }) {
			open(type);
			efmp().room_at = room;
			const size_t len = 60, frame = len + (type == kDgram ? 14 : 0);
			expect_sent({ .data = counting(len), .name = address(7) }, len);
			EXPECT_EQ(last().header, SentHeader(frame).put<u32>(8, port).bytes) << room;
			EXPECT_EQ(Bytes(last().frame.end() - len, last().frame.end()),
				  counting(len))
				<< room;
		}
}

TEST_F(Sendmsg, data__only_what_the_call_asks_for)
{
	expect_sent({ .data = counting(100), .len = 40 }, 40);
	EXPECT_EQ(last().frame, counting(40));
}

// ---- types, names, control records and bindings ----------------------------------------

TEST_F(Sendmsg, combinations__type_name_control_and_binding)
{
	for (int type : { kRaw, kDgram })
		for (bool named : { false, true })
			for (bool controlled : { false, true })
				for (bool bound : { false, true }) {
					SCOPED_TRACE(testing::Message()
						     << "type " << type << " named " << named
						     << " controlled " << controlled << " bound "
						     << bound);
					open(type);
					if (bound)
						ASSERT_EQ(s.bind(8), 0);
					mox_packet_ctrl_info record{};
					record.pkt_ifx = 4094;
					record.wlan_id = 0x1234;
					Outgoing message{ .data = counting(60) };
					if (named)
						message.name = address(7, 0x0608);
					if (controlled)
						message.control = control(record);
					if (type == kDgram && !named) {
						expect_send(message, -22, kMacfuncIll);
						continue;
					}
					expect_sent(message, 60);
					SentHeader wanted(type == kDgram ? 74 : 60);
					if (named || bound)
						wanted.put<u32>(8, named ? port : interface(8));
					if (controlled)
						wanted.put<u32>(4, interface(4094))
							.put<u16>(146, 0x1234);
					EXPECT_EQ(last().header, wanted.bytes);
					Bytes frame = type == kDgram
							      ? kPeerMac + kLocalMac + Bytes{ 8, 6 }
							      : Bytes{};
					EXPECT_EQ(last().frame, frame + counting(60));
				}
}

TEST_F(Sendmsg, destination__a_name_that_names_none_overrides_the_binding)
{
	ASSERT_EQ(s.bind(8), 0);
	expect_sent({ .name = address(0) }, 60);
	EXPECT_EQ(last().header, SentHeader(60).bytes);
	// Even a binding to an interface that could not be sent to.
	set_link(8, 0);
	expect_sent({ .name = address(0) }, 60);
	expect_send({}, -100, kLinkdown);
}

TEST_F(Sendmsg, destination__none_at_all_is_left_to_the_platform)
{
	expect_sent({}, 60);
	EXPECT_EQ(last().field<u32>(8), 0u);
	efmp().add_interface(0, "none", kLocalMac.data());
	expect_sent({}, 60);
	EXPECT_EQ(last().field<u32>(8), 0u) << "index 0 is never looked up";
}

TEST_F(Sendmsg, destination__follows_a_new_binding)
{
	for (u32 ifindex : { 7, 8, 0, 7 }) {
		ASSERT_EQ(s.bind(ifindex), 0);
		expect_sent({}, 60);
		EXPECT_EQ(last().field<u32>(8), ifindex ? interface(ifindex) : 0);
	}
}

// The interface's word is up or down; any number but 0 is up.
TEST_F(Sendmsg, destination__link_states)
{
	for (u32 state : { 1u, 2u, 0x100u, 0x80000000u }) {
		set_link(7, state);
		expect_sent({ .name = address(7) }, 60);
	}
	set_link(7, 0);
	expect_send({ .name = address(7) }, -100, kLinkdown);
	set_link(7, 1);
	expect_sent({ .name = address(7) }, 60);
}

// A frame may name a source whose link is down.
TEST_F(Sendmsg, source__link_does_not_matter)
{
	mox_packet_ctrl_info record{};
	record.pkt_ifx = 9;
	expect_sent({ .control = control(record) }, 60);
	EXPECT_EQ(last().header, SentHeader(60).put<u32>(4, interface(9)).bytes);
}

// ---- the platform's answer ----------------------------------------------------------------

TEST_F(Sendmsg, outcome__only_drop_and_numbers_beyond_the_last_are_failures)
{
	struct {
		int outcome;
		const char *failure; // the name in the line; null for success
	} const cases[] = {
		{ INT_MIN, nullptr },  { -7, nullptr },  { -1, nullptr },   { 0, nullptr },
		{ 1, "drop" },         { 2, nullptr },   { 3, nullptr },    { 4, nullptr },
		{ 5, nullptr },        { 6, nullptr },   { 7, nullptr },    { 8, "(null)" },
		{ 9, "(null)" },       { 16, "(null)" }, { 255, "(null)" }, { 256 + 2, "(null)" },
		{ INT_MAX, "(null)" },
	};
	for (bool printing : { false, true })
		for (bool debug_send : { false, true })
			for (auto &c : cases) {
				SCOPED_TRACE(testing::Message() << "outcome " << c.outcome
								<< " debug send " << debug_send);
				debug(printing);
				efmp().outcome = c.outcome;
				kernel().log.clear();
				Outgoing message;
				if (debug_send)
					message.control = control_flags(MOX_SEND_DEBUG);
				if (c.failure)
					expect_send(message, -101, kEfSendFails);
				else
					expect_sent(message, 60);
				if (!printing) {
					EXPECT_EQ(kernel().text(), "");
					continue;
				}
				std::string line = "MOX-PACKET-SEND: process captured send ";
				line += debug_send ? "debug pkt " : "pkt ";
				line += efbuff_text + " in vsd 0";
				line += c.failure ? std::string(", fail: ") + c.failure + ".\n"
						  : " success.\n";
				Strings said = lines();
				ASSERT_EQ(said.size(), debug_send ? 5u : 2u);
				EXPECT_EQ(said.back(), line);
			}
}

// ---- the local-MAC service ----------------------------------------------------------------

TEST_F(Sendmsg, local_mac__absent_at_load_and_published_later)
{
	open(kDgram);
	efmp().withdraw(11, 10);
	expect_send({ .name = address(7) }, -22, kMacfuncIll);
	EXPECT_EQ(g_local_mac.calls, 0);
	publish_local_mac();
	expect_sent({ .name = address(7) }, 60);
}

TEST_F(Sendmsg, local_mac__fails_for_any_result_but_0)
{
	open(kDgram);
	for (int result : { 1, -1, -22, INT_MIN, 256 }) {
		g_local_mac.result = result;
		expect_send({ .name = address(7) }, -22, kMacfuncIll);
	}
	g_local_mac.result = 0;
	expect_sent({ .name = address(7) }, 60);
}

// The other CPU withdraws while the service runs, and behind it: this frame has its MAC.
TEST_F(Sendmsg, local_mac__withdrawn_from_the_call_on)
{
	open(kDgram);
	g_local_mac.inside = [] { efmp().withdraw(11, 10); };
	expect_sent({ .name = address(7) }, 60);
	EXPECT_EQ(mox_packet_get_local, nullptr);
	expect_send({ .name = address(7) }, -22, kMacfuncIll);
	g_local_mac.inside = nullptr;
	publish_local_mac();
	kernel().at[Point::kCopyFromMsg] = [](const void *) { efmp().withdraw(11, 10); };
	expect_sent({ .name = address(7) }, 60);
	EXPECT_EQ(Bytes(last().frame.begin() + 6, last().frame.begin() + 12), kLocalMac);
	kernel().at.erase(Point::kCopyFromMsg);
	expect_send({ .name = address(7) }, -22, kMacfuncIll);
}

int other_mac(u32, u8 mac[6])
{
	memset(mac, 0x77, 6);
	return 0;
}

// The other CPU withdraws or replaces the service right behind the look at it, before
// the call: what was taken is called, and nothing is looked at a second time.
TEST_F(Sendmsg, local_mac__changed_between_the_look_and_the_call)
{
	open(kDgram);
	for (mox_packet_local_mac_func then :
	     { mox_packet_local_mac_func{ nullptr }, &other_mac }) {
		publish_local_mac();
		int looks = 0, result;
		{
			ReadTrap trap(&mox_packet_get_local, [&] {
				if (looks++ == 0)
					store(mox_packet_get_local, then);
			});
			result = send({ .name = address(7) });
		}
		EXPECT_EQ(result, 60);
		EXPECT_EQ(looks, 1);
		EXPECT_EQ(mox_packet_get_local, then);
		EXPECT_EQ(Bytes(last().frame.begin() + 6, last().frame.begin() + 12), kLocalMac);
	}
	expect_sent({ .name = address(7) }, 60);
	EXPECT_EQ(last().frame[6], 0x77);
}

// ---- counters, context ----------------------------------------------------------------------

TEST_F(Sendmsg, counters__are_the_sockets_own_and_go_with_the_statistics)
{
	Sock other;
	ASSERT_EQ(other.create(), 0);
	for (int i = 0; i < 3; i++)
		expect_sent({}, 60);
	expect_send({ .name = address(9) }, -100, kLinkdown);
	EXPECT_EQ(counters_of(other), Counters13{});
	fake::UserBuf value(8), len(u32_bytes(8));
	EXPECT_EQ(mox_packet_getsockopt(&s.socket, MOX_SOL_PACKET, MOX_PACKET_STATISTICS,
					reinterpret_cast<char *>(value.data()),
					reinterpret_cast<int *>(len.data())),
		  0);
	EXPECT_EQ(value.bytes, Bytes(8)) << "sends are no packets of the statistics";
	EXPECT_EQ(counters_of(s), Counters13{});
	expect_sent({}, 60);
	EXPECT_EQ(counters_of(s)[kSendPackets], 1u);
}

TEST_F(Sendmsg, locks__none)
{
	open(kDgram);
	LockTrace trace;
	EXPECT_EQ(send({ .name = address(7) }), 60);
	EXPECT_EQ(trace.steps, Strings{});
}

// The binding and the rule are for receiving: a socket that captures sends as well.
TEST_F(Sendmsg, capturing_socket__sends_and_stays_as_it_is)
{
	s.release();
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	expect_sent({ .name = address(7) }, 60);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
}

// On its way out a frame passes the hooks of the location "local", in the sender's own
// context: the sender may capture what it sends, fetched from the way or copied.
TEST_F(Sendmsg, capturing_socket__meets_its_own_frame_at_the_local_hook)
{
	for (u32 treatment : { PACKET_COPY, PACKET_FETCH }) {
		s.release();
		s.capture(PACKET_LOCAL_LOC, treatment);
		kernel().at[Point::kOutput] = [&](const void *) {
			Bytes left = last().frame;
			EXPECT_EQ(frame(PACKET_LOCAL_LOC, {}, left),
				  treatment == PACKET_FETCH ? 3u : 0u);
		};
		Bytes sent = packets::eth(0x88cc) + Bytes(46, 0x5c);
		EXPECT_EQ(send({ .data = sent, .name = address(7) }), 60);
		kernel().at.erase(Point::kOutput);
		ASSERT_EQ(s.queued(), 1u);
		const sk_buff &skb = s.buffer();
		EXPECT_EQ(Bytes(skb.data(), skb.data() + skb.len), sent);
		Counters13 wanted{};
		wanted[kRecvPackets] = wanted[kSendPackets] = 1;
		EXPECT_EQ(counters_of(s), wanted);
	}
}

} // namespace
