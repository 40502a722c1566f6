/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_values.h"

#include "mox/names.h"
#include "mox/rule.h"
#include "mox_packet_tables.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace moxctl {
namespace {

std::string short_name(std::span<const mox::Name> table, std::uint64_t value)
{
	return value < table.size() ? std::string(table[value].alias()) : std::to_string(value);
}

std::string four_digits(std::uint16_t number)
{
	const std::uint8_t bytes[] = { static_cast<std::uint8_t>(number >> 8),
				       static_cast<std::uint8_t>(number) };
	return hex_text({ reinterpret_cast<const char *>(bytes), sizeof(bytes) });
}

const mox::RuleType *type_of(const Record &value)
{
	auto types = mox::rule_types();
	std::uint64_t number = value.number(MOX_CAPTURE_VALUE_TYPE);
	return value.has(MOX_CAPTURE_VALUE_TYPE) && number < types.size() ? &types[number]
									  : nullptr;
}

/** The number that the bytes of a value are: in host order for the platform's numbers, in network order else. */
std::uint32_t number_of(const mox::RuleType &type, std::string_view bytes)
{
	std::uint32_t number = 0;
	if (type.kind == mox::ValueKind::kInterfaceIndex ||
	    type.kind == mox::ValueKind::kAttribute) {
		std::memcpy(&number, bytes.data(), sizeof(number));
		return number;
	}
	for (char c : bytes)
		number = number << 8 | static_cast<std::uint8_t>(c);
	return number;
}

std::span<const mox::NamedValue> names_of(mox::ValueKind kind)
{
	switch (kind) {
	case mox::ValueKind::kEtherType:
		return mox::ether_type_names();
	case mox::ValueKind::kIpProtocol:
		return mox::ip_protocol_names();
	case mox::ValueKind::kIcmpv6Type:
		return mox::icmpv6_type_names();
	case mox::ValueKind::kEapolType:
		return mox::eapol_type_names();
	case mox::ValueKind::kArpOperation:
		return mox::arp_operation_names();
	default:
		return {};
	}
}

/** Whether the value has the bytes of its type. */
bool is_whole(const mox::RuleType *type, std::string_view bytes)
{
	return type && type->width != 0 && bytes.size() == type->width;
}

/** The members' names by attribute number. Made once: a long report has each of them ten thousand times. */
const std::vector<std::string> &keys_of(Set set)
{
	static const std::vector<std::vector<std::string>> all = [] {
		std::vector<std::vector<std::string>> sets;
		for (int number = 0; number <= static_cast<int>(Set::kTrace); ++number) {
			auto &keys = sets.emplace_back(1);
			for (const AttributeRow &row : attributes_of(static_cast<Set>(number)))
				keys.push_back(lower_name(row.name));
		}
		return sets;
	}();
	return all[static_cast<std::size_t>(set)];
}

/** How members of one name are written, whatever the set. */
enum class Meaning { kPlain, kLocation, kTreatment, kSocketType, kEtherType, kHop, kVerdict, kMac };

Meaning meaning_of(Set set, const AttributeRow &row)
{
	if (row.kind == Kind::kU64 || row.kind == Kind::kS32)
		return Meaning::kPlain;
	static constexpr struct {
		std::string_view name;
		Meaning meaning;
	} rows[] = {
		{ "LOCATION", Meaning::kLocation },   { "PENDING", Meaning::kLocation },
		{ "TREATMENT", Meaning::kTreatment }, { "ETHER_TYPE", Meaning::kEtherType },
		{ "PROTOCOL", Meaning::kEtherType },  { "HOP", Meaning::kHop },
		{ "VERDICT", Meaning::kVerdict },     { "SRC_MAC", Meaning::kMac },
		{ "DST_MAC", Meaning::kMac },
	};
	if (set == Set::kSocket && row.number == MOX_CAPTURE_SOCKET_TYPE)
		return Meaning::kSocketType;
	for (const auto &each : rows)
		if (each.name == row.name)
			return each.meaning;
	return Meaning::kPlain;
}

void write_number(JsonWriter &json, Set set, const AttributeRow &row, std::uint64_t number)
{
	switch (meaning_of(set, row)) {
	case Meaning::kLocation:
		return json.text(mox::location_name(static_cast<std::uint32_t>(number)));
	case Meaning::kTreatment:
		return json.text(mox::treatment_name(static_cast<std::uint32_t>(number)));
	case Meaning::kSocketType:
		return json.text(socket_type_text(number));
	case Meaning::kEtherType:
		// Only a socket's protocol is in network byte order.
		return json.text(four_digits(set == Set::kSocket
						     ? ntohs(static_cast<std::uint16_t>(number))
						     : static_cast<std::uint16_t>(number)));
	case Meaning::kHop:
		return json.text(hop_name(number));
	case Meaning::kVerdict:
		return json.text(verdict_name(number));
	default:
		break;
	}
	if (row.kind == Kind::kS32)
		json.number(static_cast<std::int64_t>(number));
	else
		json.number(number);
}

/** Whether the header says that the attribute comes several times in a message. */
bool is_list(Set set, const AttributeRow &row)
{
	return (set == Set::kInfo && row.number == MOX_CAPTURE_INFO_FEATURE) ||
	       (set == Set::kThread && row.number == MOX_CAPTURE_THREAD_PENDING);
}

void write_list(JsonWriter &json, const Record &record, const AttributeRow &row)
{
	json.begin_array();
	if (row.kind == Kind::kString)
		for (std::string_view each : record.texts(row.number))
			json.text(each);
	else
		for (std::uint64_t each : record.numbers(row.number))
			write_number(json, record.set(), row, each);
	json.end_array();
}

void write_nest(JsonWriter &json, const Record &nest)
{
	json.begin_object();
	if (nest.set() == Set::kValue) {
		json.member("type", rule_type_name(nest));
		if (has_value(nest)) {
			json.key("value");
			write_value(json, nest);
		}
		if (nest.has(MOX_CAPTURE_VALUE_HITS))
			json.member("hits", nest.number(MOX_CAPTURE_VALUE_HITS));
	} else {
		write_members(json, nest);
	}
	json.end_object();
}

void write_text(JsonWriter &json, const Record &record, const AttributeRow &row)
{
	std::string_view bytes = record.text(row.number);
	if (row.kind == Kind::kString)
		json.text(bytes);
	else
		json.text(
			hex_text(bytes, meaning_of(record.set(), row) == Meaning::kMac ? ":" : ""));
}

} // namespace

const std::string &InterfaceNames::name(std::uint32_t index)
{
	auto found = known_.find(index);
	if (found != known_.end())
		return found->second;
	std::string text = index == 0 ? "-" : lookup_ ? lookup_(index) : std::string();
	return known_[index] = text.empty() ? std::to_string(index) : text;
}

std::string short_location(std::uint64_t location)
{
	return short_name(mox::locations(), location);
}

std::string short_treatment(std::uint64_t treatment)
{
	return short_name(mox::treatments(), treatment);
}

std::string socket_type_text(std::uint64_t type)
{
	return type == SOCK_RAW ? "raw" : type == SOCK_DGRAM ? "dgram" : std::to_string(type);
}

std::string hex_text(std::string_view bytes, std::string_view between)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string text;
	for (char c : bytes) {
		auto byte = static_cast<unsigned char>(c);
		if (!text.empty())
			text += between;
		text += digits[byte >> 4];
		text += digits[byte & 15];
	}
	return text;
}

std::string rule_type_name(const Record &value)
{
	const mox::RuleType *type = type_of(value);
	return type ? std::string(type->full) : "Unknown";
}

bool has_value(const Record &value)
{
	return !value.text(MOX_CAPTURE_VALUE_DATA).empty();
}

std::string value_text(const Record &value)
{
	const mox::RuleType *type = type_of(value);
	std::string name = type ? std::string(type->alias())
				: "type" + std::to_string(value.number(MOX_CAPTURE_VALUE_TYPE));
	std::string_view bytes = value.text(MOX_CAPTURE_VALUE_DATA);
	if (bytes.empty())
		return name;
	if (!is_whole(type, bytes))
		return name + "=" + hex_text(bytes);
	switch (type->kind) {
	case mox::ValueKind::kCode:
		return name + "=" + std::to_string(static_cast<std::uint8_t>(bytes[0])) + "." +
		       std::to_string(static_cast<std::uint8_t>(bytes[1]));
	case mox::ValueKind::kMac:
		return name + "=" + hex_text(bytes, ":");
	default:
		break;
	}
	std::uint32_t number = number_of(*type, bytes);
	if (std::string_view known = mox::value_name(names_of(type->kind), number); !known.empty())
		return name + "=" + std::string(known);
	if (type->kind == mox::ValueKind::kEtherType)
		return name + "=" + hex_text(bytes);
	if (type->kind == mox::ValueKind::kAttribute && number == 0xffffffff)
		return name + "=any";
	return name + "=" + std::to_string(number);
}

void write_value(JsonWriter &json, const Record &value)
{
	const mox::RuleType *type = type_of(value);
	std::string_view bytes = value.text(MOX_CAPTURE_VALUE_DATA);
	if (!is_whole(type, bytes))
		return json.text(hex_text(bytes));
	switch (type->kind) {
	case mox::ValueKind::kCode:
		json.begin_object();
		json.member("code", static_cast<std::uint8_t>(bytes[0]));
		json.member("subcode", static_cast<std::uint8_t>(bytes[1]));
		return json.end_object();
	case mox::ValueKind::kMac:
		return json.text(hex_text(bytes, ":"));
	case mox::ValueKind::kEtherType:
		return json.text(hex_text(bytes));
	default:
		return json.number(number_of(*type, bytes));
	}
}

std::string verdict_name(std::uint64_t verdict)
{
	for (const VerdictRow &row : capture_verdicts())
		if (row.number == verdict)
			return lower_name(row.name);
	return std::to_string(verdict);
}

std::string verdict_text(std::uint64_t verdict)
{
	for (const VerdictRow &row : capture_verdicts())
		if (row.number == verdict)
			return std::string(row.meaning);
	return "verdict " + std::to_string(verdict) + ", which this moxctl has no words for";
}

std::string hop_name(std::uint64_t hop)
{
	switch (hop) {
	case MOX_CAPTURE_HOP_HOOK:
		return "hook";
	case MOX_CAPTURE_HOP_DELIVERY:
		return "delivery";
	case MOX_CAPTURE_HOP_SEND:
		return "send";
	default:
		return std::to_string(hop);
	}
}

void write_members(JsonWriter &json, const Record &record, std::uint64_t except)
{
	const std::vector<std::string> &keys = keys_of(record.set());
	for (const AttributeRow &row : attributes_of(record.set())) {
		bool list = is_list(record.set(), row);
		if ((except >> row.number & 1) ||
		    (!record.has(row.number) && row.kind != Kind::kFlag && !list))
			continue;
		json.key(keys[row.number]);
		if (list)
			write_list(json, record, row);
		else if (row.kind == Kind::kNest)
			write_nest(json, *record.nest(row.number));
		else if (row.kind == Kind::kString || row.kind == Kind::kBinary)
			write_text(json, record, row);
		else if (row.kind == Kind::kFlag)
			json.boolean(record.has(row.number));
		else
			write_number(json, record.set(), row, record.number(row.number));
	}
}

} // namespace moxctl
