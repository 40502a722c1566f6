/* SPDX-License-Identifier: GPL-2.0-only */
#include "relay/describe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>

#include <string>
#include <vector>

namespace {

/** Two interfaces: 3 with 02:..:aa, 4 with 02:..:bb and another hardware type. */
class TwoInterfaces : public relay::InterfaceSource {
public:
	std::vector<relay::Interface> list() override
	{
		++readings;
		return { { 3, 1, { 2, 0, 0, 0, 0, 0xaa }, true },
			 { 4, 1, { 2, 0, 0, 0, 0, 0xbb }, true },
			 { 5, 772, {}, true } };
	}
	int readings = 0;
};

using Bytes = std::vector<std::uint8_t>;

const Bytes kSource{ 2, 0, 0, 0, 0, 0x99 };

Bytes ethernet(const Bytes &destination, std::uint16_t type, std::size_t size = 60)
{
	Bytes frame = destination;
	frame.insert(frame.end(), kSource.begin(), kSource.end());
	frame.push_back(static_cast<std::uint8_t>(type >> 8));
	frame.push_back(static_cast<std::uint8_t>(type));
	while (frame.size() < size)
		frame.push_back(static_cast<std::uint8_t>(frame.size()));
	return frame;
}

mox_packet_ctrl_info control(std::uint32_t in, std::uint16_t vlan = 0, std::uint16_t inner = 0)
{
	mox_packet_ctrl_info record{};
	record.pkt_ifx = in;
	record.vlan = vlan;
	record.inner_vlan = inner;
	record.l2_len = 14;
	return record;
}

struct Fixture {
	relay::Described describe(const Bytes &frame, const mox_packet_ctrl_info &record,
				  const relay::Reception &reception = {})
	{
		buffer.assign(relay::kHeadroom, 0xee);
		buffer.insert(buffer.end(), frame.begin(), frame.end());
		return relay::describe(std::span(buffer).subspan(relay::kHeadroom), record, 100, 5,
				       reception, interfaces);
	}
	Bytes buffer;
	TwoInterfaces source;
	relay::Interfaces interfaces{ source };
};

const Bytes kBroadcast(6, 0xff), kGroup{ 1, 0x80, 0xc2, 0, 0, 0xe }, kOwn{ 2, 0, 0, 0, 0, 0xaa },
	kOwnOther{ 2, 0, 0, 0, 0, 0xbb }, kForeign{ 2, 0, 0, 0, 0, 0x77 };

TEST(CompatDescribe, address__by_destination_type_and_interface)
{
	const struct {
		const char *what;
		Bytes frame;
		mox_packet_ctrl_info record;
		relay::Reception reception;
		int packet, protocol, ifindex, hardware;
	} rows[] = {
		{ "broadcast",
		  ethernet(kBroadcast, 0x806),
		  control(3),
		  {},
		  PACKET_BROADCAST,
		  0x806,
		  3,
		  1 },
		{ "group",
		  ethernet(kGroup, 0x88cc),
		  control(4),
		  {},
		  PACKET_MULTICAST,
		  0x88cc,
		  4,
		  1 },
		{ "to the port", ethernet(kOwn, 0x800), control(3), {}, PACKET_HOST, 0x800, 3, 1 },
		{ "to another port",
		  ethernet(kOwnOther, 0x800),
		  control(3),
		  {},
		  PACKET_HOST,
		  0x800,
		  3,
		  1 },
		{ "to a station",
		  ethernet(kForeign, 0x800),
		  control(3),
		  {},
		  PACKET_OTHERHOST,
		  0x800,
		  3,
		  1 },
		{ "made by the device",
		  ethernet(kForeign, 0x800),
		  control(0),
		  {},
		  PACKET_OUTGOING,
		  0x800,
		  0,
		  1 },
		{ "leaving",
		  ethernet(kOwn, 0x800),
		  control(3),
		  { false, true, 4 },
		  PACKET_OUTGOING,
		  0x800,
		  4,
		  1 },
		{ "reported as bound",
		  ethernet(kBroadcast, 0x800),
		  control(3),
		  { false, false, 4 },
		  PACKET_BROADCAST,
		  0x800,
		  4,
		  1 },
		{ "other hardware",
		  ethernet(kBroadcast, 0x800),
		  control(5),
		  {},
		  PACKET_BROADCAST,
		  0x800,
		  5,
		  772 },
		{ "length field", ethernet(kGroup, 38), control(3), {}, PACKET_MULTICAST, 4, 3, 1 },
		{ "raw IPX",
		  [] {
			  Bytes f = ethernet(kGroup, 38);
			  f[14] = f[15] = 0xff;
			  return f;
		  }(),
		  control(3),
		  {},
		  PACKET_MULTICAST,
		  1,
		  3,
		  1 },
	};
	for (const auto &row : rows) {
		Fixture fixture;
		const auto got = fixture.describe(row.frame, row.record, row.reception);
		EXPECT_EQ(got.head.packet, row.packet) << row.what;
		EXPECT_EQ(ntohs(got.head.protocol), row.protocol) << row.what;
		EXPECT_EQ(got.facts.protocol, row.protocol) << row.what;
		EXPECT_EQ(got.head.ifindex, row.ifindex) << row.what;
		EXPECT_EQ(got.head.hardware, row.hardware) << row.what;
		EXPECT_EQ(got.head.address_length, 6) << row.what;
		EXPECT_EQ(Bytes(got.head.address, got.head.address + 6), kSource) << row.what;
		EXPECT_EQ(Bytes(got.data.begin(), got.data.end()), row.frame) << row.what;
		EXPECT_EQ(got.head.network, 14) << row.what;
		EXPECT_EQ(got.head.length, row.frame.size()) << row.what;
		EXPECT_EQ(got.head.seconds, 100) << row.what;
		EXPECT_EQ(got.head.nanoseconds, 5u) << row.what;
	}
}

TEST(CompatDescribe, vlan__first_tag_in_the_head_second_in_the_frame)
{
	const Bytes frame = ethernet(kBroadcast, 0x806);
	Fixture fixture;
	auto got = fixture.describe(frame, control(3));
	EXPECT_EQ(got.head.status, static_cast<std::uint32_t>(TP_STATUS_USER));
	EXPECT_FALSE(got.facts.tagged);

	got = fixture.describe(frame, control(3, 100 << 4 | 5));
	EXPECT_EQ(got.head.status,
		  static_cast<std::uint32_t>(TP_STATUS_USER | TP_STATUS_VLAN_VALID |
					     TP_STATUS_VLAN_TPID_VALID));
	EXPECT_EQ(got.head.vlan_tci, 5 << 13 | 100);
	EXPECT_EQ(got.head.vlan_tpid, 0x8100);
	EXPECT_TRUE(got.facts.tagged);
	EXPECT_EQ(got.facts.tci, 5 << 13 | 100);
	EXPECT_EQ(Bytes(got.data.begin(), got.data.end()), frame);

	got = fixture.describe(frame, control(3, 100 << 4, 200));
	Bytes tagged(frame.begin(), frame.begin() + 12);
	for (const int byte : { 0x81, 0x00, 0, 200 })
		tagged.push_back(static_cast<std::uint8_t>(byte));
	tagged.insert(tagged.end(), frame.begin() + 12, frame.end());
	EXPECT_EQ(Bytes(got.data.begin(), got.data.end()), tagged);
	EXPECT_EQ(got.head.length, 64u);
	EXPECT_EQ(ntohs(got.head.protocol), 0x8100);
	EXPECT_EQ(got.head.vlan_tci, 100);
}

TEST(CompatDescribe, cooked__without_link_header)
{
	const Bytes frame = ethernet(kOwn, 0x806);
	Fixture fixture;
	const auto got = fixture.describe(frame, control(3), { true, false, 0 });
	EXPECT_EQ(Bytes(got.data.begin(), got.data.end()), Bytes(frame.begin() + 14, frame.end()));
	EXPECT_EQ(got.head.network, 0);
	EXPECT_EQ(got.head.length, 46u);
	EXPECT_EQ(got.head.packet, PACKET_HOST);
}

TEST(CompatDescribe, no_link_header__protocol_of_the_packet)
{
	mox_packet_ctrl_info record = control(3);
	record.flags = MOX_RECV_NO_L2;
	record.l2_len = 0;
	const struct {
		Bytes packet;
		int protocol;
	} rows[] = { { Bytes(40, 0x45), 0x800 },
		     { Bytes(40, 0x60), 0x86dd },
		     { Bytes(40, 0), 0 },
		     { {}, 0 } };
	for (const auto &row : rows) {
		Fixture fixture;
		const auto got = fixture.describe(row.packet, record);
		EXPECT_EQ(ntohs(got.head.protocol), row.protocol);
		EXPECT_EQ(got.head.address_length, 0);
		EXPECT_EQ(got.head.network, 0);
		EXPECT_EQ(Bytes(got.data.begin(), got.data.end()), row.packet);
	}
}

TEST(CompatDescribe, short_frames__stay_inside)
{
	for (std::size_t size = 0; size < 20; ++size) {
		for (const bool cooked : { false, true }) {
			Bytes frame = ethernet(kBroadcast, 38, 20);
			frame.resize(size);
			mox_packet_ctrl_info record = control(3, 0, 7);
			record.l2_len = 18;
			Fixture fixture;
			const auto got = fixture.describe(frame, record, { cooked, false, 0 });
			EXPECT_LE(got.data.size(), size + 4);
		}
	}
}

TEST(CompatDescribe, interfaces__are_read_once_a_second)
{
	TwoInterfaces source;
	relay::Interfaces interfaces(source);
	EXPECT_NE(interfaces.find(3, 10), nullptr);
	EXPECT_EQ(interfaces.find(9, 10), nullptr);
	EXPECT_TRUE(interfaces.is_own(kOwn.data(), 10));
	EXPECT_EQ(source.readings, 1);
	EXPECT_NE(interfaces.find(3, 11), nullptr);
	EXPECT_EQ(source.readings, 2);
	interfaces.forget();
	EXPECT_NE(interfaces.find(3, 11), nullptr);
	EXPECT_EQ(source.readings, 3);
}

TEST(CompatDescribe, protocols__with_a_length_field)
{
	EXPECT_TRUE(relay::protocol_matches(3, 0x806));
	EXPECT_TRUE(relay::protocol_matches(4, 4));
	EXPECT_FALSE(relay::protocol_matches(4, 1));
	EXPECT_FALSE(relay::protocol_matches(4, 0x806));
	EXPECT_TRUE(relay::protocol_matches(1, 1));
}

} // namespace
