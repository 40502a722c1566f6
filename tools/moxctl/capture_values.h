/* SPDX-License-Identifier: GPL-2.0-only */
/* What the attributes of "mox_capture" mean, as text and as JSON. */
#ifndef MOXCTL_CAPTURE_VALUES_H
#define MOXCTL_CAPTURE_VALUES_H

#include "capture_record.h"
#include "json_writer.h"

#include <functional>
#include <map>
#include <string>

namespace moxctl {

/** Names of interfaces, each looked up once. */
class InterfaceNames {
public:
	using Lookup = std::function<std::string(std::uint32_t index)>;
	explicit InterfaceNames(Lookup lookup) : lookup_(std::move(lookup)) {}
	/** The name; the index as decimals where there is no interface; "-" for 0. */
	const std::string &name(std::uint32_t index);

private:
	Lookup lookup_;
	std::map<std::uint32_t, std::string> known_;
};

/** Short name of a location or treatment as command lines have it ("lev2"); a number beyond the table as decimals. */
std::string short_location(std::uint64_t location);
std::string short_treatment(std::uint64_t treatment);

/** "raw", "dgram", or the number. */
std::string socket_type_text(std::uint64_t type);

/** Bytes as hexadecimal pairs with this between them. */
std::string hex_text(std::string_view bytes, std::string_view between = {});

/** The rule type of a record of the set VALUE: its full name, "Unknown" beyond the table. */
std::string rule_type_name(const Record &value);

/** A value for people, as moxcap takes it: "eth=arp", "dport=67", "all". Records of the set VALUE. */
std::string value_text(const Record &value);

/**
 * Writes a value as reports in JSON have it: numbers where people write decimals, strings for MAC addresses and
 * EtherTypes, objects for packet codes; hexadecimal pairs when the length is not the type's. Nothing for the types
 * without a value.
 */
void write_value(JsonWriter &json, const Record &value);
bool has_value(const Record &value);

/** The name that a verdict or a hop has in JSON, its number as decimals beyond the table. */
std::string verdict_name(std::uint64_t verdict);
std::string hop_name(std::uint64_t hop);
/** What a verdict means, in words. */
std::string verdict_text(std::uint64_t verdict);

/**
 * Writes the members of a record by the header's names in lower case; into an object that is open. Absent attributes are
 * left out, except for flags, which are false. Attributes whose bit is set in except are left out.
 */
void write_members(JsonWriter &json, const Record &record, std::uint64_t except = 0);

/** The bits of attributes for write_members. */
template <typename... Numbers> constexpr std::uint64_t bits_of(Numbers... numbers)
{
	return (std::uint64_t{ 0 } | ... | (std::uint64_t{ 1 } << numbers));
}

} // namespace moxctl

#endif
