// SPDX-License-Identifier: GPL-2.0-only
/*
 * Prints what moxctl prints of a module with samples of everything, for the tests in Python that compare it with other
 * programs' view of the formats.
 *
 * usage: moxctl_samples json | metrics | many
 */
#include "commands_fixture.h"
#include "fake_capture.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace {

using nlohmann::json;

/** Commands against a module whose entries the caller sets. */
class Samples : public Commands {
public:
	Samples() { SetUp(); }
	~Samples() override { TearDown(); }
	void TestBody() override {}

	std::string print(Action action, bool as_json)
	{
		options.action = action;
		options.json = as_json;
		options.count = action == Action::kWatch;
		printed.clear();
		run();
		return printed;
	}

	using Commands::now;
	using Commands::options;
	using Commands::stopped;
	FakeCapture module{ netlink };
};

void fill(FakeCapture &module)
{
	auto forwarded = sample_location(PACKET_RESV_LOC);
	auto in_flight = sample_socket(18, "d\xff\"\\\n", PACKET_RESV_LOC);
	in_flight.u32(MOX_CAPTURE_SOCKET_QUEUE, 9).flag(MOX_CAPTURE_SOCKET_FILTERED);
	auto code = sample_rule_head(18, "d\xff\"\\\n", 2, PACKET_RESV_LOC);
	code.nest(MOX_CAPTURE_RULE_VALUE, sample_value(PACKET_PACKET_CODE_EQUAL, { 7, 1 }, 0))
		.nest(MOX_CAPTURE_RULE_VALUE, sample_value(PACKET_ALL, {}, 0));
	auto send = Attributes();
	send.u32(MOX_CAPTURE_TRACE_HOP, MOX_CAPTURE_HOP_SEND)
		.u32(MOX_CAPTURE_TRACE_VERDICT, MOX_CAPTURE_VERDICT_REFUSED)
		.u64(MOX_CAPTURE_TRACE_TIME, 1)
		.u32(MOX_CAPTURE_TRACE_CPU, 0)
		.s32(MOX_CAPTURE_TRACE_ERROR, -100);
	module.entries = {
		{ MOX_CAPTURE_CMD_INFO, { sample_info() } },
		{ MOX_CAPTURE_CMD_LOCATIONS,
		  { sample_location(), sample_location(PACKET_LEV2_LOC, 0),
		    sample_location(PACKET_LEV2_LOC, 1), forwarded } },
		{ MOX_CAPTURE_CMD_SOCKETS, { sample_socket(), in_flight } },
		{ MOX_CAPTURE_CMD_RULES, { sample_rule(), code } },
		{ MOX_CAPTURE_CMD_QUEUES, { sample_queue(0), sample_queue(1) } },
		{ MOX_CAPTURE_CMD_MEMORY, sample_memory() },
		{ MOX_CAPTURE_CMD_THREAD, { sample_thread() } },
	};
	module.events = {
		sample_trace().u64(MOX_CAPTURE_TRACE_SINCE, 5).u64(MOX_CAPTURE_TRACE_LOST, 3), send
	};
}

/** Entries with nothing but the attributes that identify them. */
void fill_poorly(FakeCapture &module)
{
	module.entries[MOX_CAPTURE_CMD_SOCKETS] = { Attributes().u64(MOX_CAPTURE_SOCKET_COOKIE,
								     1) };
	module.entries[MOX_CAPTURE_CMD_RULES] = { Attributes().u64(MOX_CAPTURE_RULE_COOKIE, 1) };
	module.entries[MOX_CAPTURE_CMD_LOCATIONS] = { Attributes().u32(
		MOX_CAPTURE_LOCATION_LOCATION, 2) };
	module.entries[MOX_CAPTURE_CMD_QUEUES] = {
		Attributes().u32(MOX_CAPTURE_QUEUE_LOCATION, 2).u32(MOX_CAPTURE_QUEUE_CPU, 0)
	};
	module.entries[MOX_CAPTURE_CMD_THREAD] = { Attributes() };
	module.entries[MOX_CAPTURE_CMD_INFO] = { Attributes() };
	module.events = { Attributes().u32(MOX_CAPTURE_TRACE_VERDICT, 99) };
}

/** Everything that every command prints as JSON, by command: a rich module, a poor one, one that changes. */
json documents()
{
	struct {
		const char *name;
		Action action;
		bool lines;
	} const commands[] = {
		{ "show sockets", Action::kShowSockets, false },
		{ "show rules", Action::kShowRules, false },
		{ "show losses", Action::kShowLosses, false },
		{ "show queues", Action::kShowQueues, false },
		{ "show memory", Action::kShowMemory, false },
		{ "show thread", Action::kShowThread, false },
		{ "info", Action::kInfo, false },
		{ "watch", Action::kWatch, true },
		{ "trace", Action::kTrace, true },
	};
	json all = json::object();
	for (const auto &command : commands) {
		json &list = all[command.name] = json::array();
		for (int kind = 0; kind < 4; ++kind) {
			Samples samples;
			if (kind == 0 || kind == 3)
				fill(samples.module);
			else if (kind == 1)
				fill_poorly(samples.module);
			else
				samples.module.entries[MOX_CAPTURE_CMD_THREAD] =
					samples.module.entries[MOX_CAPTURE_CMD_INFO] = {
						Attributes()
					};
			samples.options.all = kind != 0;
			samples.module.interrupted = kind == 3 ? 1000 : 0;
			// A trace without records ends by time.
			samples.options.seconds = 1;
			samples.stopped = [&samples, rounds = 0]() mutable {
				samples.now += std::chrono::milliseconds(400);
				return samples.options.action == Action::kTrace && ++rounds > 3;
			};
			std::string text = samples.print(command.action, true);
			if (command.lines)
				for (std::size_t at = 0, end; at < text.size(); at = end + 1) {
					end = text.find('\n', at);
					list.push_back(json::parse(text.substr(at, end - at)));
				}
			else
				list.push_back(json::parse(text));
		}
	}
	return all;
}

} // namespace

int main(int argc, char **argv)
{
	std::string what = argc == 2 ? argv[1] : "";
	if (what == "json") {
		std::puts(documents().dump(1).c_str());
		return 0;
	}
	if (what == "metrics" || what == "many") {
		Samples samples;
		fill(samples.module);
		for (std::uint64_t i = 0; what == "many" && i < 1500; ++i)
			samples.module.entries[MOX_CAPTURE_CMD_SOCKETS].push_back(
				sample_socket(100 + i));
		std::fputs(samples.print(Action::kMetrics, false).c_str(), stdout);
		return 0;
	}
	std::fputs("usage: moxctl_samples json | metrics | many\n", stderr);
	return 2;
}
