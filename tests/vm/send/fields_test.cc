// SPDX-License-Identifier: GPL-2.0-only
// What the platform is handed: the frame byte by byte, and the efbuff's header with each field of the send control
// record in its place.
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>

#include "support/send.h"

namespace {

using namespace vm;

class Fields : public SendTest {
protected:
	Send to_port_a(size_t length = 60) const
	{
		Send send;
		send.data = counting(length);
		send.to(lab::kPortA);
		return send;
	}
	Send controlled() const { return to_port_a().with({}); }
};

void put16(Bytes &header, size_t at, uint16_t value)
{
	std::memcpy(&header[at], &value, 2);
}
void put32(Bytes &header, size_t at, uint32_t value)
{
	std::memcpy(&header[at], &value, 4);
}

TEST_F(Fields, a_plain_send_fills_these_and_nothing_else)
{
	Socket socket(SOCK_RAW);
	auto left = leaves(socket, to_port_a());
	EXPECT_EQ(left.ifindex, lab::kPortA);
	EXPECT_EQ(left.bytes, counting(60));
	EXPECT_EQ(left.header, plain_header(lab::kPortA, 60));
}

TEST_F(Fields, an_empty_control_record_changes_nothing)
{
	Socket socket(SOCK_RAW);
	EXPECT_EQ(leaves(socket, controlled()).header, plain_header(lab::kPortA, 60));
}

TEST_F(Fields, every_field_of_the_control_record_in_its_place)
{
	Send send = controlled();
	mox_packet_ctrl_info &c = send.control;
	c.pkt_ifx = lab::kPortB;
	c.pkt_origifx = 0x11223344;
	c.pkt_l2ifx = 0x55667788;
	c.pkt_dst_l2ifx = 0x99aabbcc;
	c.vlan = 0x1abc;
	c.word28 = 0xdeadbeef;
	c.inner_vlan = 0x1def;
	c.half38 = 0x7e7f;
	c.wlan_id = 0x0102;
	c.ap_wlan_id = 0x0304;
	c.radio_id = 0x05;
	c.proxy_capture = 0x06;
	// Not read by a send:
	c.eth_type = 0xffff;
	c.reserved20 = 0xffff;
	c.l2_len = 0xffff;
	c.reserved46 = 0xffff;
	// Printed only:
	c.inner_vid = 0xffff;
	c.ex_inner_vlan = 0xffff;

	Bytes wanted = plain_header(lab::kPortA, 60);
	put32(wanted, 4, lab::kPortB);
	put16(wanted, 16, htons(0x0def));
	put16(wanted, 18, htons(0x0abc));
	put32(wanted, 64, 0x55667788);
	put32(wanted, 68, 0x11223344);
	put32(wanted, 76, 0x99aabbcc);
	wanted[144] = 0x05;
	put16(wanted, 146, 0x0102);
	put16(wanted, 148, 0x0304);
	put32(wanted, 172, 0xdeadbeef);
	put16(wanted, 188, 0x7e7f);
	Socket socket(SOCK_RAW);
	EXPECT_EQ(leaves(socket, send).header, wanted)
		<< "the proxy-capture byte stays 0 without its flag";
}

TEST_F(Fields, each_control_field_alone)
{
	struct Row {
		size_t from, width, to;
	};
	Socket socket(SOCK_RAW);
	for (Row row : { Row{ 4, 4, 68 },
			 { 8, 4, 64 },
			 { 12, 4, 76 },
			 { 28, 4, 172 },
			 { 38, 2, 188 },
			 { 40, 2, 146 },
			 { 42, 2, 148 },
			 { 44, 1, 144 } })
		for (size_t byte = 0; byte < row.width; ++byte) {
			Send send = controlled();
			reinterpret_cast<uint8_t *>(&send.control)[row.from + byte] = 0xa5;
			Bytes wanted = plain_header(lab::kPortA, 60);
			wanted[row.to + byte] = 0xa5;
			EXPECT_EQ(leaves(socket, send).header, wanted)
				<< "record byte " << row.from + byte;
		}
	for (size_t unread : { 16, 17, 20, 21, 22, 23, 34, 35, 36, 37, 45, 46, 47 }) {
		Send send = controlled();
		reinterpret_cast<uint8_t *>(&send.control)[unread] = 0xff;
		EXPECT_EQ(leaves(socket, send).header, plain_header(lab::kPortA, 60))
			<< "record byte " << unread;
	}
}

TEST_F(Fields, vlan_ids_are_the_low_twelve_bits_of_both_words)
{
	Socket socket(SOCK_RAW);
	for (uint32_t value : { 0x0000, 0x0001, 0x0fff, 0x1000, 0xf000, 0xffff, 0x8064 }) {
		Send send = controlled();
		send.control.vlan = uint16_t(value);
		Bytes wanted = plain_header(lab::kPortA, 60);
		put16(wanted, 18, htons(value & 0xfff));
		EXPECT_EQ(leaves(socket, send).header, wanted) << std::hex << value;
		send.control.vlan = 0;
		send.control.inner_vlan = uint16_t(value);
		wanted = plain_header(lab::kPortA, 60);
		put16(wanted, 16, htons(value & 0xfff));
		EXPECT_EQ(leaves(socket, send).header, wanted) << std::hex << value;
	}
}

/// The header that flags are to give.
Bytes with_flags(uint32_t flags, uint8_t proxy)
{
	Bytes wanted = plain_header(lab::kPortA, 60);
	for (const contract::SendFlag &f : contract::kSendFlags)
		if (flags & f.flag) {
			put32(wanted, 32, word_at(wanted, 32) | f.at32);
			put32(wanted, 60, word_at(wanted, 60) | f.at60);
		}
	wanted[72] = flags & contract::kProxySend ? proxy : 0;
	return wanted;
}

TEST_F(Fields, each_flag_alone)
{
	Socket socket(SOCK_RAW);
	for (int bit = 0; bit < 32; ++bit) {
		Send send = controlled();
		send.control.flags = 1u << bit;
		send.control.proxy_capture = 0xc3;
		EXPECT_EQ(leaves(socket, send).header, with_flags(1u << bit, 0xc3))
			<< "bit " << bit;
	}
}

TEST_F(Fields, every_pair_of_flags_and_all_together)
{
	Socket socket(SOCK_RAW);
	for (const contract::SendFlag &one : contract::kSendFlags)
		for (const contract::SendFlag &other : contract::kSendFlags) {
			Send send = controlled();
			send.control.flags = one.flag | other.flag;
			send.control.proxy_capture = 1;
			EXPECT_EQ(leaves(socket, send).header, with_flags(send.control.flags, 1))
				<< std::hex << send.control.flags;
		}
	Send send = controlled();
	send.control.flags = ~0u;
	send.control.proxy_capture = 0xff;
	Bytes header = leaves(socket, send).header;
	EXPECT_EQ(header, with_flags(~0u, 0xff));
	EXPECT_EQ(word_at(header, 32), 0x44000u);
	EXPECT_EQ(word_at(header, 60), 0xffu);
}

TEST_F(Fields, the_name_decides_the_destination_and_not_the_binding)
{
	for (int type : { SOCK_RAW, SOCK_DGRAM })
		for (bool with_control : { false, true }) {
			Socket bound(type);
			ASSERT_EQ(bound.bind(lab::kPortB), 0);
			Send send = to_port_a();
			if (with_control)
				send.with({});
			EXPECT_EQ(leaves(bound, send).ifindex, lab::kPortA);
		}
}

TEST_F(Fields, without_a_name_the_bound_interface_is_the_destination)
{
	for (bool with_control : { false, true }) {
		Socket bound(SOCK_RAW);
		ASSERT_EQ(bound.bind(lab::kPortB), 0);
		Send send;
		send.data = counting(60);
		if (with_control)
			send.with({});
		auto left = leaves(bound, send);
		EXPECT_EQ(left.ifindex, lab::kPortB);
		EXPECT_EQ(left.header, plain_header(lab::kPortB, 60));
	}
}

TEST_F(Fields, the_bound_interface_is_looked_up_like_any)
{
	Socket bound(SOCK_RAW);
	ASSERT_EQ(bound.bind(lab::kPortB), 0);
	Send send;
	send.data = counting(60);
	lab::set_link(lab::kPortB, false);
	EXPECT_EQ(attempt(bound, send).error, ENETDOWN);
	lab::remove_interface(lab::kPortB);
	Trial trial = attempt(bound, send);
	EXPECT_EQ(trial.error, ENXIO);
	EXPECT_EQ(trial.counters, SendCounters{ .dstintf_ill = 1 });
}

TEST_F(Fields, a_dgram_send_without_a_name_has_no_destination_mac)
{
	Socket bound(SOCK_DGRAM);
	ASSERT_EQ(bound.bind(lab::kPortB), 0);
	Send send;
	send.data = counting(60);
	for (bool with_control : { false, true }) {
		if (with_control)
			send.with({});
		Trial trial = attempt(bound, send);
		EXPECT_EQ(trial.error, EINVAL);
		EXPECT_EQ(trial.counters, SendCounters{ .macfunc_ill = 1 });
	}
}

TEST_F(Fields, a_dgram_send_builds_the_ethernet_header)
{
	struct Row {
		uint16_t of_socket, of_name, wanted;
	};
	for (Row row : { Row{ 0, 0x88b5, 0x88b5 },
			 { 0x0806, 0x88b5, 0x88b5 },
			 { 0x0806, 0, 0x0806 },
			 { 0, 0, 0 } }) {
		Socket socket(SOCK_DGRAM, htons(row.of_socket));
		ASSERT_EQ(socket.error(), 0);
		Send send = to_port_a(46);
		send.to(lab::kPortA, 6, row.of_name);
		auto left = leaves(socket, send);
		Bytes wanted(kPeerMac, kPeerMac + 6);
		wanted.insert(wanted.end(), kLocalMac[0], kLocalMac[0] + 6);
		wanted.push_back(uint8_t(row.wanted >> 8));
		wanted.push_back(uint8_t(row.wanted));
		wanted.insert(wanted.end(), send.data.begin(), send.data.end());
		EXPECT_EQ(left.bytes, wanted) << std::hex << row.of_socket << " " << row.of_name;
		EXPECT_EQ(left.header, plain_header(lab::kPortA, 60));
	}
}

TEST_F(Fields, the_local_mac_service_is_asked_for_unit_0)
{
	Socket dgram(SOCK_DGRAM), raw(SOCK_RAW);
	uint32_t calls = service_state(kLocalMacService).calls;
	leaves(raw, to_port_a());
	EXPECT_EQ(service_state(kLocalMacService).calls, calls)
		<< "a raw frame brings its own address";
	leaves(dgram, to_port_a());
	EXPECT_EQ(service_state(kLocalMacService).calls, calls + 1);
	EXPECT_EQ(service_state(kLocalMacService).unit, 0u);
}

TEST_F(Fields, a_raw_send_changes_no_byte_of_the_frame)
{
	Socket socket(SOCK_RAW, htons(0x0806));
	Send send = to_port_a();
	send.to(lab::kPortA, 6, 0x88b5);
	EXPECT_EQ(leaves(socket, send).bytes, counting(60));
}

} // namespace
