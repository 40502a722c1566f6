/* SPDX-License-Identifier: GPL-2.0-only */
#include "text.h"

#include <arpa/inet.h>

#include <cstdio>

namespace lldp {
namespace {

struct CapabilityName {
	std::uint16_t bit;
	std::string_view name;
};
constexpr CapabilityName kCapabilityTable[] = {
	{ capability_other, "other" },   { capability_repeater, "repeater" },
	{ capability_bridge, "bridge" }, { capability_wlan_ap, "wlan-ap" },
	{ capability_router, "router" }, { capability_telephone, "telephone" },
	{ capability_docsis, "docsis" }, { capability_station, "station" },
};

/** What an id's value is. */
enum class Kind { kBytes, kMac, kNetwork, kText };
struct IdSubtype {
	std::string_view name;
	Kind kind;
};
// By number, from 0. Subtypes behind the end are reserved.
constexpr IdSubtype kChassisSubtypes[] = {
	{ "reserved", Kind::kBytes }, { "component", Kind::kText }, { "ifalias", Kind::kText },
	{ "port", Kind::kText },      { "mac", Kind::kMac },        { "network", Kind::kNetwork },
	{ "ifname", Kind::kText },    { "local", Kind::kText },
};
constexpr IdSubtype kPortSubtypes[] = {
	{ "reserved", Kind::kBytes }, { "ifalias", Kind::kText },    { "component", Kind::kText },
	{ "mac", Kind::kMac },        { "network", Kind::kNetwork }, { "ifname", Kind::kText },
	{ "circuit", Kind::kBytes },  { "local", Kind::kText },
};
static_assert(std::size(kChassisSubtypes) == 8 && std::size(kPortSubtypes) == 8);

std::string id_text(const Id &id, const IdSubtype (&subtypes)[8])
{
	if (id.subtype >= std::size(subtypes))
		return "reserved" + std::to_string(id.subtype) + " " + hex(id.value);
	const IdSubtype &subtype = subtypes[id.subtype];
	std::string text = std::string(subtype.name) + " ";
	switch (subtype.kind) {
	case Kind::kText:
		return text + printable({ reinterpret_cast<const char *>(id.value.data()),
					  id.value.size() });
	case Kind::kNetwork: // family and address
		if (!id.value.empty())
			return text + address_text(id.value[0], View(id.value).subspan(1));
		break;
	case Kind::kMac:
	case Kind::kBytes:
		break;
	}
	return text + hex(id.value);
}

} // namespace

std::string printable(std::string_view text)
{
	std::string out;
	for (char c : text) {
		if (c >= ' ' && c <= '~' && c != '\\') {
			out += c;
			continue;
		}
		char escape[5];
		std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(c));
		out += escape;
	}
	return out;
}

std::string hex(View bytes)
{
	std::string out;
	for (std::uint8_t byte : bytes) {
		char digits[4];
		std::snprintf(digits, sizeof(digits), "%s%02x", out.empty() ? "" : ":", byte);
		out += digits;
	}
	return out;
}

std::string chassis_text(const Id &id)
{
	return id_text(id, kChassisSubtypes);
}

std::string port_text(const Id &id)
{
	return id_text(id, kPortSubtypes);
}

std::string address_text(std::uint8_t family, View address)
{
	char text[INET6_ADDRSTRLEN];
	if (family == family_ipv4 && address.size() == 4 &&
	    inet_ntop(AF_INET, address.data(), text, sizeof(text)))
		return text;
	if (family == family_ipv6 && address.size() == 16 &&
	    inet_ntop(AF_INET6, address.data(), text, sizeof(text)))
		return text;
	return hex(address);
}

std::string capabilities_text(const Capabilities &capabilities)
{
	std::string text;
	for (const CapabilityName &each : kCapabilityTable)
		if (capabilities.available & each.bit) {
			text += text.empty() ? "" : " ";
			text += each.name;
			text += capabilities.enabled & each.bit ? "(on)" : "(off)";
		}
	return text;
}

std::string capability_names(std::uint16_t bits)
{
	std::string text;
	for (const CapabilityName &each : kCapabilityTable)
		if (bits & each.bit) {
			text += text.empty() ? "" : ",";
			text += each.name;
		}
	return text;
}

std::uint16_t capability_of(std::string_view name)
{
	for (const CapabilityName &each : kCapabilityTable)
		if (each.name == name)
			return each.bit;
	return 0;
}

std::string all_capabilities()
{
	return capability_names(0xffff);
}

} // namespace lldp
