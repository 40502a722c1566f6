// SPDX-License-Identifier: GPL-2.0-only
// The reference's send, pinned by examples worked out by hand.
#include "send.h"

#include <gtest/gtest.h>

namespace {

using namespace oracle;
using Bytes = std::vector<uint8_t>;

class OracleSend : public testing::Test {
protected:
	void SetUp() override
	{
		world.local_mac = Bytes{ 2, 0, 0, 0, 0, 1 };
		world.interfaces[7] = { 0x70707070, "eth7", true };
		world.interfaces[9] = { 0x90909090, "eth9", false };
		world.debugging = true;
		socket.process = "p";
		message.data = Bytes(4, 0xdd);
		message.name = Bytes{ 17, 0, 0x88, 0xcc, 7, 0, 0, 0, 0, 0,
				      0,  6, 1,    2,    3, 4, 5, 6, 0, 0 };
	}
	SendResult run() { return oracle::send(world, socket, message); }

	SendWorld world;
	SendSocket socket;
	SendMessage message;
};

TEST_F(OracleSend, datagram)
{
	socket.datagram = true;
	const SendResult r = run();
	EXPECT_EQ(r.result, 4);
	EXPECT_EQ(r.counter, contract::kSendPackets);
	EXPECT_EQ(r.frame, (Bytes{ 1, 2, 3, 4, 5, 6, 2, 0, 0, 0, 0, 1, 0x88, 0xcc, 0xdd, 0xdd, 0xdd,
				   0xdd }));
	Bytes header(256);
	header[8] = header[9] = header[10] = header[11] = 0x70;
	header[20] = 14;
	header[22] = 0x20, header[23] = 1; // 288
	header[24] = 0x2e, header[25] = 1; // 302
	header[164] = 18;
	EXPECT_EQ(r.header, header);
	EXPECT_EQ(r.lines,
		  (std::vector<std::string>{
			  "MOX-PACKET-SEND: process p send pkt, len 4.\n",
			  "MOX-PACKET-SEND: process p send pkt <efbuff> in vsd 0 success.\n" }));
}

TEST_F(OracleSend, raw_and_short)
{
	message.name.reset();
	const SendResult r = run();
	EXPECT_EQ(r.frame, Bytes(4, 0xdd));
	Bytes header(256);
	header[22] = header[24] = 0x20, header[23] = header[25] = 1;
	header[164] = 4;
	EXPECT_EQ(r.header, header);
}

TEST_F(OracleSend, control)
{
	message.control = Bytes(48);
	Bytes &c = *message.control;
	c[18] = 0x34, c[19] = 0xf2; // VLAN 0x234
	c[24] = 0x02, c[26] = 0x10; // debug, proxy capture
	c[40] = 0xaa, c[45] = 0xbb;
	const SendResult r = run();
	EXPECT_EQ(r.header[18], 0x02);
	EXPECT_EQ(r.header[19], 0x34);
	EXPECT_EQ(r.header[33], 0x40);
	EXPECT_EQ(r.header[60], 0x10);
	EXPECT_EQ(r.header[72], 0xbb);
	EXPECT_EQ(r.header[146], 0xaa);
	ASSERT_EQ(r.lines.size(), 6u);
	EXPECT_EQ(r.lines[4], "MOX-PACKET-SEND: proxy capture packet, resend.\n");
	EXPECT_EQ(r.lines[5],
		  "MOX-PACKET-SEND: process p send debug pkt <efbuff> in vsd 0 success.\n");
	c[0] = 9;
	EXPECT_EQ(run().lines[4], "MOX-PACKET-SEND: send src intf: eth9, dst intf: eth7.\n");
}

TEST_F(OracleSend, failures)
{
	auto fails = [&](int result, contract::Counter counter) {
		const SendResult r = run();
		EXPECT_EQ(r.result, result);
		EXPECT_EQ(r.counter, counter);
	};
	world.outcome = 1;
	fails(-101, contract::kEfSendFails);
	world.outcome = 8;
	fails(-101, contract::kEfSendFails);
	world.outcome = -1;
	fails(4, contract::kSendPackets);
	(*message.name)[4] = 9;
	fails(-100, contract::kLinkdown);
	(*message.name)[4] = 8;
	fails(-6, contract::kDstintfIll);
	message.readable = 3;
	fails(-14, contract::kCopyFails);
	socket.datagram = true;
	world.local_mac_result = 1;
	fails(-22, contract::kMacfuncIll);
	world.longest = 17;
	fails(-12, contract::kAllocFails);
	message.name->resize(19);
	fails(-22, contract::kSendmsgIll);
	message.control = Bytes(47);
	fails(-22, contract::kSendmsgIll);
	EXPECT_EQ(run().lines.back(), "MOX-PACKET-SEND: msg controllen 47 illegal.\n");
	world.vsd = 3;
	fails(-22, contract::kSendmsgIll);
	EXPECT_EQ(run().lines, std::vector<std::string>{ "MOX-PACKET-SEND: get vsd id 3 fail.\n" });
}

} // namespace
