/* SPDX-License-Identifier: GPL-2.0-only */
#include "decode.h"

#include "frames.h"

#include <gtest/gtest.h>

#define ETH(type) "020000000201 020000000101 " type " "
#define IP4(protocol) "45000054 00010000 40 " protocol " 0000 0a000001 0a000002 "
#define IP6(next)             \
	"60000000 0040 " next \
	" 40 fe800000000000000000000000000001 fe800000000000000000000000000002 "

using moxcap::Layout;

std::vector<std::uint8_t> dhcp_frame(std::string_view options)
{
	auto frame = from_hex(
		ETH("0800") "45000148 00000000 40 11 0000 00000000 ffffffff 0044 0043 0134 0000");
	std::size_t message = frame.size();
	frame.resize(message + 236);
	frame[message] = 1;
	auto client = from_hex("020000000101");
	std::copy(client.begin(), client.end(),
		  frame.begin() + static_cast<std::ptrdiff_t>(message + 28));
	for (std::uint8_t each : from_hex(options))
		frame.push_back(each);
	return frame;
}

const std::vector<SampleFrame> sample_frames = {
	{ "ARP request", Layout::kEthernet, 0,
	  ETH("0806") "0001 0800 06 04 0001 020000000101 0a000001 000000000000 0a000002",
	  "ARP who-has 10.0.0.2 tell 10.0.0.1" },
	{ "ARP reply", Layout::kEthernet, 0,
	  ETH("0806") "0001 0800 06 04 0002 020000000201 0a000002 020000000101 0a000001",
	  "ARP 10.0.0.2 is-at 02:00:00:00:02:01" },
	{ "ARP announcement", Layout::kEthernet, 0,
	  ETH("0806") "0001 0800 06 04 0001 020000000101 0a000001 000000000000 0a000001",
	  "ARP announces 10.0.0.1" },
	{ "ARP other operation", Layout::kEthernet, 0,
	  ETH("0806") "0001 0800 06 04 0009 020000000101 0a000001 000000000000 0a000002",
	  "ARP operation 9" },
	{ "ARP other hardware", Layout::kEthernet, 0,
	  ETH("0806") "0006 0800 06 04 0001 020000000101", "ARP operation 1 for hardware 6" },
	{ "ICMP echo request", Layout::kEthernet, 0, ETH("0800") IP4("01") "08 00 0000 0102 0003",
	  "ICMP 10.0.0.1 > 10.0.0.2 echo request id 258 seq 3" },
	{ "ICMP echo reply behind options", Layout::kEthernet, 0,
	  ETH("0800") "46000054 00010000 4001 0000 0a000001 0a000002 94040000 00 00 0000 0102 0003",
	  "ICMP 10.0.0.1 > 10.0.0.2 echo reply id 258 seq 3" },
	{ "ICMP unreachable", Layout::kEthernet, 0, ETH("0800") IP4("01") "03 01 0000 0000 0000",
	  "ICMP 10.0.0.1 > 10.0.0.2 unreachable" },
	{ "UDP", Layout::kEthernet, 0, ETH("0800") IP4("11") "270f 2710 0010 0000 61",
	  "IPv4 UDP 10.0.0.1.9999 > 10.0.0.2.10000" },
	{ "TCP", Layout::kEthernet, 0,
	  ETH("0800") IP4("06") "0050 c000 00000000 00000000 50 12 0000",
	  "IPv4 TCP 10.0.0.1.80 > 10.0.0.2.49152 flags SA" },
	{ "TCP without flags", Layout::kEthernet, 0,
	  ETH("0800") IP4("06") "0050 c000 00000000 00000000 50 00 0000",
	  "IPv4 TCP 10.0.0.1.80 > 10.0.0.2.49152 flags none" },
	{ "IPv4 fragment", Layout::kEthernet, 0,
	  ETH("0800") "45000054 00010003 40 11 0000 0a000001 0a000002 270f2710",
	  "IPv4 10.0.0.1 > 10.0.0.2 fragment at 24" },
	{ "OSPF", Layout::kEthernet, 0, ETH("0800") IP4("59") "00",
	  "IPv4 10.0.0.1 > 10.0.0.2 ospf" },
	{ "unknown IP protocol", Layout::kEthernet, 0, ETH("0800") IP4("fd") "00",
	  "IPv4 10.0.0.1 > 10.0.0.2 protocol 253" },
	{ "ICMPv6 echo request", Layout::kEthernet, 0, ETH("86dd") IP6("3a") "80 00 0000 0001 0002",
	  "ICMPv6 fe80::1 > fe80::2 echo request id 1 seq 2" },
	{ "neighbour solicitation", Layout::kEthernet, 0,
	  ETH("86dd") IP6("3a") "87 00 0000 00000000 fe800000000000000000000000000003",
	  "ICMPv6 fe80::1 > fe80::2 neighbour solicitation for fe80::3" },
	{ "listener report behind hop-by-hop", Layout::kEthernet, 0,
	  ETH("86dd") IP6("00") "3a 00 050200000100 8f 00 0000 0000 0001",
	  "ICMPv6 fe80::1 > fe80::2 listener report v2" },
	{ "IPv6 UDP", Layout::kEthernet, 0, ETH("86dd") IP6("11") "14e9 14e9 0010 0000",
	  "IPv6 UDP fe80::1.5353 > fe80::2.5353" },
	{ "IPv6 first fragment", Layout::kEthernet, 0,
	  ETH("86dd") IP6("2c") "11 00 0001 00000001 14e9 14e9 0010 0000",
	  "IPv6 UDP fe80::1.5353 > fe80::2.5353" },
	{ "IPv6 later fragment", Layout::kEthernet, 0,
	  ETH("86dd") IP6("2c") "11 00 0580 00000001 14e914e9",
	  "IPv6 fe80::1 > fe80::2 fragment at 1408" },
	{ "IPv6 authentication header", Layout::kEthernet, 0,
	  ETH("86dd") IP6(
		  "33") "11 04 0000 0000000000000000 000000000000000000000000 0035 0036 0010 0000",
	  "IPv6 UDP fe80::1.53 > fe80::2.54" },
	{ "IPv6 without payload", Layout::kEthernet, 0, ETH("86dd") IP6("3b"),
	  "IPv6 fe80::1 > fe80::2 no payload" },
	{ "LLDP", Layout::kEthernet, 0,
	  "0180c200000e 020000000101 88cc 0207 04 020000000101 0405 05 65746830 0602 0078 0a03 737731 0000",
	  "LLDP chassis 02:00:00:00:01:01 port eth0 system sw1" },
	{ "LLDP with a port address and a terminal's escape", Layout::kEthernet, 0,
	  "0180c200000e 020000000101 88cc 0203 07 6131 0407 03 020000000109 0a04 1b5b324a 0000",
	  "LLDP chassis a1 port 02:00:00:00:01:09 system .[2J" },
	{ "LLDP chassis without a subtype", Layout::kEthernet, 0,
	  "0180c200000e 020000000101 88cc 0200 0000", "LLDP (cut short)" },
	{ "EAPOL start", Layout::kEthernet, 0, "0180c2000003 020000000101 888e 02 01 0000",
	  "EAPOL start" },
	{ "EAPOL key", Layout::kEthernet, 0, "020000000201 020000000101 888e 02 03 005f 02",
	  "EAPOL key" },
	{ "EAP identity", Layout::kEthernet, 0,
	  "020000000201 020000000101 888e 02 00 0009 02 01 0009 01 61626364",
	  "EAPOL eap response identity" },
	{ "EAP success", Layout::kEthernet, 0,
	  "020000000201 020000000101 888e 02 00 0004 03 01 0004", "EAPOL eap success" },
	{ "EAPOL unknown type", Layout::kEthernet, 0, "020000000201 020000000101 888e 02 c8 0000",
	  "EAPOL type 200" },
	{ "one VLAN tag", Layout::kEthernet, 0,
	  ETH("8100") "600a 0806 0001 0800 06 04 0001 020000000101 0a000001 000000000000 0a000002",
	  "tag 10 ARP who-has 10.0.0.2 tell 10.0.0.1" },
	{ "two VLAN tags", Layout::kEthernet, 0, ETH("88a8") "0064 8100 0fff 888e 02 02 0000",
	  "tag 100 tag 4095 EAPOL logoff" },
	{ "spanning tree", Layout::kEthernet, 0, "0180c2000000 020000000101 0026 42 42 03 0000",
	  "STP" },
	{ "SNAP", Layout::kEthernet, 0, ETH("0020") "aa aa 03 000000 0806 0006 0800 06 04 0001",
	  "SNAP ARP operation 1 for hardware 6" },
	{ "LLC", Layout::kEthernet, 0, ETH("0020") "fe fe 03", "LLC 0xfe > 0xfe" },
	{ "MPLS", Layout::kEthernet, 0, ETH("8847") "00", "MPLS" },
	{ "unknown EtherType", Layout::kEthernet, 0, ETH("1234") "00", "EtherType 0x1234" },
	{ "no payload", Layout::kEthernet, 0, ETH("0806"), "ARP (cut short)" },
	{ "an IPv4 packet alone", Layout::kNetwork, 0x0800, IP4("01") "08 00 0000 0001 0001",
	  "ICMP 10.0.0.1 > 10.0.0.2 echo request id 1 seq 1" },
	{ "an ARP packet alone", Layout::kNetwork, 0x0806,
	  "0001 0800 06 04 0001 020000000101 0a000001 000000000000 0a000002",
	  "ARP who-has 10.0.0.2 tell 10.0.0.1" },
	{ "an IPv6 packet of an unnamed EtherType", Layout::kNetwork, 0, IP6("3b"),
	  "IPv6 fe80::1 > fe80::2 no payload" },
	{ "neither IPv4 nor IPv6", Layout::kNetwork, 0, "ff00", "EtherType 0x0000" },
	{ "802.11 beacon", Layout::kWlan, 0,
	  "8000 0000 ffffffffffff 020000000101 020000000101 0000", "802.11 beacon" },
	{ "802.11 action", Layout::kWlan, 0,
	  "d000 0000 ffffffffffff 020000000101 020000000101 0000", "802.11 action" },
	{ "802.11 data", Layout::kWlan, 0, "8800 0000 020000000201 020000000101 020000000101 0000",
	  "802.11 data subtype 8" },
	{ "802.11 acknowledgement", Layout::kWlan, 0, "d400 0000 020000000201",
	  "802.11 control subtype 13" },
};

namespace {

TEST(decode, sample_frames)
{
	for (const SampleFrame &sample : sample_frames) {
		auto bytes = from_hex(sample.hex);
		EXPECT_EQ(moxcap::describe(bytes, sample.layout, sample.ether_type).protocol,
			  sample.protocol)
			<< sample.name;
	}
}

TEST(decode, addresses)
{
	auto ethernet = moxcap::describe(from_hex(ETH("0806")), Layout::kEthernet);
	EXPECT_EQ(moxcap::shown(*ethernet.destination), "02:00:00:00:02:01");
	EXPECT_EQ(moxcap::shown(*ethernet.source), "02:00:00:00:01:01");

	auto packet = moxcap::describe(from_hex(IP4("01")), Layout::kNetwork, 0x0800);
	EXPECT_FALSE(packet.destination);
	EXPECT_FALSE(packet.source);

	auto beacon = moxcap::describe(from_hex("80000000 ffffffffffff 020000000101"),
				       Layout::kWlan);
	EXPECT_EQ(moxcap::shown(*beacon.destination), "ff:ff:ff:ff:ff:ff");
	EXPECT_EQ(moxcap::shown(*beacon.source), "02:00:00:00:01:01");

	auto acknowledgement = moxcap::describe(from_hex("d4000000 020000000201 020000000101"),
						Layout::kWlan);
	EXPECT_FALSE(acknowledgement.source);
}

TEST(decode, dhcp)
{
	struct {
		const char *options;
		const char *said;
	} const cases[] = {
		{ "63825363 350101 ff", "discover for 02:00:00:00:01:01" },
		{ "63825363 00 00 0c0161 350103 ff", "request for 02:00:00:00:01:01" },
		{ "63825363 350163 ff", "type 99 for 02:00:00:00:01:01" },
		{ "63825363 ff", "BOOTP for 02:00:00:00:01:01" },
		{ "00000000", "BOOTP for 02:00:00:00:01:01" },
		{ "", "(cut short)" },
		{ "63825363 0c0161", "(cut short)" },
	};
	for (const auto &each : cases)
		EXPECT_EQ(moxcap::describe(dhcp_frame(each.options), Layout::kEthernet).protocol,
			  std::string("IPv4 DHCP 0.0.0.0.68 > 255.255.255.255.67 ") + each.said)
			<< each.options;
}

TEST(decode, dhcp__tells_the_address_that_is_given)
{
	auto frame = dhcp_frame("63825363 350102 ff");
	auto yours = from_hex("0a000064");
	std::copy(yours.begin(), yours.end(), frame.begin() + 42 + 16);
	EXPECT_EQ(
		moxcap::describe(frame, Layout::kEthernet).protocol,
		"IPv4 DHCP 0.0.0.0.68 > 255.255.255.255.67 offer for 02:00:00:00:01:01 address 10.0.0.100");
}

} // namespace
