/* SPDX-License-Identifier: GPL-2.0-only */
/* Every frame that moxsend makes, to the byte. */
#include "protocols.h"

#include "expect_error.h"
#include "hex.h"
#include "mox/error.h"

namespace {

using moxsend::Bytes;

constexpr mox::MacAddress own = { 0x02, 0, 0, 0, 0x01, 0x01 },
			  other = { 0x02, 0, 0, 0, 0x02, 0x02 };

Bytes hex(std::string_view text)
{
	return moxsend::parse_hex("expected", text);
}

TEST(moxsend_protocols, arp__request_and_reply)
{
	moxsend::Arp arp{ 1, own, { 10, 0, 0, 1 }, {}, { 10, 0, 0, 2 } };
	EXPECT_EQ(
		moxsend::arp_frame({ moxsend::kBroadcast, own }, arp),
		hex("ffffffffffff 020000000101 0806 0001 0800 06 04 0001 020000000101 0a000001 000000000000 0a000002"));
	arp = { 2, own, { 192, 168, 255, 1 }, other, { 172, 16, 0, 254 } };
	EXPECT_EQ(
		moxsend::arp_frame({ other, own }, arp),
		hex("020000000202 020000000101 0806 0001 0800 06 04 0002 020000000101 c0a8ff01 020000000202 ac1000fe"));
	arp.operation = 0x1234;
	EXPECT_EQ(moxsend::arp_frame({ other, own }, arp)[20], 0x12);
}

TEST(moxsend_protocols, eapol__every_kind)
{
	const char *const head = "0180c2000003 020000000101 888e ";
	struct {
		moxsend::EapolKind kind;
		const char *expected;
	} const cases[] = {
		{ moxsend::EapolKind::kStart, "02 01 0000" },
		{ moxsend::EapolKind::kLogoff, "02 02 0000" },
		{ moxsend::EapolKind::kRequestIdentity, "02 00 0005 01 07 0005 01" },
		{ moxsend::EapolKind::kIdentity, "02 00 000a 02 07 000a 01 616c696365" },
		{ moxsend::EapolKind::kSuccess, "02 00 0004 03 07 0004" },
		{ moxsend::EapolKind::kFailure, "02 00 0004 04 07 0004" },
	};
	EXPECT_EQ(std::size(cases), moxsend::eapol_kind_names().size());
	for (const auto &each : cases) {
		moxsend::Eapol eapol{ each.kind, 2, 7, "alice" };
		EXPECT_EQ(moxsend::eapol_frame({ moxsend::kEapolGroup, own }, eapol),
			  hex(std::string(head) + each.expected))
			<< each.expected;
	}
}

TEST(moxsend_protocols, eapol__version_and_the_longest_identity)
{
	moxsend::Eapol eapol{ moxsend::EapolKind::kIdentity, 1, 0xff, std::string(65530, 'x') };
	Bytes frame = moxsend::eapol_frame({ moxsend::kEapolGroup, own }, eapol);
	ASSERT_EQ(frame.size(), 14u + 4 + 5 + 65530);
	EXPECT_EQ(Bytes(frame.begin() + 14, frame.begin() + 23), hex("01 00 ffff 02 ff ffff 01"));
	eapol.identity += 'x';
	expect_error<mox::UsageError>(
		[&] {
			moxsend::eapol_frame({ moxsend::kEapolGroup, own }, eapol);
		},
		{ "65531 bytes", "up to 65530" });
}

TEST(moxsend_protocols, lldp__the_least)
{
	moxsend::Lldp lldp;
	lldp.chassis_id = "02:00:00:00:01:01";
	lldp.port_id = "port1";
	EXPECT_EQ(moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp),
		  hex("0180c200000e 020000000101 88cc"
		      "0207 04 020000000101" // chassis: a MAC address
		      "0406 05 706f727431"   // port: an interface name
		      "0602 0078"
		      "0000"));
}

TEST(moxsend_protocols, lldp__everything)
{
	moxsend::Lldp lldp;
	lldp.chassis_id = "ap-1";
	lldp.port_id = "02:00:00:00:02:02";
	lldp.ttl = 0;
	lldp.port_description = "uplink";
	lldp.system_name = "ap";
	lldp.system_description = "x y";
	lldp.capabilities = 0x000c;
	lldp.management_ip = moxsend::Ipv4Address{ 10, 0, 0, 1 };
	lldp.management_ifindex = 0x01020304;
	EXPECT_EQ(moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp),
		  hex("0180c200000e 020000000101 88cc"
		      "0205 07 61702d31"
		      "0407 03 020000000202"
		      "0602 0000"
		      "0806 75706c696e6b"
		      "0a02 6170"
		      "0c03 782079"
		      "0e04 000c 000c"
		      "100c 05 01 0a000001 02 01020304 00"
		      "0000"));
	lldp.management_ifindex = 0;
	Bytes frame = moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp);
	EXPECT_EQ(Bytes(frame.end() - 8, frame.end()), hex("01 00000000 00 0000"))
		<< "interface numbering: unknown";
}

TEST(moxsend_protocols, lldp__a_length_of_9_bits)
{
	moxsend::Lldp lldp;
	lldp.chassis_id = std::string(255, 'c');
	lldp.port_id = "p";
	Bytes frame = moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp);
	EXPECT_EQ(Bytes(frame.begin() + 14, frame.begin() + 17),
		  hex("03 00 07")); // type 1, length 256
}

TEST(moxsend_protocols, lldp__broadcast_is_a_name_there)
{
	moxsend::Lldp lldp;
	lldp.chassis_id = "broadcast";
	lldp.port_id = "p";
	EXPECT_EQ(moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp)[16], 7);
}

TEST(moxsend_protocols, lldp__refusals)
{
	moxsend::Lldp good;
	good.chassis_id = "c";
	good.port_id = "p";
	auto expect_refused = [&](std::string moxsend::Lldp::*field, const std::string &value,
				  const char *what) {
		moxsend::Lldp lldp = good;
		lldp.*field = value;
		expect_error<mox::UsageError>(
			[&] {
				moxsend::lldp_frame({ moxsend::kLldpGroup, own }, lldp);
			},
			{ what });
	};
	expect_refused(&moxsend::Lldp::chassis_id, "", "chassis id is missing");
	expect_refused(&moxsend::Lldp::port_id, "", "port id is missing");
	const std::string too_long(256, 'x');
	expect_refused(&moxsend::Lldp::chassis_id, too_long, "chassis id of 256 bytes");
	expect_refused(&moxsend::Lldp::port_id, too_long, "port id of 256 bytes");
	expect_refused(&moxsend::Lldp::port_description, too_long, "port description of 256 bytes");
	expect_refused(&moxsend::Lldp::system_name, too_long, "system name of 256 bytes");
	expect_refused(&moxsend::Lldp::system_description, too_long, "up to 255");
}

} // namespace
