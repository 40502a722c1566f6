// SPDX-License-Identifier: GPL-2.0-only
// Real network devices behind the platform's ports: what a send puts on the wire.
#include <cerrno>
#include <cstring>

#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;

class Devices : public SendTest {
protected:
	static Send frame(size_t length, uint32_t destination)
	{
		Send send;
		send.data = counting(length);
		send.data[12] = 0x88;
		send.data[13] = 0xb5;
		send.to(destination);
		return send;
	}
};

TEST_F(Devices, a_frame_leaves_by_the_named_device_byte_for_byte)
{
	TapPort one("tap-one"), other("tap-two");
	Socket socket(SOCK_RAW);
	for (size_t length : { 14, 15, 59, 60, 64, 1513, 1514 }) {
		Send send = frame(length, one.ifindex());
		EXPECT_EQ(leaves(socket, send).ifindex, one.ifindex());
		auto seen = one.read();
		ASSERT_TRUE(seen) << length;
		EXPECT_EQ(*seen, send.data) << length;
	}
	EXPECT_FALSE(one.read_now());
	EXPECT_FALSE(other.read_now());
}

TEST_F(Devices, a_large_frame_leaves_by_a_device_that_takes_it)
{
	TapPort port("tap-large", 9000);
	Socket raw(SOCK_RAW), dgram(SOCK_DGRAM);
	Send send = frame(9014, port.ifindex());
	EXPECT_EQ(attempt(raw, send).result, 9014);
	auto seen = port.read();
	ASSERT_TRUE(seen);
	EXPECT_EQ(*seen, send.data);
	send = frame(9000, port.ifindex());
	EXPECT_EQ(attempt(dgram, send).result, 9000);
	seen = port.read();
	ASSERT_TRUE(seen);
	EXPECT_EQ(Bytes(seen->begin() + 14, seen->end()), send.data);
}

TEST_F(Devices, what_is_no_frame_for_a_device_is_dropped_and_printed)
{
	TapPort port("tap-strict");
	Socket raw(SOCK_RAW);
	for (size_t length : { 0, 1, 13, 1515, 9000 }) {
		Send send;
		send.data = counting(length);
		send.to(port.ifindex());
		Trial trial = attempt(raw, send);
		EXPECT_EQ(trial.error, ENETUNREACH) << length;
		EXPECT_EQ(trial.counters, SendCounters{ .ef_send = 1 }) << length;
		EXPECT_EQ(trial.left.size(), 0u) << length;
	}
	EXPECT_FALSE(port.read_now());
}

TEST_F(Devices, tags_of_the_control_record_are_on_the_wire)
{
	TapPort port("tap-vlan");
	Socket socket(SOCK_RAW);
	struct Row {
		uint16_t outer, inner;
		Bytes tags;
	};
	for (const Row &row :
	     { Row{ 0, 0, {} }, Row{ 100, 0, { 0x81, 0x00, 0x00, 0x64 } },
	       Row{ 0xf064, 0, { 0x81, 0x00, 0x00, 0x64 } },
	       Row{ 100, 200, { 0x81, 0x00, 0x00, 0x64, 0x81, 0x00, 0x00, 0xc8 } } }) {
		Send send = frame(60, port.ifindex()).with({});
		send.control.vlan = row.outer;
		send.control.inner_vlan = row.inner;
		EXPECT_EQ(attempt(socket, send).result, 60);
		Bytes wanted(send.data.begin(), send.data.begin() + 12);
		wanted.insert(wanted.end(), row.tags.begin(), row.tags.end());
		wanted.insert(wanted.end(), send.data.begin() + 12, send.data.end());
		auto seen = port.read();
		ASSERT_TRUE(seen);
		EXPECT_EQ(*seen, wanted) << row.outer << " " << row.inner;
	}
}

TEST_F(Devices, without_a_destination_it_leaves_by_every_port_but_the_source)
{
	TapPort one("tap-one"), two("tap-two"), three("tap-three");
	TapPort *ports[] = { &one, &two, &three };
	Socket socket(SOCK_RAW);
	for (const TapPort *source : { static_cast<TapPort *>(nullptr), &one, &two, &three }) {
		Send send = frame(60, 0).with({});
		send.control.pkt_ifx = source ? source->ifindex() : 0;
		Trial trial = attempt(socket, send);
		EXPECT_EQ(trial.result, 60);
		EXPECT_EQ(trial.counters, SendCounters{ .sent = 1 })
			<< "one send, however many ports";
		EXPECT_EQ(trial.left.size(), source ? 2u : 3u);
		for (TapPort *port : ports) {
			auto seen = port->read(port == source ? 50 : 1000);
			EXPECT_EQ(bool(seen), port != source);
			if (seen) {
				EXPECT_EQ(*seen, send.data);
			}
		}
	}
}

TEST_F(Devices, a_name_with_interface_0_asks_for_none_even_on_a_bound_socket)
{
	TapPort one("tap-one"), two("tap-two");
	for (int type : { SOCK_RAW, SOCK_DGRAM }) {
		Socket bound(type);
		ASSERT_EQ(bound.bind(one.ifindex()), 0);
		EXPECT_EQ(attempt(bound, frame(60, 0)).left.size(), 2u);
		for (TapPort *port : { &one, &two })
			EXPECT_TRUE(port->read());
	}
}

TEST_F(Devices, unbound_and_without_a_name_it_is_flooded)
{
	TapPort one("tap-one"), two("tap-two");
	Socket socket(SOCK_RAW);
	Send send = frame(60, 0);
	send.named = false;
	Trial trial = attempt(socket, send);
	EXPECT_EQ(trial.left.size(), 2u);
	for (const auto &left : trial.left)
		EXPECT_EQ(left.header, plain_header(MOXLAB_NO_BLOCK, 60));
}

TEST_F(Devices, a_named_destination_is_meant_even_where_the_frame_comes_from)
{
	TapPort port("tap-one");
	Socket socket(SOCK_RAW);
	Send send = frame(60, port.ifindex()).with({});
	send.control.pkt_ifx = port.ifindex();
	EXPECT_EQ(leaves(socket, send).ifindex, port.ifindex());
	EXPECT_TRUE(port.read());
}

TEST_F(Devices, nowhere_to_go_is_a_drop)
{
	Socket socket(SOCK_RAW);
	TapPort port("tap-one");
	Send send = frame(60, 0).with({});
	send.control.pkt_ifx = port.ifindex();
	Trial trial = attempt(socket, send);
	EXPECT_EQ(trial.error, ENETUNREACH);
	EXPECT_EQ(trial.counters, SendCounters{ .ef_send = 1 });
	EXPECT_FALSE(port.read(50));
}

TEST_F(Devices, the_link_is_the_devices)
{
	TapPort port("tap-one");
	Socket socket(SOCK_RAW);
	Send send = frame(60, port.ifindex());
	EXPECT_EQ(attempt(socket, send).error, 0);
	port.set_up(false);
	Trial trial = attempt(socket, send, true);
	EXPECT_EQ(trial.error, ENETDOWN);
	EXPECT_TRUE(HasLine(trial.lines, "MOX-PACKET-SEND: send tap-one is link down"));
	port.set_up(true);
	EXPECT_EQ(attempt(socket, send).error, 0);
}

TEST_F(Devices, a_request_is_trapped_and_answered_on_one_socket)
{
	TapPort port("tap-one");
	Socket daemon = capture(PACKET_LEV2_LOC, PACKET_TRAP, ethertype(0x88b5));
	ASSERT_EQ(daemon.ctrl(true), 0);
	Bytes request = frame(60, 0).data;
	port.write(request);
	auto heard = daemon.receive();
	ASSERT_TRUE(heard);
	EXPECT_EQ(heard->bytes, request);
	EXPECT_EQ(heard->info.pkt_ifx, port.ifindex());
	Send answer = frame(60, heard->info.pkt_ifx);
	std::memcpy(&answer.data[0], &heard->bytes[6], 6);
	EXPECT_EQ(attempt(daemon, answer).result, 60);
	auto seen = port.read();
	ASSERT_TRUE(seen);
	EXPECT_EQ(*seen, answer.data);
	EXPECT_TRUE(lab::settle());
}

} // namespace
