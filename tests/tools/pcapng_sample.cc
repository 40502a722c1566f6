/* SPDX-License-Identifier: GPL-2.0-only */
#include "pcapng_sample.h"

#include "frames.h"

moxcap::CaptureDescription sample_description(std::uint32_t location)
{
	return { "a board", "Linux 4.19", "moxcap of mox_ef_socket",
		 location,  PACKET_TRAP,  "eth=arp and dmac=ff:ff:ff:ff:ff:ff" };
}

void write_sample(moxcap::PcapngFile &file)
{
	mox_packet_ctrl_info tagged{};
	tagged.pkt_ifx = 7;
	tagged.pkt_origifx = 7;
	tagged.vlan = 5 << 4 | 3;
	tagged.l2_len = 14;
	tagged.wlan_id = 3;
	tagged.radio_id = 1;
	tagged.flags = MOX_RECV_TRACE;
	std::vector<std::uint8_t> arp = from_hex(
		"ffffffffffff 020000000101 0806 0001 0800 06 04 "
		"0001 020000000101 0a000001 000000000000 0a000002");
	file.write({ { 1700000000, 123456789 }, { arp, 42, 0x0806, true, &tagged }, 7, "eth0", 0 });

	mox_packet_ctrl_info twice{};
	twice.l2_len = 14;
	twice.vlan = 100 << 4;
	twice.inner_vlan = 200;
	std::vector<std::uint8_t> cut(arp.begin(), arp.begin() + 29);
	file.write({ { 1700000001, 1 }, { cut, 42, 0x0806, true, &twice }, 9, "wlan 1", 2 });

	mox_packet_ctrl_info headless{};
	headless.flags = MOX_RECV_NO_L2;
	std::vector<std::uint8_t> ping = from_hex(
		"4500001c 00010000 4001 66df 0a000001 0a000002 0800 f7fc 0001 0002");
	file.write(
		{ { 1700000002, 999999999 }, { ping, 28, 0x0800, false, &headless }, 0, "if0", 0 });

	file.write({ { 1700000003, 0 }, { arp, 42, 0x0806, true, nullptr }, 7, "eth0", 0 });
	file.finish({ 1700000004, 500 }, 1);
}
