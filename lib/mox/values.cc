/* SPDX-License-Identifier: MIT */
#include "mox/values.h"

#include "mox/error.h"
#include "mox/hex_digit.h"
#include "mox/names.h"

#include <cctype>
#include <charconv>

namespace mox {
namespace {

constexpr NamedValue kEtherTypes[] = {
	{ 0x0003, "any" },    { 0x0800, "ipv4" }, { 0x0800, "ip" },      { 0x0806, "arp" },
	{ 0x8035, "rarp" },   { 0x8100, "vlan" }, { 0x86dd, "ipv6" },    { 0x86dd, "ip6" },
	{ 0x8809, "slow" },   { 0x8847, "mpls" }, { 0x8863, "pppoed" },  { 0x8864, "pppoe" },
	{ 0x888e, "eapol" },  { 0x88a8, "qinq" }, { 0x88c7, "preauth" }, { 0x88cc, "lldp" },
	{ 0x88e5, "macsec" }, { 0x88f7, "ptp" },  { 0x8902, "cfm" },     { 0x9000, "loopback" },
};

constexpr NamedValue kIpProtocols[] = {
	{ 1, "icmp" },   { 2, "igmp" },   { 4, "ipip" },  { 6, "tcp" },   { 17, "udp" },
	{ 41, "ip6ip" }, { 47, "gre" },   { 50, "esp" },  { 51, "ah" },   { 58, "icmpv6" },
	{ 58, "icmp6" }, { 88, "eigrp" }, { 89, "ospf" }, { 103, "pim" }, { 112, "vrrp" },
	{ 115, "l2tp" }, { 132, "sctp" },
};

constexpr NamedValue kPorts[] = {
	{ 22, "ssh" },      { 23, "telnet" },        { 53, "dns" },      { 67, "dhcps" },
	{ 67, "bootps" },   { 68, "dhcpc" },         { 68, "bootpc" },   { 69, "tftp" },
	{ 80, "http" },     { 123, "ntp" },          { 161, "snmp" },    { 162, "snmptrap" },
	{ 443, "https" },   { 514, "syslog" },       { 546, "dhcp6c" },  { 547, "dhcp6s" },
	{ 1812, "radius" }, { 1813, "radius-acct" }, { 5246, "capwap" }, { 5247, "capwap-data" },
	{ 5353, "mdns" },
};

constexpr NamedValue kIcmpv6Types[] = {
	{ 1, "unreachable" }, { 2, "too-big" },        { 3, "time-exceeded" },
	{ 4, "parameter" },   { 128, "echo-request" }, { 129, "echo-reply" },
	{ 130, "mld-query" }, { 131, "mld-report" },   { 132, "mld-done" },
	{ 133, "rs" },        { 134, "ra" },           { 135, "ns" },
	{ 136, "na" },        { 137, "redirect" },     { 143, "mld2-report" },
};

constexpr NamedValue kEapolTypes[] = {
	{ 0, "eap" }, { 1, "start" },     { 2, "logoff" },
	{ 3, "key" }, { 4, "asf-alert" }, { 5, "mka" },
};

constexpr NamedValue kArpOperations[] = {
	{ 1, "request" },
	{ 2, "reply" },
	{ 3, "rarp-request" },
	{ 4, "rarp-reply" },
};

std::string listed(std::span<const NamedValue> names)
{
	std::string text;
	for (const NamedValue &each : names)
		text += (text.empty() ? "" : ", ") + std::string(each.name);
	return text;
}

[[noreturn]] void refuse(std::string_view what, std::string_view text, const std::string &allowed)
{
	throw UsageError(std::string(what) + " \"" + std::string(text) +
			 "\" is not valid; allowed: " + allowed);
}

std::string shown(std::uint32_t value, int base)
{
	char digits[16];
	auto end = std::to_chars(digits, digits + sizeof(digits), value, base).ptr;
	return (base == 16 ? "0x" : "") + std::string(digits, end);
}

} // namespace

std::span<const NamedValue> ether_type_names()
{
	return kEtherTypes;
}
std::span<const NamedValue> ip_protocol_names()
{
	return kIpProtocols;
}
std::span<const NamedValue> port_names()
{
	return kPorts;
}
std::span<const NamedValue> icmpv6_type_names()
{
	return kIcmpv6Types;
}
std::span<const NamedValue> eapol_type_names()
{
	return kEapolTypes;
}
std::span<const NamedValue> arp_operation_names()
{
	return kArpOperations;
}

std::string_view value_name(std::span<const NamedValue> names, std::uint32_t value)
{
	for (const NamedValue &each : names)
		if (each.value == value)
			return each.name;
	return {};
}

std::uint32_t parse_number(std::string_view what, std::string_view text, std::uint32_t low,
			   std::uint32_t high, std::span<const NamedValue> names, int base)
{
	for (const NamedValue &each : names)
		if (same_name(each.name, text))
			return each.value;

	std::string_view digits = text;
	int digit_base = base;
	if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
		digits.remove_prefix(2);
		digit_base = 16;
	}
	std::uint32_t value = 0;
	auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value,
					    digit_base);
	if (error == std::errc() && end == digits.data() + digits.size() && value >= low &&
	    value <= high)
		return value;

	std::string allowed = shown(low, base) + " to " + shown(high, base);
	if (!names.empty())
		allowed += ", or one of " + listed(names);
	refuse(what, text, allowed);
}

MacAddress parse_mac(std::string_view text)
{
	if (same_name(text, "broadcast"))
		return { 0xff, 0xff, 0xff, 0xff, 0xff, 0xff };

	MacAddress mac{};
	bool valid = text.size() == 17;
	for (std::size_t i = 0; valid && i < mac.size(); ++i) {
		int high = hex_digit(text[3 * i]);
		int low = hex_digit(text[3 * i + 1]);
		bool separated = i + 1 == mac.size() || text[3 * i + 2] == ':' ||
				 text[3 * i + 2] == '-';
		valid = high >= 0 && low >= 0 && separated;
		if (valid)
			mac[i] = static_cast<std::uint8_t>(high << 4 | low);
	}
	if (!valid)
		refuse("MAC address", text,
		       "six hexadecimal pairs such as 01:80:c2:00:00:0e, or broadcast");
	return mac;
}

std::uint16_t parse_ether_type(std::string_view text)
{
	return static_cast<std::uint16_t>(
		parse_number("EtherType", text, 0, 0xffff, kEtherTypes, 16));
}

std::uint32_t parse_interface(std::string_view text, const InterfaceLookup &lookup)
{
	// An index is tried first: Linux allows an interface to be called "7", but its index works for that one, too.
	bool digits = !text.empty();
	for (char c : text)
		digits = digits && std::isdigit(static_cast<unsigned char>(c));
	if (digits)
		return parse_number("interface index", text, 1, 0x7fffffff);

	std::uint32_t index = text.empty() ? 0 : lookup(std::string(text));
	if (index == 0)
		refuse("interface", text,
		       "the name of an interface that exists (see \"ip link\"), or an index from 1 up");
	return index;
}

} // namespace mox
