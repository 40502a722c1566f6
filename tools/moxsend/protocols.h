/* SPDX-License-Identifier: GPL-2.0-only */
/* The frames that moxsend can make itself, from the MAC header to the last byte of the protocol, not padded. */
#ifndef MOXSEND_PROTOCOLS_H
#define MOXSEND_PROTOCOLS_H

#include "mox/values.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace moxsend {

using Bytes = std::vector<std::uint8_t>;
using Ipv4Address = std::array<std::uint8_t, 4>; /**< as on the wire */

constexpr std::size_t kEthernetHeader = 14;
constexpr std::size_t kShortestFrame = 60; /**< of Ethernet, the checksum not counted */

constexpr mox::MacAddress kBroadcast = { 0xff, 0xff, 0xff, 0xff, 0xff, 0xff };
constexpr mox::MacAddress kLldpGroup = { 0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e };
constexpr mox::MacAddress kEapolGroup = { 0x01, 0x80, 0xc2, 0x00, 0x00, 0x03 };

/** The addresses of the MAC header. */
struct Addresses {
	mox::MacAddress to;
	mox::MacAddress from;
};

struct Arp {
	std::uint16_t operation = 1;
	mox::MacAddress sender_mac{};
	Ipv4Address sender_ip{};
	mox::MacAddress target_mac{};
	Ipv4Address target_ip{};
};
Bytes arp_frame(const Addresses &addresses, const Arp &arp);

/** What an EAPOL frame says: the packet type and, of EAP, the code. */
enum class EapolKind { kStart, kLogoff, kRequestIdentity, kIdentity, kSuccess, kFailure };
std::span<const mox::NamedValue> eapol_kind_names();

struct Eapol {
	EapolKind kind = EapolKind::kStart;
	std::uint8_t version = 2;
	std::uint8_t id = 1;  /**< of the EAP packet; start and logoff have none */
	std::string identity; /**< of an identity response */
};
/** Throws UsageError for an identity that does not fit into an EAP packet. */
Bytes eapol_frame(const Addresses &addresses, const Eapol &eapol);

/** The bits of LLDP's system capabilities by name. */
std::span<const mox::NamedValue> lldp_capability_names();

struct Lldp {
	std::string chassis_id; /**< a MAC address (subtype 4), or any text (7: locally assigned) */
	std::string port_id;    /**< a MAC address (subtype 3), or an interface name (5) */
	std::uint16_t ttl = 120;      /**< seconds; 0: the neighbours forget the port */
	std::string port_description; /**< this and what follows is left out while empty */
	std::string system_name;
	std::string system_description;
	std::uint16_t capabilities = 0; /**< the same for "has" and "enabled" */
	std::optional<Ipv4Address> management_ip;
	std::uint32_t management_ifindex = 0; /**< 0: left out */
};
/** Throws UsageError for ids that are missing and for texts of more than 255 bytes. */
Bytes lldp_frame(const Addresses &addresses, const Lldp &lldp);

} // namespace moxsend

#endif
