/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_record.h"

#include "status.h"

#include <netlink/attr.h>

#include <cstring>

namespace moxctl {
namespace {

Failure broken(Set set, const std::string &what)
{
	return Failure(
		"a message of the module is broken: " + what + " of " + std::string(set_name(set)) +
		"; moxctl and mox_ef_socket.ko are of different versions, or one is defective");
}

std::uint64_t number_in(Kind kind, const void *payload)
{
	switch (kind) {
	case Kind::kU8:
		return *static_cast<const std::uint8_t *>(payload);
	case Kind::kU16: {
		std::uint16_t value;
		std::memcpy(&value, payload, sizeof(value));
		return value;
	}
	case Kind::kU32: {
		std::uint32_t value;
		std::memcpy(&value, payload, sizeof(value));
		return value;
	}
	case Kind::kS32: {
		std::int32_t value;
		std::memcpy(&value, payload, sizeof(value));
		return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
	}
	default: {
		std::uint64_t value; // aligned to 4 bytes only
		std::memcpy(&value, payload, sizeof(value));
		return value;
	}
	}
}

void take(Record &record, const AttributeRow &row, const nlattr *attribute)
{
	auto length = static_cast<std::size_t>(nla_len(attribute));
	auto payload = static_cast<const char *>(nla_data(attribute));
	std::string name(row.name);
	switch (row.kind) {
	case Kind::kString:
		if (length == 0 || payload[length - 1] != '\0')
			throw broken(record.set(), name + " has no NUL at its end, as attribute");
		record.add_text(row.number, { payload, strnlen(payload, length) });
		break;
	case Kind::kBinary:
		record.add_text(row.number, { payload, length });
		break;
	case Kind::kNest:
		record.add_nest(
			row.number,
			decode_record(row.nested,
				      { reinterpret_cast<const std::uint8_t *>(payload), length }));
		break;
	default:
		if (length != width_of(row.kind))
			throw broken(record.set(), name + " has " + std::to_string(length) +
							   " bytes instead of " +
							   std::to_string(width_of(row.kind)) +
							   ", as attribute");
		record.set_number(row.number,
				  row.kind == Kind::kFlag ? 1 : number_in(row.kind, payload));
	}
}

} // namespace

Record::Record(Set set) : set_(set), numbers_(attributes_of(set).size() + 1) {}

std::vector<std::uint64_t> Record::numbers(unsigned number) const
{
	std::vector<std::uint64_t> found;
	for (const Repeated &each : repeated_)
		if (each.number == number)
			found.push_back(each.value);
	if (has(number))
		found.push_back(numbers_[number]);
	return found;
}

std::string_view Record::text(unsigned number) const
{
	for (auto each = texts_.rbegin(); each != texts_.rend(); ++each)
		if (each->number == number)
			return each->bytes;
	return {};
}

std::vector<std::string_view> Record::texts(unsigned number) const
{
	std::vector<std::string_view> found;
	for (const Text &each : texts_)
		if (each.number == number)
			found.push_back(each.bytes);
	return found;
}

const Record *Record::nest(unsigned number) const
{
	for (auto each = nests_.rbegin(); each != nests_.rend(); ++each)
		if (each->number == number)
			return &each->record;
	return nullptr;
}

void Record::set_number(unsigned number, std::uint64_t value)
{
	if (has(number))
		repeated_.push_back({ static_cast<std::uint8_t>(number), numbers_[number] });
	numbers_[number] = value;
	present_ |= std::uint64_t{ 1 } << number;
}

void Record::add_text(unsigned number, std::string_view bytes)
{
	texts_.push_back({ static_cast<std::uint8_t>(number), std::string(bytes) });
	present_ |= std::uint64_t{ 1 } << number;
}

void Record::add_nest(unsigned number, Record nest)
{
	nests_.push_back({ static_cast<std::uint8_t>(number), std::move(nest) });
	present_ |= std::uint64_t{ 1 } << number;
}

void Record::append_nests(Record &&rest)
{
	nests_.insert(nests_.end(), std::make_move_iterator(rest.nests_.begin()),
		      std::make_move_iterator(rest.nests_.end()));
	present_ |= rest.present_;
}

Record decode_record(Set set, std::span<const std::uint8_t> attributes)
{
	auto rows = attributes_of(set);
	Record record(set);
	int left = static_cast<int>(attributes.size());
	auto attribute = reinterpret_cast<const nlattr *>(attributes.data());
	while (left > 0) {
		if (!nla_ok(attribute, left))
			throw broken(set, "it ends in the middle of an attribute");
		auto number = static_cast<unsigned>(nla_type(attribute));
		if (number >= 1 && number <= rows.size())
			take(record, rows[number - 1], attribute);
		attribute = nla_next(attribute, &left);
	}
	return record;
}

} // namespace moxctl
