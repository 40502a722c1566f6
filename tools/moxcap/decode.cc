/* SPDX-License-Identifier: GPL-2.0-only */
#include "decode.h"

#include "decode_ip.h"
#include "mox/vlan.h"
#include "reader.h"

#include <cstdio>

namespace moxcap {
namespace {

constexpr std::uint16_t kFirstEtherType = 0x600; // below, the field is the length of an 802.3 frame

struct EtherDecoder {
	std::uint16_t ether_type;
	const char *name;
	void (*decode)(const Reader &payload, std::string &text);
};

void decode_arp(const Reader &arp, std::string &text)
{
	std::uint16_t operation = arp.u16(6);
	if (arp.u16(0) != 1 || arp.u16(2) != 0x0800) {
		text += " operation " + std::to_string(operation) + " for hardware " +
			std::to_string(arp.u16(0));
		return;
	}
	std::string sender = shown_ipv4(arp.some(14, 4));
	std::string target = shown_ipv4(arp.some(24, 4));
	if (operation == 1 && sender == target)
		text += " announces " + sender;
	else if (operation == 1)
		text += " who-has " + target + " tell " + sender;
	else if (operation == 2)
		text += " " + sender + " is-at " + shown(arp.mac(8));
	else
		text += " operation " + std::to_string(operation);
}

// TLVs: 7 bits of type, 9 bits of length. Chassis and port identifiers begin with a subtype byte.
void decode_lldp(const Reader &lldp, std::string &text)
{
	constexpr std::uint8_t chassis = 1, port = 2, system_name = 5;
	constexpr std::uint8_t mac_subtype_of_chassis = 4, mac_subtype_of_port = 3;

	for (std::size_t at = 0; at < lldp.size();) {
		std::uint16_t head = lldp.u16(at);
		std::uint8_t type = head >> 9;
		std::size_t length = head & 0x1ff;
		if (type == 0)
			return;
		Reader value(lldp.some(at + 2, length));
		at += 2 + length;

		if (type == system_name) {
			text += " system " + printable(value.some(0, length));
		} else if (type == chassis || type == port) {
			bool is_mac = value.u8(0) == (type == chassis ? mac_subtype_of_chassis
								      : mac_subtype_of_port);
			text += type == chassis ? " chassis " : " port ";
			text += is_mac ? shown(value.mac(1))
				       : printable(value.from(1).some(0, length - 1));
		}
	}
}

void decode_eapol(const Reader &eapol, std::string &text)
{
	static constexpr mox::NamedValue kEapCodes[] = {
		{ 1, "request" }, { 2, "response" }, { 3, "success" },
		{ 4, "failure" }, { 5, "initiate" }, { 6, "finish" },
	};
	static constexpr mox::NamedValue kEapMethods[] = {
		{ 1, "identity" }, { 2, "notification" }, { 3, "nak" },   { 4, "md5" },
		{ 13, "tls" },     { 21, "ttls" },        { 25, "peap" }, { 254, "expanded" },
	};
	constexpr std::uint8_t eap_packet = 0;

	std::uint8_t type = eapol.u8(1);
	text += " " + name_or_number(mox::eapol_type_names(), "type", type);
	if (type != eap_packet)
		return;
	std::uint8_t code = eapol.u8(4);
	text += " " + name_or_number(kEapCodes, "code", code);
	if (code == 1 || code == 2)
		text += " " + name_or_number(kEapMethods, "method", eapol.u8(8));
}

void decode_nothing(const Reader &, std::string &) {}

constexpr EtherDecoder kEtherDecoders[] = {
	{ 0x0800, "IPv4", decode_ipv4 },
	{ 0x86dd, "IPv6", decode_ipv6 },
	{ 0x0806, "ARP", decode_arp },
	{ 0x88cc, "LLDP", decode_lldp },
	{ 0x888e, "EAPOL", decode_eapol },
	{ 0x88c7, "EAPOL preauth", decode_eapol },
	{ 0x8809, "slow protocols", decode_nothing },
	{ 0x8863, "PPPoE discovery", decode_nothing },
	{ 0x8864, "PPPoE", decode_nothing },
	{ 0x8847, "MPLS", decode_nothing },
	{ 0x8035, "RARP", decode_nothing },
	{ 0x88f7, "PTP", decode_nothing },
};

void decode_payload(std::uint16_t ether_type, const Reader &payload, std::string &text)
{
	for (const EtherDecoder &each : kEtherDecoders)
		if (each.ether_type == ether_type) {
			text += each.name;
			each.decode(payload, text);
			return;
		}
	char number[24];
	std::snprintf(number, sizeof(number), "EtherType 0x%04x", ether_type);
	text += number;
}

void decode_llc(const Reader &llc, std::string &text)
{
	constexpr std::uint8_t snap_sap = 0xaa, spanning_tree_sap = 0x42;

	if (llc.u8(0) == snap_sap && llc.u8(1) == snap_sap) {
		text += "SNAP ";
		decode_payload(llc.u16(6), llc.from(8), text);
	} else if (llc.u8(0) == spanning_tree_sap) {
		text += "STP";
	} else {
		char saps[24];
		std::snprintf(saps, sizeof(saps), "LLC 0x%02x > 0x%02x", llc.u8(1), llc.u8(0));
		text += saps;
	}
}

void decode_ethernet(const Reader &frame, Description &result)
{
	result.destination = frame.mac(0);
	result.source = frame.mac(6);

	std::size_t at = 12;
	std::uint16_t ether_type = frame.u16(at);
	while (mox::is_vlan_protocol(ether_type)) {
		result.protocol += "tag " + std::to_string(frame.u16(at + 2) & mox::kVlanIdMask) +
				   " ";
		at += 4;
		ether_type = frame.u16(at);
	}
	if (ether_type < kFirstEtherType)
		decode_llc(frame.from(at + 2), result.protocol);
	else
		decode_payload(ether_type, frame.from(at + 2), result.protocol);
}

void decode_network(const Reader &packet, std::uint16_t ether_type, Description &result)
{
	if (ether_type == 0) {
		std::uint8_t version = packet.u8(0) >> 4;
		ether_type = version == 4 ? 0x0800 : version == 6 ? 0x86dd : 0;
	}
	decode_payload(ether_type, packet, result.protocol);
}

void decode_wlan(const Reader &frame, Description &result)
{
	static constexpr mox::NamedValue kManagementFrames[] = {
		{ 0, "association request" },
		{ 1, "association response" },
		{ 2, "reassociation request" },
		{ 3, "reassociation response" },
		{ 4, "probe request" },
		{ 5, "probe response" },
		{ 8, "beacon" },
		{ 9, "atim" },
		{ 10, "disassociation" },
		{ 11, "authentication" },
		{ 12, "deauthentication" },
		{ 13, "action" },
	};
	std::uint8_t type = frame.u8(0) >> 2 & 3;
	std::uint8_t subtype = frame.u8(0) >> 4;
	result.protocol = "802.11 ";
	if (type == 0)
		result.protocol += name_or_number(kManagementFrames, "management subtype", subtype);
	else
		result.protocol += (type == 1   ? "control subtype "
				    : type == 2 ? "data subtype "
						: "extension subtype ") +
				   std::to_string(subtype);
	result.destination = frame.mac(4);
	if (type != 1)
		result.source = frame.mac(10);
}

} // namespace

Description describe(std::span<const std::uint8_t> bytes, Layout layout, std::uint16_t ether_type)
{
	Description result;
	try {
		Reader frame(bytes);
		switch (layout) {
		case Layout::kEthernet:
			decode_ethernet(frame, result);
			break;
		case Layout::kNetwork:
			decode_network(frame, ether_type, result);
			break;
		case Layout::kWlan:
			decode_wlan(frame, result);
			break;
		}
	} catch (const CutShort &) {
		if (!result.protocol.empty() && result.protocol.back() != ' ')
			result.protocol += ' ';
		result.protocol += "(cut short)";
	}
	return result;
}

std::string shown(const mox::MacAddress &mac)
{
	char text[18];
	std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
		      mac[3], mac[4], mac[5]);
	return text;
}

} // namespace moxcap
