// SPDX-License-Identifier: GPL-2.0-only
/* The C API: what a send passes to the kernel, to the byte, and errors. */
#include "fixture.h"

#include <cerrno>
#include <thread>

namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes frame = { 1, 2, 3, 4, 5 };

TEST_F(Handle, send__needs_no_rule_and_no_location)
{
	make();
	EXPECT_EQ(mox_send(s, frame.data(), frame.size(), 3), -1);
	EXPECT_EQ(errno, EBADF);
	ASSERT_EQ(mox_open(s), 0) << error();
	ASSERT_EQ(mox_send(s, frame.data(), frame.size(), 3), 0) << error();
	ASSERT_EQ(mox_send(s, frame.data(), frame.size(), 0), 0) << error();
	ASSERT_EQ(calls.sent.size(), 2u);
	EXPECT_EQ(calls.sent[0].bytes, frame);
	EXPECT_EQ(calls.sent[0].name,
		  (Bytes{ 17, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
	EXPECT_FALSE(calls.sent[0].has_control);
	EXPECT_FALSE(calls.sent[1].has_name) << "an address would override the bind";
}

TEST_F(Handle, send_to__address_and_record_to_the_byte)
{
	make(MOX_DATAGRAM);
	ASSERT_EQ(mox_open(s), 0) << error();
	mox_address to{};
	to.ifindex = 0x01020304;
	to.ether_type = 0x88cc;
	to.has_mac = 1;
	const std::uint8_t mac[] = { 0x01, 0x80, 0xc2, 0, 0, 0x0e };
	std::copy_n(mac, 6, to.mac);
	mox_send_control control{};
	control.source_ifindex = 0x04030201;
	control.origin_ifindex = 0x08070605;
	control.l2_ifindex = 0x0c0b0a09;
	control.destination_l2_ifindex = 0x100f0e0d;
	control.flags = MOX_SEND_NO_ACL | MOX_SEND_PROXY_CAPTURE;
	control.word28 = 0x44332211;
	control.vlan = 0xabc;
	control.inner_vlan = 0xdef;
	control.half38 = 0x6655;
	control.wlan_id = 0x8877;
	control.ap_wlan_id = 0xaa99;
	control.radio_id = 0xbb;
	control.proxy_capture = 0xcc;
	ASSERT_EQ(mox_send_to(s, frame.data(), frame.size(), &to, &control), 0) << error();
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_EQ(calls.sent[0].name, (Bytes{ 17, 0, 0x88, 0xcc, 4,    3, 2, 1,    0, 0,
					      0,  6, 0x01, 0x80, 0xc2, 0, 0, 0x0e, 0, 0 }));
	EXPECT_EQ(calls.sent[0].control,
		  (Bytes{ 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c,
			  0x0d, 0x0e, 0x0f, 0x10, 0,    0,    0xbc, 0x0a, 0,    0,    0,    0,
			  0x00, 0x00, 0x14, 0x00, 0x11, 0x22, 0x33, 0x44, 0xef, 0x0d, 0,    0,
			  0,    0,    0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0,    0 }));
}

TEST_F(Handle, send__errors)
{
	make();
	ASSERT_EQ(mox_open(s), 0);
	struct {
		int error;
		const char *text;
	} const cases[] = {
		{ ENXIO, "has no interface 9" },
		{ ENETDOWN, "is down" },
		{ ENETUNREACH, "dropped the frame" },
	};
	for (const auto &each : cases) {
		calls.send_errors = { each.error };
		EXPECT_EQ(mox_send(s, frame.data(), frame.size(), 9), -1);
		EXPECT_EQ(errno, each.error);
		EXPECT_NE(error().find(each.text), std::string::npos) << error();
	}
	mox_send_control control{};
	control.vlan = 4096;
	EXPECT_EQ(mox_send_to(s, frame.data(), frame.size(), nullptr, &control), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_NE(error().find("VLAN id 4096"), std::string::npos) << error();
}

TEST_F(Handle, reply_control__has_the_ids_alone)
{
	mox_control received{};
	received.ifindex = 1;
	received.flags = MOX_RECV_TRACE;
	received.word28 = 2;
	received.vlan = 0xabc;
	received.priority = 7;
	received.inner_vlan = 0xdef;
	received.wlan_id = 8;
	received.ap_wlan_id = 9;
	received.radio_id = 10;
	mox_send_control answer;
	std::memset(&answer, 0xff, sizeof(answer));
	mox_reply_control(&answer, &received);
	mox_send_control expected{};
	expected.vlan = 0xabc;
	expected.inner_vlan = 0xdef;
	expected.wlan_id = 8;
	expected.ap_wlan_id = 9;
	expected.radio_id = 10;
	EXPECT_EQ(std::memcmp(&answer, &expected, sizeof(answer)), 0);
}

TEST_F(Handle, interface_mac)
{
	make();
	std::uint8_t mac[6] = {};
	ASSERT_EQ(mox_open(s), 0);
	EXPECT_EQ(mox_interface_mac(s, mac), -1);
	EXPECT_EQ(errno, ENODEV);
	calls.name = { 17, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 6, 1, 2, 3, 4, 5, 6 };
	ASSERT_EQ(mox_interface_mac(s, mac), 0) << error();
	EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{ 1, 2, 3, 4, 5, 6 }));
}

TEST_F(Handle, error__is_of_the_thread)
{
	make();
	EXPECT_EQ(mox_add_rule(s, "eth"), -1);
	const std::string mine = error();
	std::string others = "unset", after;
	std::thread([&] {
		others = mox_error();
		mox_location("moon");
		after = mox_error();
	}).join();
	EXPECT_EQ(others, "");
	EXPECT_NE(after.find("moon"), std::string::npos);
	EXPECT_EQ(error(), mine);
}

TEST_F(Handle, error__a_long_text_is_cut)
{
	make();
	const std::string rule = "eth=" + std::string(5000, 'x');
	EXPECT_EQ(mox_add_rule(s, rule.c_str()), -1);
	EXPECT_EQ(error().size(), 4095u);
}

} // namespace
