/* SPDX-License-Identifier: GPL-2.0-only */
/* Queues, memory, the copy thread, and the module itself. */
#include "show.h"

#include "capture_values.h"
#include "mox/names.h"
#include "text_table.h"

#include <map>

namespace moxctl {
namespace {

using Align = TextTable::Align;

std::string queues_text(const Dump &queues)
{
	TextTable table({ { "LOCATION" },
			  { "CPU", Align::kRight },
			  { "QUEUED", Align::kRight },
			  { "HELD", Align::kRight },
			  { "CLONES", Align::kRight },
			  { "LIMIT", Align::kRight },
			  { "CPU HELD", Align::kRight },
			  { "CPU LIMIT", Align::kRight } });
	for (const Record &queue : queues.entries) {
		table.row();
		table.add(short_location(queue.number(MOX_CAPTURE_QUEUE_LOCATION)));
		for (unsigned each :
		     { MOX_CAPTURE_QUEUE_CPU, MOX_CAPTURE_QUEUE_LENGTH, MOX_CAPTURE_QUEUE_HELD,
		       MOX_CAPTURE_QUEUE_COPIES, MOX_CAPTURE_QUEUE_LIMIT,
		       MOX_CAPTURE_QUEUE_CPU_HELD, MOX_CAPTURE_QUEUE_CPU_LIMIT })
			table.add(queue.number(each));
	}
	std::string text;
	table.print(text);
	return text;
}

bool is_budget(const Record &entry)
{
	return entry.has(MOX_CAPTURE_MEMORY_UNIT) || entry.has(MOX_CAPTURE_MEMORY_LIMIT);
}

/** A limit; "-" where there is none. */
std::string limit_text(const Record &entry, unsigned attribute)
{
	return entry.has(attribute) ? std::to_string(entry.number(attribute)) : "-";
}

std::string memory_text(const Dump &memory)
{
	TextTable objects(
		{ { "OBJECTS" }, { "IN USE", Align::kRight }, { "FAILED", Align::kRight } });
	TextTable budgets({ { "BUDGET" },
			    { "UNIT" },
			    { "USED", Align::kRight },
			    { "LIMIT", Align::kRight },
			    { "UNPRIVILEGED", Align::kRight },
			    { "PER SOCKET", Align::kRight },
			    { "REFUSED", Align::kRight } });
	for (const Record &entry : memory.entries) {
		std::string_view name = entry.text(MOX_CAPTURE_MEMORY_NAME);
		if (is_budget(entry)) {
			budgets.row();
			budgets.add(name);
			budgets.add(entry.text(MOX_CAPTURE_MEMORY_UNIT));
			for (unsigned each :
			     { MOX_CAPTURE_MEMORY_USED, MOX_CAPTURE_MEMORY_LIMIT,
			       MOX_CAPTURE_MEMORY_UNPRIVILEGED_LIMIT,
			       MOX_CAPTURE_MEMORY_SOCKET_LIMIT, MOX_CAPTURE_MEMORY_REFUSED })
				budgets.add(limit_text(entry, each));
		} else {
			objects.row();
			objects.add(name);
			objects.add(limit_text(entry, MOX_CAPTURE_MEMORY_OBJECTS));
			objects.add(limit_text(entry, MOX_CAPTURE_MEMORY_FAILED));
		}
	}
	std::string text;
	if (!objects.empty())
		objects.print(text);
	if (!budgets.empty()) {
		text += text.empty() ? "" : "\n";
		budgets.print(text);
	}
	return text;
}

void write_memory(JsonWriter &json, const Dump &memory, bool budgets)
{
	json.key(budgets ? "budgets" : "objects");
	json.begin_array();
	for (const Record &entry : memory.entries)
		if (is_budget(entry) == budgets) {
			json.begin_object();
			write_members(json, entry);
			json.end_object();
		}
	json.end_array();
}

std::string line(std::string label, std::string_view value)
{
	label.resize(20, ' ');
	return label + printable(value) + "\n";
}

std::string pending_text(const Record &thread)
{
	std::string names;
	for (std::uint64_t each : thread.numbers(MOX_CAPTURE_THREAD_PENDING))
		names += (names.empty() ? "" : " ") + short_location(each);
	return names.empty() ? "none" : names;
}

} // namespace

Status show_queues(const Options &options, CaptureClient &client, const World &world)
{
	Dump queues = client.dump(MOX_CAPTURE_CMD_QUEUES, selection_request(options.selection));
	Problems problems;
	problems.check(queues, "queues");
	if (!options.json) {
		world.print(queues_text(queues));
		return problems.complain(world);
	}
	std::map<std::uint64_t, std::vector<const Record *>> locations;
	for (const Record &queue : queues.entries)
		locations[queue.number(MOX_CAPTURE_QUEUE_LOCATION)].push_back(&queue);
	std::string text;
	JsonWriter json(text, spill_to(world));
	json.begin_object();
	json.key("locations");
	json.begin_array();
	for (const auto &[location, list] : locations) {
		json.begin_object();
		json.member("location", mox::location_name(static_cast<std::uint32_t>(location)));
		json.key("queues");
		json.begin_array();
		for (const Record *queue : list) {
			json.begin_object();
			json.member("efbuffs", queue->number(MOX_CAPTURE_QUEUE_LENGTH));
			write_members(json, *queue,
				      bits_of(MOX_CAPTURE_QUEUE_LOCATION, MOX_CAPTURE_QUEUE_NAME,
					      MOX_CAPTURE_QUEUE_LENGTH));
			json.end_object();
		}
		json.end_array();
		json.end_object();
	}
	json.end_array();
	return finish(text, json, problems, world);
}

Status show_memory(const Options &options, CaptureClient &client, const World &world)
{
	Dump memory = client.dump(MOX_CAPTURE_CMD_MEMORY);
	Problems problems;
	problems.check(memory, "counters");
	if (!options.json) {
		world.print(memory_text(memory));
		return problems.complain(world);
	}
	std::string text;
	JsonWriter json(text, spill_to(world));
	json.begin_object();
	json.key("memory");
	json.begin_object();
	write_memory(json, memory, false);
	write_memory(json, memory, true);
	json.end_object();
	return finish(text, json, problems, world);
}

Status show_thread(const Options &options, CaptureClient &client, const World &world)
{
	Record thread = client.ask(MOX_CAPTURE_CMD_THREAD);
	if (options.json) {
		std::string text;
		JsonWriter json(text, spill_to(world));
		json.begin_object();
		json.key("thread");
		json.begin_object();
		write_members(json, thread);
		json.end_object();
		return finish(text, json, {}, world);
	}
	bool runs = thread.has(MOX_CAPTURE_THREAD_PID);
	world.print(
		line("name", thread.text(MOX_CAPTURE_THREAD_NAME)) +
		line("pid", runs ? std::to_string(thread.number(MOX_CAPTURE_THREAD_PID))
				 : "none: it does not run") +
		line("state", thread.has(MOX_CAPTURE_THREAD_RUNNING) ? "draining queues" : "idle") +
		line("pending locations", pending_text(thread)) +
		line("scheduled", std::to_string(thread.number(MOX_CAPTURE_THREAD_SCHEDULED))) +
		line("alloc skb failed",
		     std::to_string(thread.number(MOX_CAPTURE_THREAD_ALLOC_SKB_FAILED))));
	return status_ok;
}

Status show_info(const Options &options, CaptureClient &client, const World &world)
{
	Record info = client.ask(MOX_CAPTURE_CMD_INFO);
	if (options.json) {
		std::string text;
		JsonWriter json(text, spill_to(world));
		json.begin_object();
		json.key("info");
		json.begin_object();
		write_members(json, info);
		json.end_object();
		return finish(text, json, {}, world);
	}
	std::string text = line("module", info.text(MOX_CAPTURE_INFO_MODULE)) +
			   line("version", info.text(MOX_CAPTURE_INFO_MODULE_VERSION)) +
			   line("interface",
				std::to_string(info.number(MOX_CAPTURE_INFO_INTERFACE))) +
			   line("restricted",
				info.number(MOX_CAPTURE_INFO_RESTRICTED) ? "yes" : "no");
	static constexpr struct {
		std::string_view name, meaning;
	} features[] = {
#define FEATURE(name, meaning) { name, meaning },
		MOX_CAPTURE_FEATURE_TABLE(FEATURE)
#undef FEATURE
	};
	for (std::string_view name : info.texts(MOX_CAPTURE_INFO_FEATURE)) {
		std::string known;
		for (const auto &feature : features)
			if (feature.name == name)
				known = ": " + std::string(feature.meaning);
		text += line("feature", std::string(name) + known);
	}
	world.print(text);
	return status_ok;
}

} // namespace moxctl
