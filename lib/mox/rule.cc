/* SPDX-License-Identifier: GPL-2.0 */
#include "mox/rule.h"

#include "mox/error.h"
#include "mox/names.h"

#include <algorithm>
#include <cstring>

namespace mox {
namespace {

constexpr RuleType table[] = {
    {PACKET_PACKET_CODE_EQUAL, "PACKET_PACKET_CODE_EQUAL", "code", ValueKind::code,
     "packet code of the platform, with sub-code after a dot: code=7.1"},
    {PACKET_DEST_MAC_EQUAL, "PACKET_DEST_MAC_EQUAL", "dmac", ValueKind::mac,
     "destination MAC address: dmac=01:80:c2:00:00:0e"},
    {PACKET_SRC_MAC_EQUAL, "PACKET_SRC_MAC_EQUAL", "smac", ValueKind::mac, "source MAC address"},
    {PACKET_ETH_PROT_EQUAL, "PACKET_ETH_PROT_EQUAL", "eth", ValueKind::ether_type,
     "EtherType in hexadecimal or by name: eth=arp,88cc; eth=any"},
    {PACKET_SNAP_ETH_TYPE_EQUAL, "PACKET_SNAP_ETH_TYPE_EQUAL", "snap", ValueKind::ether_type,
     "EtherType of an LLC/SNAP frame"},
    {PACKET_IPv4_PROT_EQUAL, "PACKET_IPv4_PROT_EQUAL", "ipproto ipproto4", ValueKind::ip_protocol,
     "protocol of an IPv4 packet: ipproto=icmp,udp,89"},
    {PACKET_IPv6_PROT_EQUAL, "PACKET_IPv6_PROT_EQUAL", "ipproto6", ValueKind::ip_protocol,
     "final next header of an IPv6 packet: ipproto6=icmpv6"},
    {PACKET_IPv4_DEST_PORT_EQUAL, "PACKET_IPv4_DEST_PORT_EQUAL", "dport dport4", ValueKind::port,
     "TCP or UDP destination port, IPv4: dport=67,68"},
    {PACKET_IPv4_SRC_PORT_EQUAL, "PACKET_IPv4_SRC_PORT_EQUAL", "sport sport4", ValueKind::port,
     "TCP or UDP source port, IPv4"},
    {PACKET_IPv6_DEST_PORT_EQUAL, "PACKET_IPv6_DEST_PORT_EQUAL", "dport6", ValueKind::port,
     "TCP or UDP destination port, IPv6"},
    {PACKET_SRC_INTF_EQUAL, "PACKET_SRC_INTF_EQUAL", "intf", ValueKind::interface_index,
     "interface the frame came in on, by name or index"},
    {PACKET_ICMPV6_TYPE_EQUAL, "PACKET_ICMPV6_TYPE_EQUAL", "icmp6 icmpv6", ValueKind::icmpv6_type,
     "ICMPv6 type: icmp6=echo-request,ns,136"},
    {PACKET_IPv4_MCAST_TRAFFIC, "PACKET_IPv4_MCAST_TRAFFIC", "mcast mcast4", ValueKind::none,
     "IPv4 multicast but 224.0.0.x and IGMP"},
    {PACKET_IPv6_MCAST_TRAFFIC, "PACKET_IPv6_MCAST_TRAFFIC", "mcast6", ValueKind::none,
     "IPv6 multicast of scope 3 and up but MLD"},
    {PACKET_EAPOL_TYPE_EQUAL, "PACKET_EAPOL_TYPE_EQUAL", "eapol", ValueKind::eapol_type,
     "EAPOL packet type: eapol=start,key"},
    {PACKET_EAPOL_TYPE_WPS, "PACKET_EAPOL_TYPE_WPS", "wps", ValueKind::filler,
     "Wi-Fi Simple Config exchange (location wlan)"},
    {PACKET_ALL, "PACKET_ALL", "all", ValueKind::all, "every frame of the location"},
    {PACKET_PID_T, "PACKET_PID_T", "not-attr pid", ValueKind::attribute,
     "not the frames with this attribute word; not-attr=any: none with an attribute"},
    {PACKET_WLAN_MGNT, "PACKET_WLAN_MGNT", "wlan-mgnt mgnt", ValueKind::none,
     "802.11 management frames (location wlan)"},
    {PACKET_ARP_TYPE, "PACKET_ARP_TYPE", "arp", ValueKind::arp_operation, "ARP operation: arp=request,reply"},
};
static_assert(std::size(table) == MOX_PACKET_RULE_TYPES);

constexpr std::size_t most_values = 0xffff; // the record's count is 16 bits wide

using Bytes = std::vector<std::uint8_t>;

Bytes network_u16(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Bytes one_byte(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value)};
}

Bytes host_u32(std::uint32_t value)
{
    Bytes bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

Bytes code_bytes(std::string_view text)
{
    std::size_t dot = text.find('.');
    std::string_view sub = dot == std::string_view::npos ? "0" : text.substr(dot + 1);
    return {static_cast<std::uint8_t>(parse_number("packet code", text.substr(0, dot), 0, 255)),
            static_cast<std::uint8_t>(parse_number("packet sub-code", sub, 0, 255))};
}

Bytes element_of(const RuleType& type, std::string_view text, const InterfaceLookup& lookup)
{
    static constexpr NamedValue any_attribute[] = {{0xffffffff, "any"}};

    switch (type.kind) {
    case ValueKind::code:
        return code_bytes(text);
    case ValueKind::mac: {
        MacAddress mac = parse_mac(text);
        return Bytes(mac.begin(), mac.end());
    }
    case ValueKind::ether_type:
        return network_u16(parse_ether_type(text));
    case ValueKind::port:
        // The module takes port 0 for "no port", so a rule with it would never match.
        return network_u16(parse_number("port", text, 1, 0xffff, port_names()));
    case ValueKind::ip_protocol:
        return one_byte(parse_number("IP protocol", text, 0, 255, ip_protocol_names()));
    case ValueKind::interface_index:
        return host_u32(parse_interface(text, lookup));
    case ValueKind::icmpv6_type:
        // As with ports, type 0 stands for "no ICMPv6 header".
        return one_byte(parse_number("ICMPv6 type", text, 1, 255, icmpv6_type_names()));
    case ValueKind::eapol_type:
        return one_byte(parse_number("EAPOL type", text, 0, 255, eapol_type_names()));
    case ValueKind::filler:
        return one_byte(parse_number("filler", text, 0, 255));
    case ValueKind::attribute:
        return host_u32(parse_number("attribute word", text, 0, 0xffffffff, any_attribute));
    case ValueKind::arp_operation:
        return network_u16(parse_number("ARP operation", text, 1, 0xffff, arp_operation_names()));
    case ValueKind::none:
    case ValueKind::all:
        break;
    }
    throw UsageError("rule type " + std::string(type.alias()) + " takes no value, but was given \"" +
                     std::string(text) + "\"; write --rule " + std::string(type.alias()));
}

} // namespace

std::span<const RuleType> rule_types()
{
    return table;
}

const RuleType& find_rule_type(std::string_view text)
{
    for (const RuleType& row : table)
        if (same_name(without_prefix(row.full), without_prefix(text)) || in_word_list(row.aliases, text))
            return row;

    std::string message = "rule type \"" + std::string(text) + "\" is unknown; allowed:";
    for (const RuleType& row : table)
        message += "\n  " + std::string(row.alias()) + " (" + std::string(row.full) + "): " +
                   std::string(row.meaning);
    throw UsageError(message);
}

std::size_t element_size(ValueKind kind)
{
    switch (kind) {
    case ValueKind::none:
    case ValueKind::all:
        return 0;
    case ValueKind::mac:
        return 6;
    case ValueKind::interface_index:
    case ValueKind::attribute:
        return 4;
    case ValueKind::code:
    case ValueKind::ether_type:
    case ValueKind::port:
    case ValueKind::arp_operation:
        return 2;
    case ValueKind::ip_protocol:
    case ValueKind::icmpv6_type:
    case ValueKind::eapol_type:
    case ValueKind::filler:
        return 1;
    }
    return 0;
}

Rule::Rule(std::uint32_t type)
{
    if (type >= std::size(table))
        throw UsageError("rule type " + std::to_string(type) + " is unknown; allowed: 0 to " +
                         std::to_string(std::size(table) - 1));
    type_ = &table[type];
}

Rule Rule::parse(std::string_view text, const InterfaceLookup& lookup)
{
    std::size_t equals = text.find('=');
    Rule rule(find_rule_type(text.substr(0, equals)).value);
    const RuleType& type = rule.type();

    if (equals == std::string_view::npos) {
        if (type.kind == ValueKind::none)
            rule.add_element({});
        else if (type.kind == ValueKind::filler)
            rule.add_value("0", lookup);
        else if (type.kind != ValueKind::all)
            throw UsageError("rule type " + std::string(type.alias()) + " needs a value, as in " +
                             std::string(type.alias()) + "=VALUE[,VALUE...]: " + std::string(type.meaning));
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

void Rule::add_value(std::string_view text, const InterfaceLookup& lookup)
{
    add_element(element_of(*type_, text, lookup));
}

void Rule::add_element(std::span<const std::uint8_t> element)
{
    std::string name(type_->alias());
    if (type_->kind == ValueKind::all)
        throw UsageError("rule type " + name + " has no elements");
    if (element.size() != element_size(type_->kind))
        throw UsageError("rule type " + name + " has elements of " + std::to_string(element_size(type_->kind)) +
                         " bytes, but was given " + std::to_string(element.size()));
    if (count_ == most_values)
        throw UsageError("rule type " + name + " has more than " + std::to_string(most_values) +
                         " values in one record; spread them over several");
    elements_.insert(elements_.end(), element.begin(), element.end());
    ++count_;
}

std::vector<std::uint8_t> Rule::record() const
{
    mox_packet_rule head{type_->value, static_cast<std::uint16_t>(element_size(type_->kind)),
                         static_cast<std::uint16_t>(count_)};
    static_assert(sizeof(head) == 6);

    std::vector<std::uint8_t> record(sizeof(head) + elements_.size());
    std::memcpy(record.data(), &head, sizeof(head));
    std::copy(elements_.begin(), elements_.end(), record.begin() + sizeof(head));
    return record;
}

std::vector<Rule> in_filing_order(std::vector<Rule> rules, bool protocol_given)
{
    auto is_arp = [](const Rule& rule) { return rule.type().value == PACKET_ARP_TYPE; };
    auto is_exclusion = [](const Rule& rule) { return rule.type().value == PACKET_PID_T; };
    auto is_key = [&](const Rule& rule) { return !is_arp(rule) && !is_exclusion(rule); };

    std::stable_partition(rules.begin(), rules.end(), [&](const Rule& rule) { return !is_arp(rule); });
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
