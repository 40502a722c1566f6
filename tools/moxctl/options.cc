/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include "capture_options.h"
#include "filter_options.h"
#include "mox/error.h"
#include "mox_version.h"
#include "status.h"
#include "switches.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace moxctl {
namespace {

constexpr char kExamples[] =
	"\nExamples:\n"
	"  moxctl show losses\n"
	"      Where frames were lost, with the reason and the remedy.\n"
	"  moxctl show rules lev2\n"
	"      Who captures what at layer 2.\n"
	"  moxctl show rules --json | jq '.locations[].sockets[] | [.process, .counters.rcvbuf_full_drops]'\n"
	"      The process and the dropped frames of every socket, for a script.\n"
	"  moxctl debug on && dmesg -w\n"
	"      The module's debug lines as they come, until \"moxctl debug off\".\n"
	"  moxctl debug on && moxctl filter set --src-ip 10.0.0.17\n"
	"      Set the debug filter; the module prints its fields while debugging is on.\n"
	"  moxctl hook off wlan; sleep 10; moxctl hook on wlan\n"
	"      Let frames pass the WLAN location by for ten seconds.\n"
	"  moxctl tech --output tech.txt\n"
	"      Write all reports to one file.\n"
	"  moxctl watch\n"
	"      Rates of locations and of the busiest sockets, until a signal.\n"
	"  moxctl trace --interface port1 --ethertype arp --count 10\n"
	"      What becomes of the next ten ARP frames of a port.\n"
	"  moxctl metrics --output /var/lib/prometheus/node-exporter/mox_capture.prom\n"
	"      Counters for a node exporter.\n"
	"\n"
	"Exit status: 0 success, 1 failure, 2 wrong command line, 3 incomplete report, 4 no answer in time.\n";

/** The words as they were typed, before anything is looked up. */
struct Words {
	std::string location;
	std::string process;
	bool process_by_name = false;
	std::vector<std::string> paths;
	std::string hook;
	FilterWords filter;
	CaptureWords capture;
};

void describe_show(CLI::App &app, Words &words, Options &options)
{
	CLI::App *show = app.add_subcommand("show", "Print a report");
	show->require_subcommand(1);
	CLI::App *rules = add_command(*show, "rules", "Rules of the sockets, by location", options,
				      Action::kShowRules);
	rules->add_option("location", words.location, "Only this location (default: all eight)")
		->type_name("LOCATION");
	rules->footer("\nLocations:\n" + reported_location_help());
	CLI::App *queues = add_command(
		*show, "queues", "Buffers that wait for the copy thread, for each location and CPU",
		options, Action::kShowQueues);
	CLI::App *memory = add_command(*show, "memory",
				       "Counters of rule memory and socket buffers", options,
				       Action::kShowMemory);
	CLI::App *thread = add_command(*show, "thread", "Counters of the copy thread", options,
				       Action::kShowThread);
	CLI::App *process = add_command(*show, "process", "Sockets and rules of one process",
					options, Action::kShowProcess);
	process->add_option("process", words.process,
			    "Process id, or the name of the process that opened the sockets")
		->required()
		->type_name("NAME|PID");
	process->add_flag("--name", words.process_by_name,
			  "The argument is a name even if it is a number");
	CLI::App *sockets = add_command(*show, "sockets", "Capture sockets and their counters",
					options, Action::kShowSockets);
	CLI::App *losses = add_command(
		*show, "losses",
		"Where frames were lost, the reason and the remedy, for each location and socket",
		options, Action::kShowLosses);
	losses->add_flag("--all", options.all, "Counters that are 0 as well");
	for (CLI::App *each : { sockets, rules, losses })
		describe_selection(*each, words.capture);
	describe_location(*queues, words.capture);
	for (CLI::App *each : { rules, queues, memory, thread })
		each->add_flag("--log", options.log,
			       "The report that the module prints to the kernel log");
	for (CLI::App *each : { sockets, rules, losses, queues, memory, thread, process })
		each->add_flag("--json", options.json, "Print the report as JSON");
}

void describe_debug(CLI::App &app, Words &words, Options &options)
{
	CLI::App *debug = app.add_subcommand("debug", "Set debug switches");
	debug->require_subcommand(1);
	for (bool on : { true, false }) {
		CLI::App *command = debug->add_subcommand(on ? "on" : "off",
							  on ? "Set switches" : "Clear switches");
		command->parse_complete_callback([&options, on] {
			options.action = Action::kSwitches;
			options.is_open = on;
		});
		command->add_option("path", words.paths, "Switches (default: general)")
			->type_name("PATH");
		command->footer("\nPaths:\n" + debug_path_help());
	}
}

void describe_hook(CLI::App &app, Words &words, Options &options)
{
	CLI::App *hook = app.add_subcommand("hook",
					    "Take the module's hooks away, or put them back");
	hook->require_subcommand(1);
	for (bool off : { true, false }) {
		CLI::App *command = hook->add_subcommand(
			off ? "off" : "on",
			off ? "Take a hook away: frames pass the location by, and none is captured there"
			    : "Put a hook back, if a socket has rules at its location");
		command->parse_complete_callback([&options, off] {
			options.action = Action::kSwitches;
			options.is_open = off;
		});
		command->add_option("location", words.hook, "Location, or all")
			->required()
			->type_name("LOCATION|all");
		command->footer(
			(off ? "\nThe hook stays away until \"hook on\", or until a socket comes, goes or changes its "
			       "rule there.\n\nLocations:\n"
			     : "\nLocations:\n") +
			hook_help());
	}
}

void describe_filter(CLI::App &app, Words &words, Options &options)
{
	CLI::App *filter = app.add_subcommand("filter", "Set the debug packet filter");
	filter->require_subcommand(1);
	CLI::App *set = add_command(
		*filter, "set",
		"Replace the filter: a packet matches if it satisfies every criterion", options,
		Action::kFilter);
	struct {
		const char *name;
		std::string &word;
		const char *type;
		const char *what;
	} const criteria[] = {
		{ "--vlan", words.filter.vlan, "ID", "VLAN id, 0 to 4095" },
		{ "--src-mac", words.filter.src_mac, "MAC", "Source MAC address" },
		{ "--dst-mac", words.filter.dst_mac, "MAC", "Destination MAC address" },
		{ "--src-if", words.filter.src_if, "NAME|INDEX",
		  "Interface that the packet came in on" },
		{ "--dst-if", words.filter.dst_if, "NAME|INDEX",
		  "Interface that the packet leaves by" },
		{ "--src-ip", words.filter.src_ip, "ADDRESS", "Source address, IPv4 or IPv6" },
		{ "--dst-ip", words.filter.dst_ip, "ADDRESS", "Destination address, IPv4 or IPv6" },
	};
	for (const auto &each : criteria)
		set->add_option(each.name, each.word, each.what)->type_name(each.type);
	set->footer(
		"\nThe filter prints nothing and hides nothing: only the platform's trace mark makes a frame leave "
		"lines.\n");
	set->add_flag("--every-packet", words.filter.every_packet,
		      "No criterion: every packet matches");
	add_command(*filter, "off", "Put no filter in force", options, Action::kFilter);
}

void describe_tech(CLI::App &app, Options &options)
{
	CLI::App *tech = add_command(app, "tech",
				     "Write all reports to the dump file, and print it", options,
				     Action::kTech);
	tech->add_option("-o,--output", options.output,
			 "Save it to this file instead of printing it")
		->type_name("FILE");
	tech->add_option("-t,--timeout", options.timeout,
			 "Seconds to wait for the answer (default 10)")
		->type_name("SECONDS")
		->check(CLI::Range(0.0, 86400.0));
}

void look_up_process(const Words &words, Options &options)
{
	bool number = !words.process.empty() && !words.process_by_name &&
		      std::all_of(words.process.begin(), words.process.end(),
				  [](unsigned char c) { return std::isdigit(c) != 0; });
	if (number) {
		options.pid = mox::parse_number("process id", words.process, 1, 0x7fffffff);
		return;
	}
	if (words.process.empty())
		throw mox::UsageError("the process name is empty");
	// The kernel keeps no more of a name than this, so a longer one could never be found.
	constexpr std::size_t longest = MOX_PACKET_NAME_SIZE - 1;
	options.process = words.process.substr(0, longest);
	if (words.process.size() > longest)
		options.note = "process names have 15 characters at most: looking for \"" +
			       options.process + "\"";
}

void look_up(const CLI::App &app, Words &words, const mox::InterfaceLookup &lookup,
	     Options &options)
{
	switch (options.action) {
	case Action::kShowRules:
		if (!words.location.empty() && !words.capture.location.empty())
			throw mox::UsageError("the location is given twice");
		if (!words.location.empty())
			words.capture.location = words.location;
		break;
	case Action::kShowProcess:
		look_up_process(words, options);
		break;
	case Action::kSwitches:
		if (app.got_subcommand("hook")) {
			options.switches = { parse_hook(words.hook) };
		} else {
			for (const std::string &path : words.paths)
				for (std::uint32_t type : parse_debug_path(path))
					options.switches.push_back(type);
			if (words.paths.empty())
				options.switches = { MOX_DEBUG_GENERAL };
		}
		break;
	case Action::kFilter:
		if (app.get_subcommand("filter")->got_subcommand("set"))
			options.filter = make_filter(words.filter, lookup);
		break;
	default:
		break;
	}
	look_up_capture(words.capture, lookup, options);
}

/** What is wrong, with the list of commands where one is missing or unknown. */
std::string complaint_of(const CLI::App &app, const CLI::Error &error)
{
	const CLI::App *deepest = &app;
	while (!deepest->get_subcommands().empty())
		deepest = deepest->get_subcommands().front();
	std::string text = error.what(), names;
	for (const CLI::App *each : deepest->get_subcommands({}))
		names += (names.empty() ? "" : ", ") + each->get_name();
	if (std::vector<std::string> words = app.remaining(true); !names.empty() && !words.empty())
		text = "\"" + words.front() + "\" is unknown";
	if (!names.empty())
		text += "; commands of \"" + deepest->get_display_name() + "\": " + names;
	return text;
}

} // namespace

std::optional<Ending> read_options(int argc, const char *const *argv,
				   const mox::InterfaceLookup &lookup, Options &options)
{
	CLI::App app{
		"Reads what the capture module mox_ef_socket does with frames, and switches its debugging and its hooks.",
		"moxctl"
	};
	app.set_version_flag("--version", "moxctl " MOX_VERSION, "Print the version and exit");
	app.require_subcommand(1);
	app.footer(kExamples);
	Words words;
	describe_show(app, words, options);
	describe_debug(app, words, options);
	describe_hook(app, words, options);
	describe_filter(app, words, options);
	describe_tech(app, options);
	describe_capture(app, words.capture, options);
	try {
		app.parse(argc, argv);
		look_up(app, words, lookup, options);
	} catch (const CLI::ParseError &error) {
		std::ostringstream out, complaint;
		if (app.exit(error, out, complaint) == 0)
			return Ending{ status_ok, out.str() };
		return Ending{ status_usage,
			       "moxctl: " + complaint_of(app, error) + "; see --help\n" };
	} catch (const mox::UsageError &error) {
		return Ending{ status_usage, std::string("moxctl: ") + error.what() + "\n" };
	}
	return std::nullopt;
}

} // namespace moxctl
