/* SPDX-License-Identifier: GPL-2.0-only */
#include "lldpdu.h"

#include <algorithm>
#include <stdexcept>

namespace lldp {
namespace {

constexpr std::size_t kLongestId = 255, kLongestText = 255, kLongestAddress = 31, kLongestOid = 128;
constexpr std::size_t kEthernetHeader = 14, kShortestFrame = 60;

void append_u16(Bytes &out, std::uint16_t value)
{
	out.push_back(static_cast<std::uint8_t>(value >> 8));
	out.push_back(static_cast<std::uint8_t>(value));
}

std::uint16_t u16_at(View bytes, std::size_t at)
{
	return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

void append_id(Bytes &out, std::uint8_t type, const Id &id)
{
	if (id.value.empty() || id.value.size() > kLongestId)
		throw std::length_error("an id has 1 to 255 bytes");
	Bytes value{ id.subtype };
	value.insert(value.end(), id.value.begin(), id.value.end());
	append_tlv(out, type, value);
}

void append_text(Bytes &out, std::uint8_t type, const std::optional<std::string> &text)
{
	if (!text)
		return;
	auto first = reinterpret_cast<const std::uint8_t *>(text->data());
	append_tlv(out, type, View(first, std::min(text->size(), kLongestText)));
}

void append_address(Bytes &out, const ManagementAddress &address)
{
	if (address.address.empty() || address.address.size() > kLongestAddress)
		throw std::length_error("a management address has 1 to 31 bytes");
	Bytes value{ static_cast<std::uint8_t>(1 + address.address.size()), address.family };
	value.insert(value.end(), address.address.begin(), address.address.end());
	value.push_back(address.numbering);
	append_u16(value, static_cast<std::uint16_t>(address.interface >> 16));
	append_u16(value, static_cast<std::uint16_t>(address.interface));
	value.push_back(0); // no object identifier
	append_tlv(out, tlv_management_address, value);
}

// --- reading: each takes a TLV's value and returns whether it is well-formed -----------------------------------------

bool read_id(View value, Id &id)
{
	if (value.size() < 2 || value.size() > 1 + kLongestId)
		return false;
	id = { value[0], Bytes(value.begin() + 1, value.end()) };
	return true;
}

bool read_text(View value, std::optional<std::string> &text)
{
	if (text || value.size() > kLongestText)
		return false;
	text.emplace(value.begin(), value.end());
	return true;
}

bool read_capabilities(View value, std::optional<Capabilities> &capabilities)
{
	if (capabilities || value.size() != 4)
		return false;
	capabilities = Capabilities{ u16_at(value, 0), u16_at(value, 2) };
	return true;
}

/** Length, family, address; numbering, interface number; length of an object identifier, identifier. */
bool read_address(View value, std::vector<ManagementAddress> &addresses)
{
	if (value.empty())
		return false;
	std::size_t length = value[0]; // counts the family byte, too
	constexpr std::size_t behind = 1 + 4 + 1;
	if (length < 2 || length > 1 + kLongestAddress || value.size() < 1 + length + behind)
		return false;
	View tail = value.subspan(1 + length);
	std::size_t oid = tail[behind - 1];
	if (oid > kLongestOid || tail.size() != behind + oid)
		return false;

	ManagementAddress address;
	address.family = value[1];
	address.address.assign(value.begin() + 2,
			       value.begin() + 1 + static_cast<std::ptrdiff_t>(length));
	address.numbering = tail[0];
	address.interface = static_cast<std::uint32_t>(u16_at(tail, 1)) << 16 | u16_at(tail, 3);
	// Several addresses are common; a repeated one is discarded.
	if (std::find(addresses.begin(), addresses.end(), address) != addresses.end())
		return false;
	addresses.push_back(std::move(address));
	return true;
}

void read_optional(const Tlv &tlv, Decoded &result)
{
	constexpr std::size_t organisation_header = 4; // identifier and subtype
	Lldpdu &pdu = *result.pdu;
	bool good = true;

	switch (tlv.type) {
	case tlv_port_description:
		good = read_text(tlv.value, pdu.port_description);
		break;
	case tlv_system_name:
		good = read_text(tlv.value, pdu.system_name);
		break;
	case tlv_system_description:
		good = read_text(tlv.value, pdu.system_description);
		break;
	case tlv_system_capabilities:
		good = read_capabilities(tlv.value, pdu.capabilities);
		break;
	case tlv_management_address:
		good = read_address(tlv.value, pdu.management);
		break;
	case tlv_organisation:
		good = tlv.value.size() >= organisation_header;
		result.tlvs_unrecognised += good;
		break;
	default:
		++result.tlvs_unrecognised;
	}
	result.tlvs_discarded += !good;
}

Decoded refused(const char *why)
{
	Decoded result;
	result.error = why;
	return result;
}

} // namespace

Bytes encode(const Lldpdu &pdu)
{
	Bytes out;
	append_id(out, tlv_chassis_id, pdu.chassis);
	append_id(out, tlv_port_id, pdu.port);
	append_tlv(out, tlv_ttl,
		   Bytes{ static_cast<std::uint8_t>(pdu.ttl >> 8),
			  static_cast<std::uint8_t>(pdu.ttl) });
	append_text(out, tlv_port_description, pdu.port_description);
	append_text(out, tlv_system_name, pdu.system_name);
	append_text(out, tlv_system_description, pdu.system_description);
	if (pdu.capabilities) {
		Bytes value;
		append_u16(value, pdu.capabilities->available);
		append_u16(value, pdu.capabilities->enabled);
		append_tlv(out, tlv_system_capabilities, value);
	}
	for (const ManagementAddress &each : pdu.management)
		append_address(out, each);
	append_tlv(out, tlv_end, {});
	return out;
}

Lldpdu shutdown_of(const Lldpdu &pdu)
{
	Lldpdu last;
	last.chassis = pdu.chassis;
	last.port = pdu.port;
	return last;
}

Decoded decode(View bytes)
{
	TlvReader reader(bytes);
	Tlv tlv;
	Decoded result;
	Lldpdu &pdu = result.pdu.emplace();

	using Step = TlvReader::Step;
	if (reader.next(tlv) != Step::kTlv || tlv.type != tlv_chassis_id ||
	    !read_id(tlv.value, pdu.chassis))
		return refused("does not begin with a chassis id");
	if (reader.next(tlv) != Step::kTlv || tlv.type != tlv_port_id ||
	    !read_id(tlv.value, pdu.port))
		return refused("has no port id in the second place");
	// A longer TTL is one of a later version; its first two bytes are the number all the same.
	if (reader.next(tlv) != Step::kTlv || tlv.type != tlv_ttl || tlv.value.size() < 2)
		return refused("has no TTL in the third place");
	pdu.ttl = u16_at(tlv.value, 0);

	for (;;) {
		switch (reader.next(tlv)) {
		case Step::kEnd:
			return result;
		case Step::kBroken:
			return refused("has a TLV that does not fit");
		case Step::kTlv:
			if (tlv.type <= tlv_ttl)
				return refused("has a mandatory TLV twice");
			read_optional(tlv, result);
		}
	}
}

Bytes frame_of(const Mac &source, View lldpdu)
{
	Bytes frame;
	frame.reserve(std::max(kEthernetHeader + lldpdu.size(), kShortestFrame));
	frame.insert(frame.end(), kNearestBridge.begin(), kNearestBridge.end());
	frame.insert(frame.end(), source.begin(), source.end());
	append_u16(frame, kEtherType);
	frame.insert(frame.end(), lldpdu.begin(), lldpdu.end());
	if (frame.size() < kShortestFrame)
		frame.resize(kShortestFrame);
	return frame;
}

std::optional<View> lldpdu_of(View frame)
{
	if (frame.size() < kEthernetHeader ||
	    !std::equal(kNearestBridge.begin(), kNearestBridge.end(), frame.begin()) ||
	    u16_at(frame, 12) != kEtherType)
		return std::nullopt;
	return frame.subspan(kEthernetHeader);
}

} // namespace lldp
