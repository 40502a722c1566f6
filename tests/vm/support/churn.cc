// SPDX-License-Identifier: GPL-2.0-only
#include "support/churn.h"

#include <arpa/inet.h>

namespace vm {

using namespace frames;
using lab::Frame;
using lab::Hook;

const std::vector<HookTraffic> &hook_traffic()
{
	static const std::vector<HookTraffic> all = [] {
		Frame resv = plain(0x88cc);
		resv.dst_ifx = lab::kLev2Resv;
		return std::vector<HookTraffic>{
			{ Hook::Lev2, arp(1) },
			{ Hook::Lev2, plain(0x88b5) },
			{ Hook::Ipv4, ipv4(17, udp(68, 67)) },
			{ Hook::Ipv6, ipv6(0, extension(17, 0, udp(546, 547))) },
			{ Hook::Local, plain(0x0800) },
			{ Hook::Resv, resv },
			{ Hook::WlanIn, wlan80211(true) },
			{ Hook::WlanOut, eapol(0) },
		};
	}();
	return all;
}

namespace {

Rule random_rule(std::minstd_rand &random)
{
	switch (random() % 8) {
	case 0:
		return all();
	case 1:
		return be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x88b5 });
	case 2:
		return ethertype(3);
	case 3:
		return be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 67, uint16_t(random() % 4) });
	case 4:
		return u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA, lab::kPortB });
	case 5:
		return u32s(PACKET_PID_T, { uint32_t(random() % 3) });
	case 6:
		return flag(PACKET_WLAN_MGNT);
	default:
		return rule(PACKET_PACKET_CODE_EQUAL, { Bytes{ 0, uint8_t(random() % 2) } });
	}
}

} // namespace

void live_a_sockets_life(std::minstd_rand &random)
{
	const uint32_t locations[] = { 0, 1, 2, 3, 4, 7, 8, 9, 10, 11 };
	Socket socket(random() % 3 ? SOCK_RAW : SOCK_DGRAM, random() % 4 ? 0 : htons(0x0806));
	ASSERT_EQ(socket.error(), 0);
	int little = 4096;
	if (random() % 4 == 0)
		::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
	for (int steps = int(random() % 24); steps >= 0; --steps)
		switch (random() % 9) {
		case 0:
			socket.add(random_rule(random));
			break;
		case 1:
			socket.add(random_rule(random));
			break;
		case 2:
			socket.del(random_rule(random));
			break;
		case 3:
			socket.treatment(uint32_t(random() % 6));
			break;
		case 4:
		case 5:
			socket.location(locations[random() % 10]);
			break;
		case 6:
			socket.bind(random() % 2 ? lab::kPortA : 0,
				    random() % 2 ? htons(0x88b5) : 0);
			break;
		case 7:
			socket.ctrl(random() % 2);
			break;
		default:
			socket.stats();
			for (int reads = 0; reads < 8 && socket.receive(0); ++reads) {}
		}
}

} // namespace vm
