/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The rules as JSON. Its keys were those of the report in the kernel log before the module had a family for reading, and
 * scripts use them: so they stay, with the same meaning, and what only the family has comes beside them.
 */
#include "show.h"

#include "capture_values.h"
#include "mox/names.h"
#include "mox_packet_tables.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace moxctl {
namespace {

/** Reports have the locations from 1 to this. */
constexpr std::uint32_t kReported = PACKET_WLAN_LOC;

/** A socket and its rule. Cookies are unique within one network namespace only. */
using SocketKey = std::tuple<std::uint64_t, std::uint64_t, std::string_view>;

SocketKey key_of_socket(const Record &socket)
{
	return { socket.number(MOX_CAPTURE_SOCKET_COOKIE), socket.number(MOX_CAPTURE_SOCKET_PID),
		 socket.text(MOX_CAPTURE_SOCKET_PROCESS) };
}

SocketKey key_of_rule(const Record &rule)
{
	return { rule.number(MOX_CAPTURE_RULE_COOKIE), rule.number(MOX_CAPTURE_RULE_PID),
		 rule.text(MOX_CAPTURE_RULE_PROCESS) };
}

struct Entry {
	const Record *value; /**< of the set VALUE: what the location looks up */
	std::vector<const Record *> rules;
};

struct Library {
	std::vector<const Record *> queues, sockets, rules;
};

std::uint64_t type_of(const Record &value)
{
	return value.number(MOX_CAPTURE_VALUE_TYPE);
}

/**
 * The type that a rule is looked up by: its first one that may be a key; nothing when it has none. The family does not
 * name it: this is the first one in the order in which the module sends the values.
 */
const Record *first_key(const Record &rule)
{
	for (const Record::Nest &nest : rule.nests()) {
		std::uint64_t type = type_of(nest.record);
#define IS_KEY(number, width, compared, key, ...) \
	if (type == number && (key) != 0)         \
		return &nest.record;
		MOX_PACKET_RULE_TYPE_TABLE(IS_KEY)
#undef IS_KEY
	}
	return nullptr;
}

/** Writes values grouped by their types, in the order of the types; those of one type are left out. */
void write_rules(JsonWriter &json, const Record *rule, const std::uint64_t *without = nullptr)
{
	json.key("rules");
	json.begin_array();
	std::vector<std::pair<std::uint64_t, std::vector<const Record *>>> types;
	std::map<std::uint64_t, std::size_t> places;
	for (std::size_t i = 0; rule && i < rule->nests().size(); ++i) {
		const Record &value = rule->nests()[i].record;
		if (without && type_of(value) == *without)
			continue;
		auto [place, is_new] = places.try_emplace(type_of(value), types.size());
		if (is_new)
			types.push_back({ type_of(value), {} });
		types[place->second].second.push_back(&value);
	}
	for (const auto &[type, values] : types) {
		json.begin_object();
		json.member("type", rule_type_name(*values.front()));
		json.key("values");
		json.begin_array();
		for (const Record *value : values)
			if (has_value(*value))
				write_value(json, *value);
		json.end_array();
		json.key("hits");
		json.begin_array();
		for (const Record *value : values)
			json.number(value->number(MOX_CAPTURE_VALUE_HITS));
		json.end_array();
		json.end_object();
	}
	json.end_array();
}

void write_queues(JsonWriter &json, const Library &library)
{
	json.key("queues");
	json.begin_array();
	for (const Record *queue : library.queues) {
		json.begin_object();
		json.member("cpu", queue->number(MOX_CAPTURE_QUEUE_CPU));
		json.member("efbuffs", queue->number(MOX_CAPTURE_QUEUE_LENGTH));
		write_members(json, *queue,
			      bits_of(MOX_CAPTURE_QUEUE_CPU, MOX_CAPTURE_QUEUE_LENGTH,
				      MOX_CAPTURE_QUEUE_LOCATION, MOX_CAPTURE_QUEUE_NAME));
		json.end_object();
	}
	json.end_array();
}

void write_counters(JsonWriter &json, const Record &socket)
{
	json.key("counters");
	json.begin_object();
	if (const Record *counters = socket.nest(MOX_CAPTURE_SOCKET_COUNTERS))
		write_members(json, *counters);
	json.member("skbs_to_be_recv", socket.number(MOX_CAPTURE_SOCKET_QUEUE));
	json.member("skbs_to_be_send", 0); // sends are not queued
	json.key("refcnt");
	json.null(); // only the kernel log's report has it
	json.end_object();
}

void write_socket(JsonWriter &json, const Record &socket, const Record *rule)
{
	json.begin_object();
	json.member("vsd", 0); // no other one can open a socket
	json.member("control_data", socket.has(MOX_CAPTURE_SOCKET_CTRL_INFO));
	write_members(json, socket, bits_of(MOX_CAPTURE_SOCKET_COUNTERS));
	write_rules(json, rule);
	write_counters(json, socket);
	json.end_object();
}

/** The rules by what they are looked up by, in the order in which they are asked. */
std::vector<Entry> entries_of(const Library &library)
{
	std::vector<Entry> entries;
	std::map<std::pair<std::uint64_t, std::string_view>, std::size_t> places;
	for (const Record *rule : library.rules) {
		const Record *key = rule->has(MOX_CAPTURE_RULE_RUNNING) ? first_key(*rule)
									: nullptr;
		if (!key)
			continue;
		for (const Record::Nest &nest : rule->nests()) {
			const Record &value = nest.record;
			if (type_of(value) != type_of(*key))
				continue;
			auto [place, is_new] = places.try_emplace(
				{ type_of(value), value.text(MOX_CAPTURE_VALUE_DATA) },
				entries.size());
			if (is_new)
				entries.push_back({ &value, {} });
			entries[place->second].rules.push_back(rule);
		}
	}
	return entries;
}

void write_filter_list(JsonWriter &json, const Library &library)
{
	json.key("filter_list");
	json.begin_array();
	for (const Entry &entry : entries_of(library)) {
		json.begin_object();
		json.member("type", rule_type_name(*entry.value));
		json.key("values");
		json.begin_array();
		if (has_value(*entry.value))
			write_value(json, *entry.value);
		json.end_array();
		json.key("matches");
		json.begin_array();
		std::uint64_t type = type_of(*entry.value);
		for (const Record *rule : entry.rules) {
			json.begin_object();
			json.member("process", rule->text(MOX_CAPTURE_RULE_PROCESS));
			json.member("treatment",
				    mox::treatment_name(static_cast<std::uint32_t>(
					    rule->number(MOX_CAPTURE_RULE_TREATMENT))));
			json.member("cookie", rule->number(MOX_CAPTURE_RULE_COOKIE));
			write_rules(json, rule, &type);
			json.end_object();
		}
		json.end_array();
		json.end_object();
	}
	json.end_array();
}

} // namespace

Status show_rules_json(const Options &options, CaptureClient &client, const World &world)
{
	// RESV's sockets are those of three locations, so they are selected here.
	Selection selection = options.selection;
	if (selection.location == PACKET_RESV_LOC)
		selection.location = 0;
	CaptureRequest queue_request;
	if (options.selection.location != 0)
		queue_request.add(MOX_CAPTURE_REQUEST_LOCATION, options.selection.location);
	Dump queues = client.dump(MOX_CAPTURE_CMD_QUEUES, queue_request);
	Dump sockets = client.dump(MOX_CAPTURE_CMD_SOCKETS, selection_request(selection));
	Dump rules = client.dump_rules(selection_request(selection));
	Problems problems;
	problems.check(queues, "queues");
	problems.check(sockets, "sockets");
	problems.check(rules, "rules");

	std::vector<Library> libraries(kReported + 1);
	auto library = [&](std::uint64_t location) -> Library & {
		std::uint32_t number = library_of(location);
		return libraries[number <= kReported ? number : 0];
	};
	std::map<SocketKey, const Record *> rule_of;
	for (const Record &queue : queues.entries)
		library(queue.number(MOX_CAPTURE_QUEUE_LOCATION)).queues.push_back(&queue);
	for (const Record &socket : sockets.entries)
		library(socket.number(MOX_CAPTURE_SOCKET_LOCATION)).sockets.push_back(&socket);
	for (const Record &rule : rules.entries) {
		library(rule.number(MOX_CAPTURE_RULE_LOCATION)).rules.push_back(&rule);
		rule_of[key_of_rule(rule)] = &rule;
	}

	std::string text;
	JsonWriter json(text, spill_to(world));
	json.begin_object();
	json.key("locations");
	json.begin_array();
	for (std::uint32_t location = 1; location <= kReported; ++location) {
		if (options.selection.location != 0 && options.selection.location != location)
			continue;
		Library &each = libraries[location];
		std::stable_sort(each.rules.begin(), each.rules.end(),
				 [](const Record *a, const Record *b) {
					 return a->text(MOX_CAPTURE_RULE_PLACE) <
						b->text(MOX_CAPTURE_RULE_PLACE);
				 });
		json.begin_object();
		json.member("location", mox::location_name(location));
		write_queues(json, each);
		json.key("sockets");
		json.begin_array();
		for (const Record *socket : each.sockets) {
			auto rule = rule_of.find(key_of_socket(*socket));
			write_socket(json, *socket, rule == rule_of.end() ? nullptr : rule->second);
		}
		json.end_array();
		write_filter_list(json, each);
		json.end_object();
	}
	json.end_array();
	return finish(text, json, problems, world);
}

} // namespace moxctl
