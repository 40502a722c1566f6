// SPDX-License-Identifier: GPL-2.0-only
/* Prints the tables of mox_capture.h as one JSON object, for spec_test.py. */
#include "capture_sets.h"
#include "mox/names.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace {

using Json = nlohmann::ordered_json;

const char *kind_name(moxctl::Kind kind)
{
	static const char *const names[] = { "u8",     "u16",    "u32",  "s32", "u64",
					     "string", "binary", "flag", "nest" };
	return names[static_cast<std::size_t>(kind)];
}

Json sets()
{
	Json all = Json::object();
	for (int number = 1; number <= static_cast<int>(moxctl::Set::kTrace); ++number) {
		auto set = static_cast<moxctl::Set>(number);
		Json &rows = all[std::string(moxctl::set_name(set))] = Json::object();
		for (const moxctl::AttributeRow &row : moxctl::attributes_of(set))
			rows[std::string(row.name)] = { { "number", row.number },
							{ "kind", kind_name(row.kind) },
							{ "nested", moxctl::set_name(row.nested) },
							{ "meaning", row.meaning } };
	}
	return all;
}

Json commands()
{
	static const char *const how[] = { "do", "dump", "event" };
	Json all = Json::object();
	for (const moxctl::CommandRow &row : moxctl::capture_commands())
		all[std::string(row.name)] = { { "number", row.number },
					       { "how", how[static_cast<std::size_t>(row.how)] },
					       { "reply", moxctl::set_name(row.reply) },
					       { "meaning", row.meaning } };
	return all;
}

Json enums()
{
	Json all = Json::object();
	for (const mox::Name &row : mox::locations())
		all["location"][std::string(row.full)] = row.value;
	for (const mox::Name &row : mox::treatments())
		all["treatment"][std::string(row.full)] = row.value;
#define TYPE(type, ...) all["rule-type"][#type] = type;
	MOX_PACKET_RULE_TYPE_TABLE(TYPE)
#undef TYPE
	all["hop"] = { { "HOOK", MOX_CAPTURE_HOP_HOOK },
		       { "DELIVERY", MOX_CAPTURE_HOP_DELIVERY },
		       { "SEND", MOX_CAPTURE_HOP_SEND } };
	for (const moxctl::VerdictRow &row : moxctl::capture_verdicts())
		all["verdict"][std::string(row.name)] = row.number;
	return all;
}

} // namespace

int main()
{
	Json all = { { "name", MOX_CAPTURE_NAME },
		     { "constants",
		       { { "version", MOX_CAPTURE_VERSION }, { "traces", MOX_CAPTURE_TRACES } } },
		     { "sets", sets() },
		     { "commands", commands() },
		     { "enums", enums() } };
	std::puts(all.dump(1).c_str());
	return 0;
}
