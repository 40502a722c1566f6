/* SPDX-License-Identifier: GPL-2.0-only */
#include "metrics.h"

#include "atomic_file.h"
#include "capture_values.h"
#include "mox/names.h"
#include "show.h"

#include <algorithm>

namespace moxctl {
namespace {

using Labels = std::vector<std::pair<std::string_view, std::string>>;

/** A label's value: printable ASCII, everything else as \xNN, so that it is valid whatever a process is called. */
std::string quoted(std::string_view value)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string text = "\"";
	for (char c : value) {
		auto byte = static_cast<unsigned char>(c);
		if (c == '"' || c == '\\')
			text += std::string("\\") + c;
		else if (byte >= ' ' && byte < 0x7f)
			text += c;
		else
			text += std::string("\\\\x") + digits[byte >> 4] + digits[byte & 15];
	}
	return text + '"';
}

std::string labels_text(const Labels &labels)
{
	std::string text;
	for (const auto &[name, value] : labels)
		text += (text.empty() ? "{" : ",") + std::string(name) + "=" + quoted(value);
	return text.empty() ? text : text + "}";
}

/** A record, and the labels of its samples. */
struct Row {
	const Record *record;
	std::string labels;
};

class Writer {
public:
	explicit Writer(std::string &to) : to_(to) {}

	/** Begins a metric. A counter's name ends in "_total". */
	void begin(const std::string &name, std::string_view help, bool counter)
	{
		name_ = "mox_capture_" + name + (counter ? "_total" : "");
		std::string safe(help);
		std::replace(safe.begin(), safe.end(), '"', '\'');
		to_ += "# HELP " + name_ + " " + safe + "\n";
		if (!counter)
			to_ += "# TYPE " + name_ + " gauge\n";
	}

	void sample(const std::string &labels, std::uint64_t value)
	{
		to_ += name_;
		to_ += labels;
		to_ += ' ';
		to_ += std::to_string(value);
		to_ += '\n';
	}

	/** One metric for an attribute: a sample for each row that has it. */
	void attribute(const std::string &prefix, Set set, std::uint16_t number, bool counter,
		       const std::vector<Row> &rows)
	{
		const AttributeRow &row = attributes_of(set)[number - 1];
		bool begun = false;
		for (const Row &each : rows) {
			if (!each.record->has(number))
				continue;
			if (!begun)
				begin(prefix + lower_name(row.name), row.meaning, counter);
			begun = true;
			sample(each.labels, each.record->number(number));
		}
	}

	/** Metrics for all attributes that are 64-bit numbers: counters, but for those in gauges. */
	void counters(const std::string &prefix, Set set, const std::vector<Row> &rows,
		      std::uint64_t gauges = 0, std::uint64_t except = 0)
	{
		for (const AttributeRow &row : attributes_of(set))
			if (row.kind == Kind::kU64 && !(except >> row.number & 1))
				attribute(prefix, set, row.number, !(gauges >> row.number & 1),
					  rows);
	}

private:
	std::string &to_;
	std::string name_;
};

std::string location_label(const Record &record, unsigned attribute)
{
	return short_location(record.number(attribute));
}

void write_locations(Writer &writer, const Dump &locations)
{
	std::vector<Row> cpus, sums, closed;
	for (const Record &record : locations.entries) {
		Labels labels = { { "location",
				    location_label(record, MOX_CAPTURE_LOCATION_LOCATION) } };
		if (record.has(MOX_CAPTURE_LOCATION_CPU)) {
			labels.emplace_back(
				"cpu", std::to_string(record.number(MOX_CAPTURE_LOCATION_CPU)));
			cpus.push_back({ &record, labels_text(labels) });
			continue;
		}
		sums.push_back({ &record, labels_text(labels) });
		if (const Record *nest = record.nest(MOX_CAPTURE_LOCATION_CLOSED))
			closed.push_back({ nest, labels_text(labels) });
	}
	writer.counters("location_", Set::kLocation, cpus, bits_of(MOX_CAPTURE_LOCATION_QUEUED),
			bits_of(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS));
	writer.attribute("location_", Set::kLocation, MOX_CAPTURE_LOCATION_RULES, false, sums);
	writer.attribute("location_", Set::kLocation, MOX_CAPTURE_LOCATION_CLOSED_SOCKETS, true,
			 sums);
	writer.counters("closed_sockets_", Set::kCounters, closed);
}

/** Attributes of a socket that are metrics themselves. */
constexpr std::uint16_t kSocketGauges[] = {
	MOX_CAPTURE_SOCKET_QUEUE, MOX_CAPTURE_SOCKET_QUEUE_BYTES, MOX_CAPTURE_SOCKET_QUEUE_LIMIT,
	MOX_CAPTURE_SOCKET_RULE_BYTES, MOX_CAPTURE_SOCKET_RULE_WORK
};

/** The sums of the records' numbers. */
template <typename Records> Record sum_of(Set set, const Records &records)
{
	Record sum(set);
	for (const AttributeRow &row : attributes_of(set)) {
		std::uint64_t total = 0;
		bool any = false;
		for (const Record *record : records) {
			total += record->number(row.number);
			any = any || record->has(row.number);
		}
		if (any && (row.kind == Kind::kU64 || row.kind == Kind::kU32))
			sum.set_number(row.number, total);
	}
	return sum;
}

std::string socket_labels(const Record &socket)
{
	auto number = [&](unsigned attribute) {
		return std::to_string(static_cast<std::int64_t>(socket.number(attribute)));
	};
	return labels_text({ { "process", std::string(socket.text(MOX_CAPTURE_SOCKET_PROCESS)) },
			     { "pid", number(MOX_CAPTURE_SOCKET_PID) },
			     { "cookie", std::to_string(socket.number(MOX_CAPTURE_SOCKET_COOKIE)) },
			     { "netns", number(MOX_CAPTURE_SOCKET_NETNS) },
			     { "location", location_label(socket, MOX_CAPTURE_SOCKET_LOCATION) } });
}

/** Returns the number of sockets that have no series of their own. */
std::size_t write_sockets(Writer &writer, const Dump &sockets)
{
	std::vector<Row> rows, ledgers;
	std::vector<const Record *> others, other_ledgers;
	for (const Record &socket : sockets.entries) {
		const Record *ledger = socket.nest(MOX_CAPTURE_SOCKET_COUNTERS);
		if (rows.size() < kMostSeries) {
			rows.push_back({ &socket, socket_labels(socket) });
			if (ledger)
				ledgers.push_back({ ledger, rows.back().labels });
		} else {
			others.push_back(&socket);
			if (ledger)
				other_ledgers.push_back(ledger);
		}
	}
	Record other = sum_of(Set::kSocket, others);
	Record other_ledger = sum_of(Set::kCounters, other_ledgers);
	const std::string labels = labels_text({ { "process", "other" } });
	if (!others.empty()) {
		rows.push_back({ &other, labels });
		ledgers.push_back({ &other_ledger, labels });
	}
	writer.counters("socket_", Set::kCounters, ledgers);
	for (std::uint16_t each : kSocketGauges)
		writer.attribute("socket_", Set::kSocket, each, false, rows);
	writer.begin("sockets", "Capture sockets.", false);
	writer.sample({}, sockets.entries.size());
	writer.begin("sockets_summed", "Capture sockets that are part of the process 'other'.",
		     false);
	writer.sample({}, others.size());
	return others.size();
}

void write_queues(Writer &writer, const Dump &queues)
{
	std::vector<Row> rows;
	for (const Record &queue : queues.entries)
		rows.push_back(
			{ &queue,
			  labels_text({ { "location",
					  location_label(queue, MOX_CAPTURE_QUEUE_LOCATION) },
					{ "cpu", std::to_string(queue.number(
							 MOX_CAPTURE_QUEUE_CPU)) } }) });
	for (std::uint16_t each :
	     { MOX_CAPTURE_QUEUE_LENGTH, MOX_CAPTURE_QUEUE_HELD, MOX_CAPTURE_QUEUE_COPIES,
	       MOX_CAPTURE_QUEUE_LIMIT, MOX_CAPTURE_QUEUE_CPU_HELD, MOX_CAPTURE_QUEUE_CPU_LIMIT })
		writer.attribute("queue_", Set::kQueue, each, false, rows);
}

void write_memory(Writer &writer, const Dump &memory)
{
	std::vector<Row> rows;
	for (const Record &entry : memory.entries)
		rows.push_back(
			{ &entry, labels_text({ { "name", std::string(entry.text(
								  MOX_CAPTURE_MEMORY_NAME)) } }) });
	writer.counters("memory_", Set::kMemory, rows,
			~bits_of(MOX_CAPTURE_MEMORY_FAILED, MOX_CAPTURE_MEMORY_REFUSED));
}

} // namespace

Status print_metrics(const Options &options, CaptureClient &client, const World &world)
{
	Dump locations = client.dump(MOX_CAPTURE_CMD_LOCATIONS);
	Dump sockets = client.dump(MOX_CAPTURE_CMD_SOCKETS);
	Dump queues = client.dump(MOX_CAPTURE_CMD_QUEUES);
	Dump memory = client.dump(MOX_CAPTURE_CMD_MEMORY);
	Record thread = client.ask(MOX_CAPTURE_CMD_THREAD);
	Record info = client.ask(MOX_CAPTURE_CMD_INFO);
	Problems problems;
	problems.check(locations, "locations");
	problems.check(sockets, "sockets");
	problems.check(queues, "queues");
	problems.check(memory, "counters");
	// An entry that is there twice would make the whole text invalid.
	if (sockets.interrupted || locations.interrupted || queues.interrupted ||
	    memory.interrupted) {
		Status status = problems.complain(world);
		world.complain("nothing was written; try again");
		return status;
	}

	std::string text;
	Writer writer(text);
	writer.begin("build", "The module: 1.", false);
	writer.sample(labels_text({ { "module", std::string(info.text(MOX_CAPTURE_INFO_MODULE)) },
				    { "version",
				      std::string(info.text(MOX_CAPTURE_INFO_MODULE_VERSION)) } }),
		      1);
	writer.attribute("", Set::kInfo, MOX_CAPTURE_INFO_RESTRICTED, false, { { &info, {} } });
	write_locations(writer, locations);
	std::size_t others = write_sockets(writer, sockets);
	write_queues(writer, queues);
	write_memory(writer, memory);
	writer.counters("thread_", Set::kThread, { { &thread, {} } });
	text += "# EOF\n";

	if (options.output.empty())
		world.print(text);
	else
		replace_file(options.output, text);
	if (others > 0)
		world.complain("there are more than " + std::to_string(kMostSeries) +
			       " sockets: " + std::to_string(others) +
			       " of them are summed up as the process \"other\"");
	return status_ok;
}

} // namespace moxctl
