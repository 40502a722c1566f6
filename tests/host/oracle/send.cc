// SPDX-License-Identifier: GPL-2.0-only
#include "send.h"

#include <cstdio>

namespace oracle {
namespace {

using Bytes = std::vector<uint8_t>;

uint32_t le(const Bytes &b, size_t at, int width)
{
	uint32_t v = 0;
	for (int i = width; i-- > 0;)
		v = v << 8 | b[at + i];
	return v;
}

void put_le(Bytes &b, size_t at, int width, uint32_t v)
{
	for (int i = 0; i < width; i++, v >>= 8)
		b[at + i] = uint8_t(v);
}

std::string num(uint32_t v)
{
	return std::to_string(v);
}

std::string hex(uint32_t v)
{
	char text[16];
	std::snprintf(text, sizeof text, "0x%x", v);
	return text;
}

// What a control record does to the header, with the lines that it prints.
void translate(const Bytes &record, Bytes &header, std::vector<std::string> &lines)
{
	// Twelve bits of id, high byte first.
	header[18] = record[19] & 0x0f;
	header[19] = record[18];
	header[16] = record[33] & 0x0f;
	header[17] = record[32];
	put_le(header, 64, 4, le(record, 8, 4));
	put_le(header, 68, 4, le(record, 4, 4));
	put_le(header, 76, 4, le(record, 12, 4));
	put_le(header, 172, 4, le(record, 28, 4));
	put_le(header, 188, 2, le(record, 38, 2));
	put_le(header, 146, 2, le(record, 40, 2));
	put_le(header, 148, 2, le(record, 42, 2));
	header[144] = record[44];

	const uint32_t flags = le(record, 24, 4);
	uint32_t flag_word = 0, send_word = 0;
	for (const contract::SendFlag &f : contract::kSendFlags) {
		if (!(flags & f.flag))
			continue;
		flag_word |= f.at32;
		send_word |= f.at60;
		if (f.line)
			lines.push_back(f.line);
	}
	if (flags & contract::kProxySend)
		header[72] = record[45];
	put_le(header, 32, 4, flag_word);
	put_le(header, 60, 4, send_word);
}

SendResult send_silently(const SendWorld &world, const SendSocket &socket,
			 const SendMessage &message)
{
	SendResult r;
	bool debug_send = false;
	const std::string who = "process " + socket.process + " send ";
	auto failure = [&](contract::Refusal refusal, const std::string &named = {}) {
		const int error = contract::kRefusalFacts[refusal].error;
		r.result = -error;
		r.counter = contract::kRefusalFacts[refusal].counter;
		r.lines.push_back(contract::refusal_line(refusal, named));
		if (debug_send)
			r.lines.push_back(who + "debug pkt fail: " + std::to_string(-error) + ".");
		return r;
	};

	if (world.vsd)
		return failure(contract::kVsd, num(world.vsd));
	r.lines.push_back(who + "pkt, len " + std::to_string(message.data.size()) + ".");
	if (message.control) {
		const Bytes &c = *message.control;
		if (c.size() < 48)
			return failure(contract::kControlLength, num(c.size()));
		debug_send = c[24] & contract::kDebugSend;
		r.lines.push_back(
			"ctrl pkt_ifx:" + num(le(c, 0, 4)) + ", pkt_origifx:" + num(le(c, 4, 4)) +
			", pkt_l2ifx:" + num(le(c, 8, 4)) + ", pkt_dst_l2ifx:" + num(le(c, 12, 4)));
		r.lines.push_back("ctrl eth_info.inner_vid:" + hex(le(c, 22, 2) / 16) +
				  ", ex_inner_vlan:" + hex(le(c, 34, 2)) + ".");
		r.lines.push_back("ctrl wlan_id:" + hex(le(c, 40, 2)) + ", ap_wlan_id:" +
				  hex(le(c, 42, 2)) + ", radio_id:" + hex(c[44]) + ".");
	}
	if (message.name) {
		const Bytes &n = *message.name;
		if (n.size() <= 19 || n.size() < 12u + n[11])
			return failure(contract::kNameLength, num(n.size()));
	}
	if (message.data.size() + (socket.datagram ? 14 : 0) > world.longest)
		return failure(contract::kNoEfbuff);
	if (socket.datagram) {
		if (!message.name || (*message.name)[11] < 6)
			return failure(contract::kNoDstMac);
		if (!world.local_mac)
			return failure(contract::kNoMacService);
		if (world.local_mac_result != 0)
			return failure(contract::kMacServiceFails);
		const Bytes &n = *message.name;
		r.frame.assign(n.begin() + 12, n.begin() + 18);
		r.frame.insert(r.frame.end(), world.local_mac->begin(), world.local_mac->end());
		const uint32_t of_name = le(n, 2, 2), type = of_name ? of_name : socket.protocol;
		r.frame.push_back(uint8_t(type));
		r.frame.push_back(uint8_t(type >> 8));
	}
	if (message.readable < message.data.size())
		return failure(contract::kDataFault);
	r.frame.insert(r.frame.end(), message.data.begin(), message.data.end());

	r.header.assign(256, 0);
	const uint32_t l2 = r.frame.size() < 14 ? 0 : 14;
	put_le(r.header, 20, 2, l2);
	put_le(r.header, 22, 2, world.room_at);
	put_le(r.header, 24, 2, world.room_at + l2);
	put_le(r.header, 164, 4, r.frame.size());

	const uint32_t dst = message.name ? le(*message.name, 4, 4) : socket.bound;
	std::string dst_name = "no dst";
	if (dst) {
		auto it = world.interfaces.find(dst);
		if (it == world.interfaces.end())
			return failure(contract::kNoDst, num(dst));
		if (!it->second.up)
			return failure(contract::kDstDown, it->second.name);
		put_le(r.header, 8, 4, it->second.word);
		dst_name = it->second.name;
	}
	if (message.control) {
		const uint32_t src = le(*message.control, 0, 4);
		if (src) {
			auto it = world.interfaces.find(src);
			if (it == world.interfaces.end())
				return failure(contract::kNoSrc, num(src));
			put_le(r.header, 4, 4, it->second.word);
			r.lines.push_back("send src intf: " + it->second.name +
					  ", dst intf: " + dst_name + ".");
		}
		translate(*message.control, r.header, r.lines);
	}

	r.left = true;
	const std::string what = who + (debug_send ? "debug pkt" : "pkt") + " <efbuff> in vsd 0";
	if (world.outcome == 1 || world.outcome > 7) {
		r.result = -contract::kRefusalFacts[contract::kDropped].error;
		r.counter = contract::kEfSendFails;
		r.lines.push_back(what + ", fail: " + (world.outcome == 1 ? "drop" : "(null)") +
				  ".");
	} else {
		r.result = int(message.data.size());
		r.lines.push_back(what + " success.");
	}
	return r;
}

} // namespace

SendResult send(const SendWorld &world, const SendSocket &socket, const SendMessage &message)
{
	SendResult r = send_silently(world, socket, message);
	for (std::string &line : r.lines)
		line = "MOX-PACKET-SEND: " + line + "\n";
	if (!world.debugging)
		r.lines.clear();
	return r;
}

} // namespace oracle
