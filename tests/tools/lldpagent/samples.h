/* SPDX-License-Identifier: GPL-2.0-only */
/* An LLDPDU with every TLV that the agent writes, and its bytes, written out by hand. */
#ifndef LLDP_SAMPLES_H
#define LLDP_SAMPLES_H

#include "lldpdu.h"

#include <string>
#include <string_view>

/** Bytes of a text in hexadecimal; blanks are left out. */
inline lldp::Bytes from_hex(std::string_view text)
{
	lldp::Bytes bytes;
	std::string digits;
	for (char c : text)
		if (c != ' ') {
			digits += c;
			if (digits.size() == 2) {
				bytes.push_back(
					static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16)));
				digits.clear();
			}
		}
	return bytes;
}

inline const lldp::Mac sample_mac = { 0x02, 0x00, 0x00, 0x00, 0x03, 0x01 };

inline lldp::Lldpdu sample_pdu()
{
	lldp::Lldpdu pdu;
	pdu.chassis = { lldp::chassis_mac, { 0x02, 0x00, 0x00, 0x00, 0x03, 0x01 } };
	pdu.port = { lldp::port_interface_name, { 'e', 't', 'h', '0' } };
	pdu.ttl = 121;
	pdu.port_description = "uplink";
	pdu.system_name = "switch";
	pdu.system_description = "a switch";
	pdu.capabilities = lldp::Capabilities{ lldp::capability_bridge | lldp::capability_router,
					       lldp::capability_bridge };
	pdu.management.push_back({ lldp::family_ipv4, { 10, 0, 0, 9 }, 2, 7 });
	pdu.management.push_back({ lldp::family_ipv6,
				   { 0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 },
				   2,
				   0x01020304 });
	return pdu;
}

// One TLV a line: 7 bits of type, 9 bits of length, value.
constexpr std::string_view sample_mandatory = "0207 04 020000000301"
					      "0405 05 65746830"
					      "0602 0079";
constexpr std::string_view sample_optional =
	"0806 75706c696e6b"
	"0a06 737769746368"
	"0c08 6120737769746368"
	"0e04 0014 0004"
	"100c 05 01 0a000009 02 00000007 00"
	"1018 11 02 fd000000000000000000000000000001 02 01020304 00";
constexpr std::string_view sample_end = "0000";

inline std::string sample_hex()
{
	return std::string(sample_mandatory) + std::string(sample_optional) +
	       std::string(sample_end);
}

#endif
