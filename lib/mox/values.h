/* SPDX-License-Identifier: MIT */
/*
 * Parsers for the values that rules compare: MAC addresses, EtherTypes, IP protocols, ports and the rest.
 *
 * Every parser throws UsageError with the text and the allowed values. Numbers are
 * decimal, or hexadecimal after "0x"; EtherTypes are hexadecimal with or without it. Results are in host order;
 * mox/rule.h converts what the module compares in network order.
 */
#ifndef MOX_VALUES_H
#define MOX_VALUES_H

#include "mox/export.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace mox {

using MacAddress = std::array<std::uint8_t, 6>;

/** A value that has a name. */
struct NamedValue {
	std::uint32_t value;
	std::string_view name;
};

/** The known names per kind of value, first the one to print. */
MOX_API std::span<const NamedValue> ether_type_names();
MOX_API std::span<const NamedValue> ip_protocol_names();
MOX_API std::span<const NamedValue> port_names();
MOX_API std::span<const NamedValue> icmpv6_type_names();
MOX_API std::span<const NamedValue> eapol_type_names();
MOX_API std::span<const NamedValue> arp_operation_names();

/** The first name of a value in a table, or nothing (empty). */
MOX_API std::string_view value_name(std::span<const NamedValue> names, std::uint32_t value);

/**
 * A number from low to high, or a name from the table. `what` names the kind of value in the error text.
 * base 10 takes decimal and 0x-hexadecimal; base 16 takes hexadecimal only.
 */
MOX_API std::uint32_t parse_number(std::string_view what, std::string_view text, std::uint32_t low,
				   std::uint32_t high, std::span<const NamedValue> names = {},
				   int base = 10);

/** Six hexadecimal pairs separated by ':' or '-', or "broadcast". */
MOX_API MacAddress parse_mac(std::string_view text);

/** An EtherType; "any" gives the wildcard's number 3 (which in network order is MOX_PACKET_ANY_ETH_TYPE). */
MOX_API std::uint16_t parse_ether_type(std::string_view text);

/** Finds an interface's index by its name; 0 when there is none (if_nametoindex). */
using InterfaceLookup = std::function<std::uint32_t(const std::string &name)>;

/** An interface by name (asked of lookup) or by index from 1 up. */
MOX_API std::uint32_t parse_interface(std::string_view text, const InterfaceLookup &lookup);

} // namespace mox

#endif
