// SPDX-License-Identifier: GPL-2.0-only
// A program written for the kernel's own family 17: busybox arping. It sends; it cannot receive.
#include <fstream>

#include "support/process.h"
#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;

/// The MAC address of a network device.
Bytes mac_of(const std::string &device)
{
	std::ifstream file("/sys/class/net/" + device + "/address");
	Bytes mac;
	for (std::string byte; std::getline(file, byte, ':');)
		mac.push_back(uint8_t(std::stoul(byte, nullptr, 16)));
	return mac;
}

Bytes operator+(Bytes left, const Bytes &right)
{
	left.insert(left.end(), right.begin(), right.end());
	return left;
}

class Arping : public SendTest {
protected:
	const Bytes everybody = Bytes(6, 0xff), us = { 10, 9, 9, 1 }, peer = { 10, 9, 9, 7 };
	const Bytes local_mac{ kLocalMac[0], kLocalMac[0] + 6 }, peer_mac{ kPeerMac, kPeerMac + 6 };

	void SetUp() override
	{
		SendTest::SetUp();
		// arping needs an address of this machine as its source.
		ASSERT_EQ(run({ "ip", "addr", "add", "10.9.9.1/32", "dev", "lo" }), 0);
	}
	void TearDown() override
	{
		EXPECT_EQ(run({ "ip", "addr", "del", "10.9.9.1/32", "dev", "lo" }), 0);
		SendTest::TearDown();
	}

	/// An ARP packet for Ethernet and IPv4 with its header.
	static Bytes arp(const Bytes &to, const Bytes &from, uint8_t operation,
			 const Bytes &sender_mac, const Bytes &sender, const Bytes &target_mac,
			 const Bytes &target)
	{
		return to + from + Bytes{ 0x08, 0x06, 0, 1, 0x08, 0, 6, 4, 0, operation } +
		       sender_mac + sender + target_mac + target;
	}
};

TEST_F(Arping, its_requests_leave_byte_for_byte_by_the_device_that_it_names)
{
	TapPort port("tap-arp"), other("tap-none");
	Process arping({ "arping", "-I", "tap-arp", "-c", "2", "-s", "10.9.9.1", "10.9.9.7" });
	// Who asks is the device's own address; the frame's source is the access point's: arping sends without a header
	// (SOCK_DGRAM), and the header is the module's.
	Bytes request = arp(everybody, local_mac, 1, mac_of("tap-arp"), us, everybody, peer);
	for (int i = 0; i < 2; ++i) {
		auto seen = port.read(5000);
		ASSERT_TRUE(seen) << "request " << i << ": " << arping.output();
		EXPECT_EQ(*seen, request) << "request " << i;
	}
	EXPECT_EQ(arping.wait(), 1) << arping.output();
	EXPECT_FALSE(port.read_now());
	EXPECT_FALSE(other.read_now());
}

TEST_F(Arping, it_receives_no_answer_because_it_never_chooses_a_location)
{
	TapPort port("tap-arp");
	Socket watcher = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	Process arping({ "arping", "-I", "tap-arp", "-c", "1", "-s", "10.9.9.1", "10.9.9.7" });
	ASSERT_TRUE(port.read(5000)) << arping.output();
	Bytes answer = arp(mac_of("tap-arp"), peer_mac, 2, peer_mac, peer, mac_of("tap-arp"), us);
	port.write(answer);

	auto seen = watcher.receive();
	ASSERT_TRUE(seen) << "the answer did not come in";
	EXPECT_EQ(seen->bytes, answer);
	EXPECT_EQ(arping.wait(), 1);
	EXPECT_NE(arping.output().find("Received 0 response"), std::string::npos)
		<< arping.output();
}

} // namespace
