// SPDX-License-Identifier: GPL-2.0-only
// The reports on a socket and its rule, word by word.
#include "contract/reports.h"
#include "rules/print.hpp"
#include "socket_fixture.h"

namespace {

class Dump : public SocketTest {
protected:
	void SetUp() override
	{
		SocketTest::SetUp();
		ASSERT_EQ(s.create(), 0);
	}
	void TearDown() override
	{
		s.release();
		SocketTest::TearDown();
	}
	std::string said()
	{
		std::string text = kernel().text();
		for (const fake::Line &line : kernel().log)
			EXPECT_EQ(line.level, -1) << "reports carry no level";
		kernel().log.clear();
		return text;
	}

	Sock s;
};

TEST_F(Dump, socket__fresh)
{
	mox_packet_sock_dump(&s.po());
	contract::SocketText wanted{ "captured", 4711, PACKET_NONE_LOC, PACKET_TREATMENT_NONE, {} };
	wanted.running = false;
	wanted.refcnt = 2;
	EXPECT_EQ(said(), contract::joined(wanted.pieces()));
}

TEST_F(Dump, socket__every_field_and_every_rule_type)
{
	const std::vector<Bytes> elements = {
		{ 5, 9, 0xff, 0 },
		{ 0x01, 0x80, 0xc2, 0, 0, 0x0e, 0xde, 0xad, 0xbe, 0xef, 0, 1 },
		{ 2, 0, 0, 0, 0, 0xab },
		{ 0x08, 0x06, 0x00, 0x03, 0x88, 0xcc },
		{ 0x80, 0x9b },
		{ 6, 255 },
		{ 58 },
		{ 0, 53 },
		{ 0xff, 0xfe },
		{ 0x02, 0x22 },
		{ 7, 0, 0, 0, 0xff, 0xff, 0xff, 0xff },
		{ 135 },
		{},
		{},
		{ 3 },
		{ 200 },
		{},
		{ 0x67, 0x12, 0, 0, 0xff, 0xff, 0xff, 0xff },
		{},
		{ 0, 2 },
	};
	contract::SocketText wanted{ "captured", -2, PACKET_LEV3_RESV_LOC, PACKET_FETCH, {} };
	for (u16 type = 0; type < contract::kTypes; type++) {
		const unsigned width = contract::width(type);
		ASSERT_EQ(s.add(type, width ? elements[type].size() / width : 1, elements[type]),
			  0);
		wanted.rules.push_back(contract::rule_text(type, elements[type]));
	}
	// Spelled out where a number may be read in more than one way.
	EXPECT_EQ(wanted.rules[PACKET_PACKET_CODE_EQUAL].data,
		  (Strings{ "code: 5, subcode: 9  ", "code: 255, subcode: 0  " }));
	EXPECT_EQ(wanted.rules[PACKET_ETH_PROT_EQUAL].data,
		  (Strings{ "0806  ", "0003  ", "88cc  " }));
	EXPECT_EQ(wanted.rules[PACKET_IPv4_SRC_PORT_EQUAL].data, Strings{ "65534  " });
	EXPECT_EQ(wanted.rules[PACKET_SRC_INTF_EQUAL].data, (Strings{ "7  ", "4294967295  " }));
	EXPECT_EQ(wanted.rules[PACKET_PID_T].data, (Strings{ "4711  ", "-1  " }));
	EXPECT_EQ(wanted.rules[PACKET_ARP_TYPE].data, Strings{ "512  " }) << "as stored";
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_FETCH), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV3_RESV_LOC), 0);
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	ASSERT_EQ(s.bind(7), 0);
	mox_packet_sock &po = s.po();
	po.vsd = 3;
	po.pid = -2;
	u32 *counter = &po.filter_drops; // in the record's order
	for (u32 i = 0; i < contract::kCounters; i++)
		counter[i] = wanted.counters[i] = 101 + i;
	po.ef_send_fails = wanted.counters[contract::kEfSendFails] = 4294967295u;
	wanted.vsd = 3;
	wanted.ctrl = true;
	wanted.ifindex = 7;
	wanted.to_receive = 3;
	wanted.to_send = 2;
	for (int i = 0; i < 3; i++) {
		sk_buff *skb = fake::skb_alloc(60);
		skb->iif = 7;
		skb->has_dev = false;
		EXPECT_TRUE(fake::deliver(s.sk, skb));
	}
	sk_buff in_flight;
	s.sk->write_queue->assign(2, &in_flight);
	kernel().log.clear();
	mox_packet_sock_dump(&po);
	s.sk->write_queue->clear();
	EXPECT_EQ(said(), contract::joined(wanted.pieces()));
	po.vsd = 0;
}

TEST_F(Dump, socket__takes_no_lock)
{
	LockTrace trace;
	mox_packet_sock_dump(&s.po());
	EXPECT_EQ(trace.steps, Strings{});
}

} // namespace
