/* SPDX-License-Identifier: MIT */
#include "mox/rule.h"

#include "mox/error.h"
#include "mox/names.h"
#include "mox_packet_tables.h"

#include <algorithm>
#include <cstring>

namespace mox {
namespace {

constexpr std::uint16_t width_of(std::uint16_t type)
{
	switch (type) {
#define WIDTH(number, width, ...) \
	case number:              \
		return width;
		MOX_PACKET_RULE_TYPE_TABLE(WIDTH)
#undef WIDTH
	}
	return 0;
}

// A row's full name is its enumerator's.
#define ROW(number, ...)                                       \
	{                                                      \
		number, #number, width_of(number), __VA_ARGS__ \
	}

constexpr RuleType kTable[] = {
	ROW(PACKET_PACKET_CODE_EQUAL, "code", ValueKind::kCode,
	    "packet code of the platform, with sub-code after a dot: code=7.1"),
	ROW(PACKET_DEST_MAC_EQUAL, "dmac", ValueKind::kMac,
	    "destination MAC address: dmac=01:80:c2:00:00:0e"),
	ROW(PACKET_SRC_MAC_EQUAL, "smac", ValueKind::kMac, "source MAC address"),
	ROW(PACKET_ETH_PROT_EQUAL, "eth", ValueKind::kEtherType,
	    "EtherType in hexadecimal or by name: eth=arp,88cc; eth=any"),
	ROW(PACKET_SNAP_ETH_TYPE_EQUAL, "snap", ValueKind::kEtherType,
	    "EtherType of an LLC/SNAP frame"),
	ROW(PACKET_IPv4_PROT_EQUAL, "ipproto ipproto4", ValueKind::kIpProtocol,
	    "protocol of an IPv4 packet: ipproto=icmp,udp,89"),
	ROW(PACKET_IPv6_PROT_EQUAL, "ipproto6", ValueKind::kIpProtocol,
	    "final next header of an IPv6 packet: ipproto6=icmpv6"),
	ROW(PACKET_IPv4_DEST_PORT_EQUAL, "dport dport4", ValueKind::kPort,
	    "TCP or UDP destination port, IPv4: dport=67,68"),
	ROW(PACKET_IPv4_SRC_PORT_EQUAL, "sport sport4", ValueKind::kPort,
	    "TCP or UDP source port, IPv4"),
	ROW(PACKET_IPv6_DEST_PORT_EQUAL, "dport6", ValueKind::kPort,
	    "TCP or UDP destination port, IPv6"),
	ROW(PACKET_SRC_INTF_EQUAL, "intf", ValueKind::kInterfaceIndex,
	    "interface the frame came in on, by name or index"),
	ROW(PACKET_ICMPV6_TYPE_EQUAL, "icmp6 icmpv6", ValueKind::kIcmpv6Type,
	    "ICMPv6 type: icmp6=echo-request,ns,136"),
	ROW(PACKET_IPv4_MCAST_TRAFFIC, "mcast mcast4", ValueKind::kNone,
	    "IPv4 multicast but 224.0.0.x and IGMP"),
	ROW(PACKET_IPv6_MCAST_TRAFFIC, "mcast6", ValueKind::kNone,
	    "IPv6 multicast of scope 3 and up but MLD"),
	ROW(PACKET_EAPOL_TYPE_EQUAL, "eapol", ValueKind::kEapolType,
	    "EAPOL packet type: eapol=start,key"),
	ROW(PACKET_EAPOL_TYPE_WPS, "wps", ValueKind::kFiller,
	    "Wi-Fi Simple Config exchange (location wlan)"),
	ROW(PACKET_ALL, "all", ValueKind::kAll, "every frame of the location"),
	ROW(PACKET_PID_T, "not-attr pid", ValueKind::kAttribute,
	    "not the frames with this attribute word; not-attr=any: none with an attribute"),
	ROW(PACKET_WLAN_MGNT, "wlan-mgnt mgnt", ValueKind::kNone,
	    "802.11 management frames (location wlan)"),
	ROW(PACKET_ARP_TYPE, "arp", ValueKind::kArpOperation, "ARP operation: arp=request,reply"),
};
#undef ROW
static_assert(std::size(kTable) == MOX_PACKET_RULE_TYPES);

constexpr std::size_t kMostValues = 0xffff; // the record's count is 16 bits wide

using Bytes = std::vector<std::uint8_t>;

Bytes code_bytes(std::string_view text)
{
	std::size_t dot = text.find('.');
	std::string_view sub = dot == std::string_view::npos ? "0" : text.substr(dot + 1);
	return { static_cast<std::uint8_t>(
			 parse_number("packet code", text.substr(0, dot), 0, 255)),
		 static_cast<std::uint8_t>(parse_number("packet sub-code", sub, 0, 255)) };
}

bool is_number(ValueKind kind)
{
	return kind != ValueKind::kCode && kind != ValueKind::kMac && kind != ValueKind::kNone &&
	       kind != ValueKind::kAll;
}

/** The element of a number: in host order for the platform's numbers, in network order for those of packets. */
Bytes number_bytes(const RuleType &type, std::uint32_t number)
{
	if (!is_number(type.kind))
		throw UsageError("rule type " + std::string(type.alias()) +
				 " has no values that are numbers");
	if (type.width < sizeof(number) && number >> (8 * type.width) != 0)
		throw UsageError("rule type " + std::string(type.alias()) + " has values of " +
				 std::to_string(type.width) + " bytes: " + std::to_string(number) +
				 " does not fit");
	Bytes bytes(type.width);
	if (type.kind == ValueKind::kInterfaceIndex || type.kind == ValueKind::kAttribute) {
		std::memcpy(bytes.data(), &number, sizeof(number));
	} else {
		for (std::size_t i = bytes.size(); i-- > 0; number >>= 8)
			bytes[i] = static_cast<std::uint8_t>(number);
	}
	return bytes;
}

std::uint32_t number_of(const RuleType &type, std::string_view text, const InterfaceLookup &lookup)
{
	static constexpr NamedValue kAnyAttribute[] = { { 0xffffffff, "any" } };

	switch (type.kind) {
	case ValueKind::kEtherType:
		return parse_ether_type(text);
	case ValueKind::kPort:
		// The module takes port 0 for "no port", so a rule with it would never match.
		return parse_number("port", text, 1, 0xffff, port_names());
	case ValueKind::kIpProtocol:
		return parse_number("IP protocol", text, 0, 255, ip_protocol_names());
	case ValueKind::kInterfaceIndex:
		return parse_interface(text, lookup);
	case ValueKind::kIcmpv6Type:
		// As with ports, type 0 stands for "no ICMPv6 header".
		return parse_number("ICMPv6 type", text, 1, 255, icmpv6_type_names());
	case ValueKind::kEapolType:
		return parse_number("EAPOL type", text, 0, 255, eapol_type_names());
	case ValueKind::kFiller:
		return parse_number("filler", text, 0, 255);
	case ValueKind::kAttribute:
		return parse_number("attribute word", text, 0, 0xffffffff, kAnyAttribute);
	case ValueKind::kArpOperation:
		return parse_number("ARP operation", text, 1, 0xffff, arp_operation_names());
	default:
		break;
	}
	throw UsageError("rule type " + std::string(type.alias()) +
			 " takes no value, but was given \"" + std::string(text) +
			 "\"; write --rule " + std::string(type.alias()));
}

Bytes element_of(const RuleType &type, std::string_view text, const InterfaceLookup &lookup)
{
	if (type.kind == ValueKind::kCode)
		return code_bytes(text);
	if (type.kind == ValueKind::kMac) {
		MacAddress mac = parse_mac(text);
		return Bytes(mac.begin(), mac.end());
	}
	return number_bytes(type, number_of(type, text, lookup));
}

} // namespace

std::span<const RuleType> rule_types()
{
	return kTable;
}

const RuleType &find_rule_type(std::string_view text)
{
	for (const RuleType &row : kTable)
		if (same_name(without_prefix(row.full), without_prefix(text)) ||
		    in_word_list(row.aliases, text))
			return row;

	std::string message = "rule type \"" + std::string(text) + "\" is unknown; allowed:";
	for (const RuleType &row : kTable)
		message += "\n  " + std::string(row.alias()) + " (" + std::string(row.full) +
			   "): " + std::string(row.meaning);
	throw UsageError(message);
}

Rule::Rule(std::uint32_t type)
{
	if (type >= std::size(kTable))
		throw UsageError("rule type " + std::to_string(type) +
				 " is unknown; allowed: 0 to " +
				 std::to_string(std::size(kTable) - 1));
	type_ = &kTable[type];
}

Rule Rule::parse(std::string_view text, const InterfaceLookup &lookup)
{
	std::size_t equals = text.find('=');
	Rule rule(find_rule_type(text.substr(0, equals)).value);
	const RuleType &type = rule.type();

	if (equals == std::string_view::npos) {
		if (type.kind == ValueKind::kNone)
			rule.add_element({});
		else if (type.kind == ValueKind::kFiller)
			rule.add_value("0", lookup);
		else if (type.kind != ValueKind::kAll)
			throw UsageError("rule type " + std::string(type.alias()) +
					 " needs a value, as in " + std::string(type.alias()) +
					 "=VALUE[,VALUE...]: " + std::string(type.meaning));
		return rule;
	}

	std::string_view values = text.substr(equals + 1);
	for (;;) {
		std::size_t comma = values.find(',');
		rule.add_value(values.substr(0, comma), lookup);
		if (comma == std::string_view::npos)
			return rule;
		values.remove_prefix(comma + 1);
	}
}

void Rule::add_value(std::string_view text, const InterfaceLookup &lookup)
{
	add_element(element_of(*type_, text, lookup));
}

void Rule::add_number(std::uint32_t number)
{
	add_element(number_bytes(*type_, number));
}

void Rule::add_element(std::span<const std::uint8_t> element)
{
	std::string name(type_->alias());
	if (type_->kind == ValueKind::kAll)
		throw UsageError("rule type " + name + " has no elements");
	if (element.size() != type_->width)
		throw UsageError("rule type " + name + " has elements of " +
				 std::to_string(type_->width) + " bytes, but was given " +
				 std::to_string(element.size()));
	if (count_ == kMostValues)
		throw UsageError("rule type " + name + " has more than " +
				 std::to_string(kMostValues) +
				 " values in one record; spread them over several");
	elements_.insert(elements_.end(), element.begin(), element.end());
	++count_;
}

std::vector<std::uint8_t> Rule::record() const
{
	auto count = static_cast<std::uint16_t>(count_);
	std::vector<std::uint8_t> record(MOX_PACKET_RULE_LENGTH(type_->width, count));
	record.resize(mox_packet_build_rule(record.data(), record.size(), type_->value,
					    elements_.data(), type_->width, count));
	return record;
}

std::vector<Rule> in_filing_order(std::vector<Rule> rules, bool protocol_given)
{
	auto is_arp = [](const Rule &rule) { return rule.type().value == PACKET_ARP_TYPE; };
	auto is_exclusion = [](const Rule &rule) { return rule.type().value == PACKET_PID_T; };
	auto is_key = [&](const Rule &rule) { return !is_arp(rule) && !is_exclusion(rule); };

	std::stable_partition(rules.begin(), rules.end(),
			      [&](const Rule &rule) { return !is_arp(rule); });
	if (protocol_given || std::any_of(rules.begin(), rules.end(), is_key))
		return rules;

	bool arp_only = std::any_of(rules.begin(), rules.end(), is_arp);
	Rule key(arp_only ? PACKET_ETH_PROT_EQUAL : PACKET_ALL);
	if (arp_only)
		key.add_value("arp", {});
	rules.insert(rules.begin(), key);
	return rules;
}

} // namespace mox
