// SPDX-License-Identifier: GPL-2.0-only
// A naive reading of an efbuff: what each rule type compares with.
#pragma once

#include <array>
#include <cstdint>

namespace oracle {

// u16 and u32 fields named "net" hold the frame's bytes as they lie in memory
// (loaded without a byte swap), because that is what rule values are compared with.
struct Packet {
	std::array<uint8_t, 6> src_mac{};
	std::array<uint8_t, 6> dst_mac{};
	uint16_t eth_net = 0;
	uint16_t snap_net = 0;
	bool eapol = false, snap = false, v4 = false, v6 = false, no_l2 = false;
	uint8_t eapol_type = 0;
	uint8_t ip_proto = 0;
	uint8_t icmp6 = 0;
	uint16_t dst_port_net = 0;
	uint16_t src_port_net = 0;
	uint8_t code = 0, sub_code = 0;
	uint32_t vlan = 0;
	uint32_t ifindex = 0;
	uint32_t attr = 0;
	uint16_t arp_net = 0;
	std::array<uint8_t, 4> v4_dst{};
	bool v6_dst_set = false;
	std::array<uint8_t, 16> v6_dst{};
	uint32_t dst_block = 0; // efbuff offset 8, as a number

	uint8_t flag_byte() const
	{
		return (eapol ? 0x02 : 0) | (snap ? 0x04 : 0) | (v4 ? 0x08 : 0) | (v6 ? 0x10 : 0) |
		       (no_l2 ? 0x20 : 0);
	}
};

struct WlanPacket {
	uint8_t eapol_type = 0;
	uint16_t eth_net = 0;
	uint32_t ifindex = 0;
	uint32_t attr = 0;
	bool eapol = false, no_l2 = false, dot11 = false, mgnt = false, wsc = false;

	uint32_t flag_word() const
	{
		return (eapol ? 0x02 : 0) | (no_l2 ? 0x20 : 0) | (dot11 ? 0x40 : 0) |
		       (mgnt ? 0x80 : 0) | (wsc ? 0x100 : 0);
	}
};

// efbuff: the whole buffer, header and frame. ifindex: the first word of the
// source interface block, which the caller passes.
Packet parse(const uint8_t *efbuff, uint32_t ifindex);
WlanPacket parse_wlan(const uint8_t *efbuff, uint32_t ifindex);

} // namespace oracle
