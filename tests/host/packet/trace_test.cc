// SPDX-License-Identifier: GPL-2.0-only
// The trace lines of a packet by what it is; hooks and delivery print them in
// receive/hooks_test.cc and receive/deliver_test.cc.
#include "packet/trace.hpp"

#include "fake/fixture.h"
#include "packets.h"

using fake::kernel;

namespace {

using namespace packets;

class Trace : public fake::KernelTest {
protected:
	static constexpr u8 kMac[6] = { 2, 0, 0, 0, 0, 9 };

	// The last line for a summary, without the CPU's tag.
	std::string last_line(const pkt_info &info, TraceTag tag = TraceTag::kReceive)
	{
		kernel().log.clear();
		trace_packet(info, tag);
		EXPECT_EQ(kernel().log.size(), 3u);
		std::string line = kernel().log.back().text;
		EXPECT_EQ(line.substr(0, 17), "[MOX-PACKET(0)]: ");
		return line.substr(17);
	}
	pkt_info summary(u8 flags)
	{
		pkt_info info{};
		info.src_mac = info.dst_mac = kMac;
		info.flags = flags;
		info.efbuff = packet;
		return info;
	}

	void *packet = nullptr;
	void SetUp() override
	{
		KernelTest::SetUp();
		packet = make({ .kind = 2 }, eth(0x0806));
	}
};

TEST_F(Trace, third_line__by_what_the_packet_is)
{
	static const u8 v6[16] = { 0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 };
	struct {
		u8 flags, proto, icmp6;
		u16 dst_port, src_port; // network order
		const char *line;
	} const cases[] = {
		{ 0x08, 17, 0, 0x4300, 0x4400,
		  "MOX-PACKET-RCV: ip: 1.2.3.4, ip protocol: 17, dst port: 67, src port: 68\n" },
		{ 0x10, 17, 0, 0x2202, 0x2302,
		  "MOX-PACKET-RCV: ip: ff02:0000:0000:0000:0000:0000:0000:0001, ip protocol: 17, dst port: 546, src port: 547\n" },
		{ 0x10, 58, 143, 0, 0,
		  "MOX-PACKET-RCV: ip: ff02:0000:0000:0000:0000:0000:0000:0001, ip protocol: 58, icmpv6 type: 143\n" },
		{ 0x10, 103, 0, 0, 0,
		  "MOX-PACKET-RCV: ip: ff02:0000:0000:0000:0000:0000:0000:0001, ip protocol: 103\n" },
		{ 0x02, 0, 0, 0, 0, "MOX-PACKET-RCV: eapol pkt, type: 3\n" },
		{ 0x00, 0, 0, 0, 0, "MOX-PACKET-RCV: packet type: 2\n" },
		// Ports and an ICMPv6 type say nothing without IP.
		{ 0x02, 17, 0, 0x2202, 0x2302, "MOX-PACKET-RCV: eapol pkt, type: 3\n" },
		{ 0x00, 58, 143, 0, 0, "MOX-PACKET-RCV: packet type: 2\n" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.line);
		pkt_info info = summary(c.flags);
		info.ip_proto = c.proto;
		info.icmpv6_type = c.icmp6;
		info.dst_port = c.dst_port;
		info.src_port = c.src_port;
		info.ipv4_dst = 0x04030201;
		info.ipv6_dst = v6;
		info.eapol_type = 3;
		EXPECT_EQ(last_line(info), c.line);
	}
}

TEST_F(Trace, second_line__says_rcv_for_either_tag)
{
	pkt_info info = summary(0);
	info.code = 7;
	info.sub_code = 9;
	for (TraceTag tag : { TraceTag::kReceive, TraceTag::kForward }) {
		last_line(info, tag);
		EXPECT_EQ(kernel().log[1].text,
			  "[MOX-PACKET(0)]: MOX-PACKET-RCV: code: 7, sub_code: 9\n");
	}
}

TEST_F(Trace, first_line__macs_type_and_vlan)
{
	pkt_info info = summary(0);
	info.eth_type = 0x0608;
	info.vlan = 0x64000000;
	last_line(info, TraceTag::kForward);
	EXPECT_EQ(kernel().log[0].text,
		  "[MOX-PACKET(0)]: MOX-PACKET-FW: src_mac: 02:00:00:00:00:09, "
		  "dst_mac: 02:00:00:00:00:09, eth_type: 0806, vid: 100\n");
}

} // namespace
