/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include "mox_version.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <arpa/inet.h>

#include <charconv>
#include <sstream>

namespace lldp {
namespace {

constexpr std::size_t kLongestText = 255; // bytes that a TLV of text holds
constexpr char kExamples[] =
	"\nExamples:\n"
	"  lldpagent --port 3=port1 --port 4=port2 --name ap-lobby --management 10.0.0.1\n"
	"      Announce the device on two ports of the platform, and keep their neighbours.\n"
	"  lldpagent show\n"
	"      Print the neighbours and counters of the running agent.\n"
	"  lldpagent show --json | jq .neighbours\n"
	"\n"
	"SIGTERM and SIGINT end the agent; it announces a shutdown to its neighbours.\n"
	"Exit status: 0 success, or ended by a signal; 1 a system call failed, or no agent answers; 2 wrong command line.\n";

class UsageError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

Port port_of(const std::string &word)
{
	std::size_t equals = word.find('=');
	std::string index = word.substr(0, equals);
	Port port;
	auto [end, error] = std::from_chars(index.data(), index.data() + index.size(),
					    port.ifindex);
	if (equals == std::string::npos || error != std::errc{} ||
	    end != index.data() + index.size() || port.ifindex == 0)
		throw UsageError(
			"--port \"" + word +
			"\": give the platform's interface index and a name, as in 3=port1");
	port.name = word.substr(equals + 1);
	if (port.name.empty() || port.name.size() > kLongestText)
		throw UsageError("--port \"" + word + "\": the name has 1 to 255 bytes");
	return port;
}

std::vector<Port> ports_of(const std::vector<std::string> &words)
{
	std::vector<Port> ports;
	for (const std::string &word : words) {
		Port port = port_of(word);
		for (const Port &other : ports)
			if (other.ifindex == port.ifindex || other.name == port.name)
				throw UsageError("--port \"" + word +
						 "\": index or name was given before");
		ports.push_back(port);
	}
	return ports;
}

Mac mac_of(const std::string &word)
{
	Mac mac;
	unsigned value[6];
	char rest;
	if (std::sscanf(word.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &value[0], &value[1], &value[2],
			&value[3], &value[4], &value[5], &rest) != 6)
		throw UsageError("--chassis \"" + word +
				 "\": give a MAC address, as in 02:00:00:00:00:01");
	for (std::size_t i = 0; i < mac.size(); ++i)
		mac[i] = static_cast<std::uint8_t>(value[i]);
	return mac;
}

ManagementAddress management_of(const std::string &word)
{
	ManagementAddress address;
	std::uint8_t bytes[16];
	if (inet_pton(AF_INET, word.c_str(), bytes) == 1) {
		address.family = family_ipv4;
		address.address.assign(bytes, bytes + 4);
	} else if (inet_pton(AF_INET6, word.c_str(), bytes) == 1) {
		address.family = family_ipv6;
		address.address.assign(bytes, bytes + 16);
	} else {
		throw UsageError("--management \"" + word + "\": give an IPv4 or IPv6 address");
	}
	return address;
}

Capabilities capabilities_of(const std::vector<std::string> &words)
{
	Capabilities capabilities;
	for (const std::string &word : words) {
		std::uint16_t bit = capability_of(word);
		if (bit == 0)
			throw UsageError("--capabilities \"" + word +
					 "\" is unknown; allowed: " + all_capabilities());
		capabilities.available |= bit;
	}
	capabilities.enabled = capabilities.available;
	return capabilities;
}

/** The words as they were typed, before anything is looked up. */
struct Words {
	std::vector<std::string> ports, management, capabilities{ "bridge", "wlan-ap" };
	std::string chassis;
	bool json = false;
};

void describe_command_line(CLI::App &app, Words &words, Options &options)
{
	Identity &identity = options.identity;
	auto each_once = [](CLI::Option *option) {
		return option->expected(1)
			->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
			->allow_extra_args(false);
	};
	auto text_length = CLI::Validator(
		[](std::string &text) {
			return text.size() > kLongestText ? "is longer than 255 bytes" : "";
		},
		"");

	each_once(app.add_option("-p,--port", words.ports,
				 "A port to announce on, and its name; may be given several times"))
		->type_name("INDEX=NAME");
	app.add_option("-i,--interval", identity.interval,
		       "Seconds between announcements (default 30)")
		->type_name("SECONDS")
		->check(CLI::Range(1u, 3600u));
	app.add_option("--hold", identity.hold, "The TTL in intervals (default 4)")
		->type_name("N")
		->check(CLI::Range(1u, 100u));
	app.add_option("-n,--name", identity.name, "System name (default: the host's)")
		->type_name("TEXT")
		->check(text_length);
	app.add_option("-d,--description", identity.description,
		       "System description (default: the kernel's)")
		->type_name("TEXT")
		->check(text_length);
	app.add_option("-c,--capabilities", words.capabilities,
		       "What the device is, all of it enabled (default bridge,wlan-ap): " +
			       all_capabilities())
		->type_name("NAME,...")
		->delimiter(',');
	each_once(app.add_option("-m,--management", words.management,
				 "Management address of the device; may be given several times"))
		->type_name("ADDRESS");
	app.add_option("--chassis", words.chassis, "Chassis id (default: the first port's)")
		->type_name("MAC");
	app.add_option("--neighbours", options.most_of_a_port,
		       "Maximum number of neighbours of a port (default 32)")
		->type_name("N")
		->check(CLI::Range(1u, 1000u));
	app.add_option("-s,--status", options.status,
		       "Where the agent answers \"show\" (default /run/lldpagent.sock)")
		->type_name("PATH");
	app.add_flag("-q,--quiet", options.quiet,
		     "Print nothing about neighbours that appear and expire");
	app.footer(kExamples);

	CLI::App *show = app.add_subcommand("show",
					    "Print neighbours and counters of the running agent");
	show->add_flag("--json", words.json, "Print them as JSON");
	show->add_option("-s,--status", options.status,
			 "Where the agent answers (default /run/lldpagent.sock)")
		->type_name("PATH");
}

void look_up(const Words &words, Options &options)
{
	options.form = words.json ? StateForm::kJson : StateForm::kText;
	if (options.show)
		return;
	if (words.ports.empty())
		throw UsageError(
			"no port given; name at least one with --port INDEX=NAME (see --help)");
	options.ports = ports_of(words.ports);
	if (!words.chassis.empty())
		options.identity.chassis = mac_of(words.chassis);
	options.identity.capabilities = capabilities_of(words.capabilities);
	for (const std::string &word : words.management)
		options.identity.management.push_back(management_of(word));
}

} // namespace

std::optional<Ending> read_options(int argc, const char *const *argv, const Defaults &defaults,
				   Options &options)
{
	CLI::App app{
		"An LLDP agent: announces the device on ports of the forwarding platform and lists its neighbours.",
		"lldpagent"
	};
	app.set_version_flag("--version", "lldpagent " MOX_VERSION, "Print the version and exit");
	Words words;
	options.identity.name = defaults.name;
	options.identity.description = defaults.description;
	describe_command_line(app, words, options);
	try {
		app.parse(argc, argv);
		options.show = app.got_subcommand("show");
		look_up(words, options);
	} catch (const CLI::ParseError &error) {
		std::ostringstream out, complaint;
		int status = app.exit(error, out, complaint);
		return status == 0 ? Ending{ 0, out.str() }
				   : Ending{ kUsageStatus, "lldpagent: " + complaint.str() };
	} catch (const UsageError &error) {
		return Ending{ kUsageStatus, std::string("lldpagent: ") + error.what() + "\n" };
	}
	return std::nullopt;
}

} // namespace lldp
