/* SPDX-License-Identifier: GPL-2.0-only */
#include "protocols.h"

#include "mox/error.h"

#include <optional>

namespace moxsend {
namespace {

constexpr std::uint16_t kArpType = 0x0806, kEapolType = 0x888e, kLldpType = 0x88cc;

void put_u8(Bytes &to, unsigned value)
{
	to.push_back(static_cast<std::uint8_t>(value));
}

void put_u16(Bytes &to, unsigned value)
{
	put_u8(to, value >> 8);
	put_u8(to, value);
}

template <typename Range> void put(Bytes &to, const Range &bytes)
{
	to.insert(to.end(), bytes.begin(), bytes.end());
}

Bytes begin_frame(const Addresses &addresses, std::uint16_t ether_type)
{
	Bytes frame;
	put(frame, addresses.to);
	put(frame, addresses.from);
	put_u16(frame, ether_type);
	return frame;
}

std::optional<mox::MacAddress> as_mac(const std::string &text)
{
	if (text == "broadcast") // parse_mac accepts the word, but it is no address of a chassis
		return std::nullopt;
	try {
		return mox::parse_mac(text);
	} catch (const mox::UsageError &) {
		return std::nullopt;
	}
}

} // namespace

Bytes arp_frame(const Addresses &addresses, const Arp &arp)
{
	Bytes frame = begin_frame(addresses, kArpType);
	put_u16(frame, 1);      // Ethernet
	put_u16(frame, 0x0800); // IPv4
	put_u8(frame, 6);
	put_u8(frame, 4);
	put_u16(frame, arp.operation);
	put(frame, arp.sender_mac);
	put(frame, arp.sender_ip);
	put(frame, arp.target_mac);
	put(frame, arp.target_ip);
	return frame;
}

// EAPOL ----------------------------------------------------------------------------------------------------------

namespace {

constexpr unsigned kEapolPacket = 0, kEapolStart = 1, kEapolLogoff = 2;
constexpr unsigned kEapRequest = 1, kEapResponse = 2, kEapSuccess = 3, kEapFailure = 4;
constexpr unsigned kEapIdentity = 1;

struct EapolRow {
	unsigned packet_type;
	unsigned code; // 0: no EAP packet
	bool typed;    // requests and responses say what about
};

// By EapolKind.
constexpr EapolRow kEapolRows[] = {
	{ kEapolStart, 0, false },
	{ kEapolLogoff, 0, false },
	{ kEapolPacket, kEapRequest, true },
	{ kEapolPacket, kEapResponse, true },
	{ kEapolPacket, kEapSuccess, false },
	{ kEapolPacket, kEapFailure, false },
};

constexpr mox::NamedValue kEapolKinds[] = {
	{ static_cast<std::uint32_t>(EapolKind::kStart), "start" },
	{ static_cast<std::uint32_t>(EapolKind::kLogoff), "logoff" },
	{ static_cast<std::uint32_t>(EapolKind::kRequestIdentity), "request-identity" },
	{ static_cast<std::uint32_t>(EapolKind::kIdentity), "identity" },
	{ static_cast<std::uint32_t>(EapolKind::kSuccess), "success" },
	{ static_cast<std::uint32_t>(EapolKind::kFailure), "failure" },
};
static_assert(std::size(kEapolKinds) == std::size(kEapolRows));

} // namespace

std::span<const mox::NamedValue> eapol_kind_names()
{
	return kEapolKinds;
}

Bytes eapol_frame(const Addresses &addresses, const Eapol &eapol)
{
	const EapolRow &row = kEapolRows[static_cast<std::size_t>(eapol.kind)];
	Bytes packet;
	if (row.code != 0) {
		// The length counts the packet's own head of 4 bytes.
		std::string_view text = eapol.kind == EapolKind::kIdentity
						? std::string_view(eapol.identity)
						: "";
		std::size_t length = 4 + (row.typed ? 1 + text.size() : 0);
		if (length > 0xffff)
			throw mox::UsageError(
				"an identity of " + std::to_string(text.size()) +
				" bytes does not fit into an EAP packet; allowed: up to 65530");
		put_u8(packet, row.code);
		put_u8(packet, eapol.id);
		put_u16(packet, static_cast<unsigned>(length));
		if (row.typed)
			put_u8(packet, kEapIdentity);
		put(packet, text);
	}
	Bytes frame = begin_frame(addresses, kEapolType);
	put_u8(frame, eapol.version);
	put_u8(frame, row.packet_type);
	put_u16(frame, static_cast<unsigned>(packet.size()));
	put(frame, packet);
	return frame;
}

// LLDP -----------------------------------------------------------------------------------------------------------

namespace {

enum Tlv : unsigned {
	end_of_lldpdu = 0,
	chassis_id = 1,
	port_id = 2,
	time_to_live = 3,
	port_description = 4,
	system_name = 5,
	system_description = 6,
	system_capabilities = 7,
	management_address = 8,
};
constexpr unsigned kChassisMac = 4, kChassisLocal = 7;
constexpr unsigned kPortMac = 3, kPortName = 5;
constexpr unsigned kAddressIpv4 = 1, kInterfaceUnknown = 1, kInterfaceIfindex = 2;
constexpr std::size_t kLongestText = 255;

constexpr mox::NamedValue kCapabilities[] = {
	{ 0x01, "other" },  { 0x02, "repeater" }, { 0x04, "bridge" }, { 0x08, "wlan-ap" },
	{ 0x10, "router" }, { 0x20, "phone" },    { 0x40, "docsis" }, { 0x80, "station" },
};

void put_tlv(Bytes &frame, Tlv type, const Bytes &value)
{
	put_u16(frame, type << 9 | static_cast<unsigned>(value.size()));
	put(frame, value);
}

void check_text(const char *what, const std::string &text)
{
	if (text.size() > kLongestText)
		throw mox::UsageError(std::string(what) + " of " + std::to_string(text.size()) +
				      " bytes is too long; allowed: up to " +
				      std::to_string(kLongestText));
}

void put_id(Bytes &frame, Tlv type, const char *what, const std::string &text, unsigned mac_subtype,
	    unsigned text_subtype)
{
	if (text.empty())
		throw mox::UsageError(std::string("the ") + what +
				      " is missing; allowed: a MAC address or a text");
	check_text(what, text);
	Bytes value;
	if (auto mac = as_mac(text)) {
		put_u8(value, mac_subtype);
		put(value, *mac);
	} else {
		put_u8(value, text_subtype);
		put(value, text);
	}
	put_tlv(frame, type, value);
}

void put_text(Bytes &frame, Tlv type, const char *what, const std::string &text)
{
	check_text(what, text);
	if (!text.empty())
		put_tlv(frame, type, Bytes(text.begin(), text.end()));
}

} // namespace

std::span<const mox::NamedValue> lldp_capability_names()
{
	return kCapabilities;
}

Bytes lldp_frame(const Addresses &addresses, const Lldp &lldp)
{
	Bytes frame = begin_frame(addresses, kLldpType);
	put_id(frame, chassis_id, "chassis id", lldp.chassis_id, kChassisMac, kChassisLocal);
	put_id(frame, port_id, "port id", lldp.port_id, kPortMac, kPortName);
	Bytes ttl;
	put_u16(ttl, lldp.ttl);
	put_tlv(frame, time_to_live, ttl);
	put_text(frame, port_description, "port description", lldp.port_description);
	put_text(frame, system_name, "system name", lldp.system_name);
	put_text(frame, system_description, "system description", lldp.system_description);
	if (lldp.capabilities != 0) {
		Bytes value;
		put_u16(value, lldp.capabilities);
		put_u16(value, lldp.capabilities);
		put_tlv(frame, system_capabilities, value);
	}
	if (lldp.management_ip) {
		Bytes value;
		put_u8(value,
		       1 + static_cast<unsigned>(lldp.management_ip->size())); // with the subtype
		put_u8(value, kAddressIpv4);
		put(value, *lldp.management_ip);
		put_u8(value, lldp.management_ifindex != 0 ? kInterfaceIfindex : kInterfaceUnknown);
		put_u16(value, lldp.management_ifindex >> 16);
		put_u16(value, lldp.management_ifindex);
		put_u8(value, 0); // no object identifier
		put_tlv(frame, management_address, value);
	}
	put_tlv(frame, end_of_lldpdu, {});
	return frame;
}

} // namespace moxsend
