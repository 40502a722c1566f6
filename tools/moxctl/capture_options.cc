/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_options.h"

#include "mox/error.h"
#include "mox/names.h"
#include "switches.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>

#include <charconv>

namespace moxctl {
namespace {

void describe_watch(CLI::App &app, CaptureWords &words, Options &options)
{
	CLI::App *watch = add_command(
		app, "watch", "Frames per second of the locations, and of the ten busiest sockets",
		options, Action::kWatch);
	describe_selection(*watch, words);
	watch->add_option("--interval", options.interval, "Seconds between two samples (default 1)")
		->type_name("SECONDS")
		->check(CLI::Range(0.1, 3600.0));
	watch->add_option("--count", options.count, "End after so many (default: at a signal)")
		->type_name("N")
		->check(CLI::PositiveNumber);
	watch->add_flag("--json", options.json, "Print each as one line of JSON");
}

void describe_trace(CLI::App &app, CaptureWords &words, Options &options)
{
	CLI::App *trace = add_command(
		app, "trace",
		"Follow frames through the module: one line at each hook, delivery and send",
		options, Action::kTrace);
	struct {
		const char *name;
		std::string &word;
		const char *type;
		const char *what;
	} const criteria[] = {
		{ "--location", words.location, "LOCATION", "Frames at this location" },
		{ "--interface", words.interface, "NAME|INDEX",
		  "Frames that came in on this interface" },
		{ "--vlan", words.vlan, "ID", "Frames of this VLAN, 0 to 4095" },
		{ "--mac", words.mac, "MAC", "Frames from or to this MAC address" },
		{ "--ethertype", words.ether_type, "TYPE",
		  "Frames of this EtherType, hexadecimal or by name: 88cc, arp" },
		{ "--ip", words.address, "ADDRESS[/PREFIX]",
		  "Frames from or to this IP address or network" },
		{ "--protocol", words.protocol, "PROTOCOL",
		  "Frames of this IP protocol, by number or name: udp" },
		{ "--port", words.port, "PORT", "Frames from or to this TCP or UDP port" },
	};
	for (const auto &each : criteria)
		trace->add_option(each.name, each.word, each.what)->type_name(each.type);
	trace->add_option("--count", options.count, "End after so many records")
		->type_name("N")
		->check(CLI::PositiveNumber);
	trace->add_option("--seconds", options.seconds, "End after so many seconds")
		->type_name("N")
		->check(CLI::PositiveNumber);
	trace->add_flag("--json", options.json, "Print each record as one line of JSON");
	trace->footer("\nA frame is traced if it satisfies every criterion.\n");
}

void describe_metrics(CLI::App &app, Options &options)
{
	CLI::App *metrics = add_command(
		app, "metrics",
		"Counters as OpenMetrics text, for a node exporter's textfile collector", options,
		Action::kMetrics);
	metrics->add_option(
		       "-o,--output", options.output,
		       "Replace this file instead of printing: its readers see the old text or the new one")
		->type_name("FILE");
}

void describe_restrict(CLI::App &app, Options &options)
{
	CLI::App *restrict = app.add_subcommand(
		"restrict", "Let only privileged programs capture, and send requests");
	restrict->require_subcommand(1);
	struct {
		const char *name;
		Action action;
		const char *what;
	} const commands[] = {
		{ "on", Action::kRestrict,
		  "Opening a capture socket needs CAP_NET_RAW from now on, and a request of moxctl CAP_NET_ADMIN" },
		{ "off", Action::kLiftRestriction, "Lift the restriction" },
		{ "status", Action::kRestrictStatus, "Print whether the restriction is in force" },
	};
	for (const auto &each : commands)
		add_command(*restrict, each.name, each.what, options, each.action);
}

std::uint64_t parse_cookie(const std::string &text)
{
	std::uint64_t cookie = 0;
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), cookie);
	if (error != std::errc() || end != text.data() + text.size())
		throw mox::UsageError(
			"cookie \"" + text +
			"\" is not valid; allowed: a number, as \"moxctl show sockets\" has it");
	return cookie;
}

void add_address(const std::string &text, CaptureRequest &request)
{
	std::size_t slash = text.find('/');
	std::string address = text.substr(0, slash);
	std::uint8_t bytes[16];
	std::size_t length = inet_pton(AF_INET, address.c_str(), bytes) == 1    ? 4
			     : inet_pton(AF_INET6, address.c_str(), bytes) == 1 ? 16
										: 0;
	if (length == 0)
		throw mox::UsageError(
			"IP address \"" + text +
			"\" is not valid; allowed: an IPv4 or IPv6 address, or a network such as 10.0.0.0/8");
	request.add(MOX_CAPTURE_REQUEST_ADDRESS, { bytes, length });
	if (slash != std::string::npos)
		request.add(MOX_CAPTURE_REQUEST_PREFIX,
			    mox::parse_number("prefix length", text.substr(slash + 1), 0,
					      static_cast<std::uint32_t>(8 * length)));
}

CaptureRequest trace_request(const CaptureWords &words, const mox::InterfaceLookup &lookup)
{
	CaptureRequest request;
	if (!words.location.empty())
		request.add(MOX_CAPTURE_REQUEST_LOCATION, mox::parse_location(words.location));
	if (!words.interface.empty())
		request.add(MOX_CAPTURE_REQUEST_IFINDEX,
			    mox::parse_interface(words.interface, lookup));
	if (!words.vlan.empty())
		request.add(MOX_CAPTURE_REQUEST_VLAN,
			    mox::parse_number("VLAN id", words.vlan, 0, 0xfff));
	if (!words.mac.empty())
		request.add(MOX_CAPTURE_REQUEST_MAC, mox::parse_mac(words.mac));
	if (!words.ether_type.empty()) {
		if (mox::same_name(words.ether_type, "any"))
			throw mox::UsageError(
				"EtherType \"any\" selects nothing: leave --ethertype out");
		request.add(MOX_CAPTURE_REQUEST_ETHER_TYPE,
			    mox::parse_ether_type(words.ether_type));
	}
	if (!words.address.empty())
		add_address(words.address, request);
	if (!words.protocol.empty())
		request.add(MOX_CAPTURE_REQUEST_IP_PROTOCOL,
			    mox::parse_number("IP protocol", words.protocol, 0, 255,
					      mox::ip_protocol_names()));
	if (!words.port.empty())
		request.add(MOX_CAPTURE_REQUEST_PORT,
			    mox::parse_number("port", words.port, 1, 0xffff, mox::port_names()));
	return request;
}

} // namespace

CLI::App *add_command(CLI::App &parent, const char *name, const char *what, Options &options,
		      Action action)
{
	CLI::App *command = parent.add_subcommand(name, what);
	command->parse_complete_callback([&options, action] { options.action = action; });
	return command;
}

void describe_location(CLI::App &command, CaptureWords &words)
{
	command.add_option("--location", words.location, "Only this location")
		->type_name("LOCATION");
}

void describe_selection(CLI::App &command, CaptureWords &words)
{
	describe_location(command, words);
	command.add_option("--pid", words.pid, "Only sockets that this process opened")
		->type_name("PID");
	command.add_option("--cookie", words.cookie, "Only the socket with this cookie")
		->type_name("COOKIE");
}

void describe_capture(CLI::App &app, CaptureWords &words, Options &options)
{
	describe_watch(app, words, options);
	describe_metrics(app, options);
	describe_trace(app, words, options);
	describe_restrict(app, options);
	CLI::App *info = add_command(app, "info", "Version and features of the module", options,
				     Action::kInfo);
	info->add_flag("--json", options.json, "Print them as JSON");
}

void look_up_capture(const CaptureWords &words, const mox::InterfaceLookup &lookup,
		     Options &options)
{
	if (options.action == Action::kTrace) {
		options.trace = trace_request(words, lookup);
		return;
	}
	if (!words.location.empty())
		options.selection.location = options.action == Action::kShowRules
						     ? parse_reported_location(words.location)
						     : mox::parse_location(words.location);
	if (!words.pid.empty())
		options.selection.pid = mox::parse_number("process id", words.pid, 1, 0x7fffffff);
	if (!words.cookie.empty())
		options.selection.cookie = parse_cookie(words.cookie);
	if (options.action == Action::kShowRules)
		options.location = options.selection.location;
	bool by_socket = options.selection.pid || options.selection.cookie;
	bool by_location = options.selection.location != 0 && options.action != Action::kShowRules;
	if (options.log && (by_socket || by_location))
		throw mox::UsageError(
			"the reports in the kernel log cannot be selected like this: leave --log out, or ask with "
			"\"moxctl show process\" or \"moxctl show rules LOCATION\"");
}

} // namespace moxctl
