/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * An LLDPDU (IEEE 802.1AB): what a station announces of itself, and the Ethernet frame around it.
 */
#ifndef LLDPAGENT_LLDPDU_H
#define LLDPAGENT_LLDPDU_H

#include "tlv.h"

#include <array>
#include <compare>
#include <optional>
#include <string>

namespace lldp {

using Mac = std::array<std::uint8_t, 6>;

/** The group address of LLDP between neighbours: no bridge forwards it. */
constexpr Mac kNearestBridge = { 0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e };
constexpr std::uint16_t kEtherType = 0x88cc;

/** Chassis and port id: a value and its subtype. The subtypes of the two differ in their numbers. */
struct Id {
	std::uint8_t subtype = 0;
	Bytes value; /**< 1 to 255 bytes */
	auto operator<=>(const Id &) const = default;
};
enum ChassisIdSubtype : std::uint8_t {
	chassis_mac = 4,
	chassis_network = 5,
	chassis_interface_name = 6,
	chassis_local = 7
};
enum PortIdSubtype : std::uint8_t {
	port_mac = 3,
	port_network = 4,
	port_interface_name = 5,
	port_local = 7
};

enum Capability : std::uint16_t {
	capability_other = 0x01,
	capability_repeater = 0x02,
	capability_bridge = 0x04,
	capability_wlan_ap = 0x08,
	capability_router = 0x10,
	capability_telephone = 0x20,
	capability_docsis = 0x40,
	capability_station = 0x80,
};
struct Capabilities {
	std::uint16_t available = 0;
	std::uint16_t enabled = 0;
	bool operator==(const Capabilities &) const = default;
};

/** Address families as IANA numbers them. */
enum AddressFamily : std::uint8_t { family_ipv4 = 1, family_ipv6 = 2, family_mac = 6 };
struct ManagementAddress {
	std::uint8_t family = 0;
	Bytes address; /**< 1 to 31 bytes */
	std::uint8_t numbering =
		2; /**< what interface counts: 1 unknown, 2 ifIndex, 3 system port */
	std::uint32_t interface = 0;
	bool operator==(const ManagementAddress &) const = default;
};

struct Lldpdu {
	Id chassis;
	Id port;
	std::uint16_t ttl = 0; /**< seconds; 0: the sender shuts down */
	std::optional<std::string> port_description;
	std::optional<std::string> system_name;
	std::optional<std::string> system_description;
	std::optional<Capabilities> capabilities;
	std::vector<ManagementAddress> management;
	bool operator==(const Lldpdu &) const = default;
};

/**
 * The LLDPDU's bytes, End TLV included. Texts above 255 bytes are cut. Throws std::length_error for an id or an
 * address whose length no LLDPDU can hold.
 */
Bytes encode(const Lldpdu &pdu);

/** The LLDPDU of a sender that shuts down: its ids and TTL 0, nothing else. */
Lldpdu shutdown_of(const Lldpdu &pdu);

struct Decoded {
	std::optional<Lldpdu> pdu;   /**< nothing: the LLDPDU is to be discarded */
	const char *error = nullptr; /**< then why */
	unsigned tlvs_discarded =
		0; /**< optional TLVs that were malformed or there for a second time */
	unsigned tlvs_unrecognised = 0; /**< optional TLVs of unknown types */
};

/**
 * Reads an LLDPDU. Chassis id, port id and TTL must come first, in this order, once each, and the TLVs must fit into
 * the bytes; else the whole LLDPDU is refused. Of the optional TLVs only the malformed ones are dropped.
 */
Decoded decode(View bytes);

/** The Ethernet frame, padded to 60 bytes. */
Bytes frame_of(const Mac &source, View lldpdu);
/** The LLDPDU within a frame; nothing when the frame is no LLDP frame to the nearest bridge. */
std::optional<View> lldpdu_of(View frame);

} // namespace lldp

#endif
