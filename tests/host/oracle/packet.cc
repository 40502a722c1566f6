// SPDX-License-Identifier: GPL-2.0-only
#include "packet.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace oracle {
namespace {

uint16_t u16(const uint8_t *p)
{
	uint16_t v;
	std::memcpy(&v, p, 2);
	return v;
}

uint32_t u32(const uint8_t *p)
{
	uint32_t v;
	std::memcpy(&v, p, 4);
	return v;
}

uint16_t be16(const uint8_t *p)
{
	return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// What a reader of a frame sees of it from an offset in the efbuff on: 64 bytes or, of a longer
// frame, everything. Behind the end of a frame of fewer than 64 bytes there are zeroes.
std::vector<uint8_t> view(const uint8_t *efbuff, uint32_t from)
{
	const uint32_t mac = u16(efbuff + 22), total = u32(efbuff + 164);
	if (total >= 64)
		return { efbuff + from, efbuff + std::max(from + 24, mac + total) };
	std::vector<uint8_t> bytes(128);
	for (uint32_t i = 0; i < bytes.size() && from + i < mac + total; i++)
		bytes[i] = efbuff[from + i];
	return bytes;
}

void parse_v4(Packet &out, const uint8_t *ip, int64_t total, int64_t l2)
{
	out.v4 = true;
	out.ip_proto = ip[9];
	std::memcpy(out.v4_dst.data(), ip + 16, 4);
	if (out.ip_proto != 6 && out.ip_proto != 17)
		return;
	int64_t header = (ip[0] & 0x0f) * 4;
	// Eight bytes for TCP as well as for UDP: a short TCP segment still shows its ports.
	if (total > l2 + 8 + header) {
		out.src_port_net = u16(ip + header);
		out.dst_port_net = u16(ip + header + 2);
	}
}

void parse_v6(Packet &out, const uint8_t *ip, int64_t length)
{
	if (length < 40 || length < 40 + be16(ip + 4))
		return;
	out.v6 = true;
	out.v6_dst_set = true;
	std::memcpy(out.v6_dst.data(), ip + 24, 16);
	uint8_t next = ip[6];
	int64_t at = 40;
	if (length == 40)
		return;
	while (next != 59) {
		if (next == 6 || next == 17) {
			out.ip_proto = next;
			if (length >= at + (next == 6 ? 20 : 8)) {
				out.src_port_net = u16(ip + at);
				out.dst_port_net = u16(ip + at + 2);
			}
			return;
		}
		if (next == 58 || next == 103) {
			out.ip_proto = next;
			if (next == 58 && length >= at + 4)
				out.icmp6 = ip[at];
			return;
		}
		bool options = next == 0 || next == 43 || next == 60;
		if (!options && next != 51 && next != 44)
			return;
		// Every extension header is at least 8 bytes and must be followed by
		// something, so a shorter rest ends the walk whatever it holds.
		if (length <= at + 8)
			return;
		int64_t header = at;
		if (options)
			at += (ip[header + 1] + 1) * 8;
		else if (next == 51)
			at += (ip[header + 1] + 2) * 4;
		else
			at += 8;
		if (length <= at)
			return;
		if (next == 44 && (be16(ip + header + 2) & ~7) != 0)
			return;
		next = ip[header];
	}
}

} // namespace

Packet parse(const uint8_t *efbuff, uint32_t ifindex)
{
	Packet out;
	uint8_t kind = efbuff[40];
	int64_t l2 = u16(efbuff + 20);
	int64_t total = u32(efbuff + 164);
	const std::vector<uint8_t> head = view(efbuff, u16(efbuff + 22));
	const std::vector<uint8_t> network = view(efbuff, u16(efbuff + 24));
	const uint8_t *mac = head.data(), *net = network.data();

	if ((kind == 1 || kind == 27) && l2 == 0) {
		out.no_l2 = true;
	} else {
		std::memcpy(out.dst_mac.data(), mac, 6);
		std::memcpy(out.src_mac.data(), mac + 6, 6);
		out.eth_net = u16(mac + 12);
		if (be16(mac + 12) == 0x888e) {
			out.eapol = true;
			out.eapol_type = mac[15];
		}
		if (mac[14] == 0xaa && mac[15] == 0xaa) {
			out.snap = true;
			out.snap_net = u16(mac + 20);
		}
		if (be16(mac + 12) == 0x0806)
			out.arp_net = u16(mac + 20);
	}
	out.vlan = u32(efbuff + 16) & 0xff0f0000u;
	out.ifindex = ifindex;
	out.attr = u32(efbuff + 96);
	out.code = efbuff[184];
	out.sub_code = efbuff[185];
	out.dst_block = u32(efbuff + 8);
	if (kind == 1)
		parse_v4(out, net, total, l2);
	else if (kind == 27)
		parse_v6(out, net, total - l2);
	return out;
}

WlanPacket parse_wlan(const uint8_t *efbuff, uint32_t ifindex)
{
	WlanPacket out;
	uint32_t wlan = u32(efbuff + 56);
	uint8_t kind = efbuff[40];
	const std::vector<uint8_t> head = view(efbuff, u16(efbuff + 22));
	const uint8_t *mac = head.data();

	out.ifindex = ifindex;
	out.attr = u32(efbuff + 96);
	if (wlan & 0x40000) {
		out.dot11 = true;
		out.mgnt = (wlan & 0x8000) != 0;
		return out;
	}
	if ((kind == 1 || kind == 27) && u16(efbuff + 20) == 0) {
		out.no_l2 = true;
		return out;
	}
	out.eth_net = u16(mac + 12);
	if (be16(mac + 12) != 0x888e)
		return out;
	out.eapol = true;
	out.eapol_type = mac[15];
	const std::string enrollee = "WFA-SimpleConfig-Enrollee-1-0";
	if (std::string(reinterpret_cast<const char *>(mac) + 23, enrollee.size()) == enrollee)
		out.wsc = true;
	// The expanded EAP type with the exchange's vendor type.
	if (mac[22] == 0xfe && mac[29] == 1)
		out.wsc = true;
	return out;
}

} // namespace oracle
