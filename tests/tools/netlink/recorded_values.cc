// SPDX-License-Identifier: GPL-2.0-only
/*
 * Prints what moxctl decodes from a recording of the family "mox_capture" as JSON, for ynl_test.py: of each exchange its
 * messages, each with its set and its attributes by the header's names. Every attribute is a list of all its values.
 *
 * usage: recorded_values RECORDING
 */
#include "capture_record.h"
#include "capture_values.h"
#include "netlink_message.h"

#include <linux/genetlink.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>

namespace {

using Json = nlohmann::ordered_json;
using Bytes = std::vector<std::uint8_t>;

Json json_of(const moxctl::Record &record);

/** All values that a record has of an attribute. */
Json values_of(const moxctl::Record &record, const moxctl::AttributeRow &row)
{
	Json values = Json::array();
	switch (row.kind) {
	case moxctl::Kind::kNest:
		for (const moxctl::Record::Nest &nest : record.nests())
			if (nest.number == row.number)
				values.push_back(json_of(nest.record));
		break;
	case moxctl::Kind::kString:
		for (std::string_view text : record.texts(row.number))
			values.push_back(text);
		break;
	case moxctl::Kind::kBinary:
		values.push_back(moxctl::hex_text(record.text(row.number)));
		break;
	case moxctl::Kind::kFlag:
		values.push_back(true);
		break;
	case moxctl::Kind::kS32:
		values.push_back(static_cast<std::int64_t>(record.number(row.number)));
		break;
	default:
		for (std::uint64_t number : record.numbers(row.number))
			values.push_back(number);
	}
	return values;
}

Json json_of(const moxctl::Record &record)
{
	Json all = Json::object();
	for (const moxctl::AttributeRow &row : moxctl::attributes_of(record.set()))
		if (record.has(row.number))
			all[std::string(row.name)] = values_of(record, row);
	return all;
}

Bytes bytes_of(const std::string &digits)
{
	Bytes bytes;
	for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
		bytes.push_back(
			static_cast<std::uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
	return bytes;
}

/** The messages of a datagram that are of the family. */
void add_messages(Json &to, Bytes datagram)
{
	moxctl::for_each_message(datagram, [&to](const nlmsghdr *head) {
		auto number = moxctl::command_of(head);
		if (head->nlmsg_type <= GENL_MIN_ID || !number)
			return false;
		for (const moxctl::CommandRow &row : moxctl::capture_commands())
			if (row.number == *number)
				to.push_back(
					{ { "set", moxctl::set_name(row.reply) },
					  { "attributes",
					    json_of(moxctl::decode_record(
						    row.reply, moxctl::attributes_in(head))) } });
		return false;
	});
}

} // namespace

int main(int argc, char **argv)
try {
	if (argc != 2)
		throw std::runtime_error("usage: recorded_values RECORDING");
	std::ifstream file(argv[1]);
	if (!file)
		throw std::runtime_error(std::string("cannot read ") + argv[1]);
	Json all = Json::object();
	std::string word, rest, exchange;
	while (file >> word && std::getline(file >> std::ws, rest)) {
		if (word == "exchange")
			all[exchange = rest] = Json::array();
		else if (word == "<" && exchange != "families")
			add_messages(all[exchange], bytes_of(rest));
	}
	std::puts(all.dump(1).c_str());
	return 0;
} catch (const std::exception &error) {
	std::fprintf(stderr, "recorded_values: %s\n", error.what());
	return 1;
}
