/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include "mox/error.h"
#include "mox/names.h"
#include "mox_version.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace moxcap {
namespace {

constexpr char kExamples[] =
	"Examples:\n"
	"  moxcap --location lev2 --rule eth=arp\n"
	"      Show ARP; the platform forwards the frames.\n"
	"  moxcap --location ipv4 --rule dport=67,68 --hex --write dhcp.pcap\n"
	"      Show DHCP with its bytes, and keep it for other programs.\n"
	"  moxcap --location local --quiet --pcapng --write local.pcapng\n"
	"      Write what the device sends, with interfaces and control records, for Wireshark.\n"
	"  moxcap --location resv --treatment fetch --rule dmac=01:80:c2:00:00:0e --interface port1\n"
	"      Take LLDP off the pipeline, from one port only.\n"
	"  moxcap --location ipv6 --treatment trap --rule icmp6=echo-request --count 3\n"
	"      Trap three echo requests: no other socket gets them.\n"
	"\n"
	"A frame is captured if it matches every rule type that is given, with one of the type's values.\n"
	"Without any rule every frame of the location is captured.\n";

template <typename Row> bool shown_in_help(const Row &)
{
	return true;
}

bool shown_in_help(const mox::Name &row)
{
	return row.aliases != "none" &&
	       !(row.full.ends_with("_LOC") && !mox::location_is_open(row.value));
}

template <typename Table> void list(std::ostream &out, const char *title, const Table &table)
{
	out << title << ":\n";
	for (const auto &row : table)
		if (shown_in_help(row)) {
			std::string head = "  " + std::string(row.aliases);
			head.resize(std::max<std::size_t>(head.size() + 1, 20), ' ');
			out << head << row.meaning << "\n";
		}
	out << "\n";
}

std::string footer()
{
	std::ostringstream out;
	out << "\n";
	list(out, "Locations", mox::locations());
	list(out, "Treatments", mox::treatments());
	list(out, "Rule types", mox::rule_types());
	out << "The full names of mox_packet.h (PACKET_LEV2_LOC, PACKET_ETH_PROT_EQUAL, ...) are accepted as well.\n\n"
	    << kExamples;
	return out.str();
}

/** The words as they were typed, before anything is looked up. */
struct Words {
	std::string location = "lev2";
	std::string treatment = "copy";
	std::vector<std::string> rules;
	std::string interface;
	std::string protocol;
	bool datagram = false;
};

void describe_command_line(CLI::App &app, Words &words, Options &options)
{
	app.add_option("-l,--location", words.location,
		       "Point of the pipeline to capture at (default lev2)")
		->type_name("NAME");
	app.add_option("-t,--treatment", words.treatment,
		       "What happens to a frame that matches (default copy)")
		->type_name("NAME");
	app.add_option("-r,--rule", words.rules, "Frames to capture; may be given several times")
		->type_name("TYPE[=VALUE,...]")
		->expected(1)
		->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
		->allow_extra_args(false);
	app.add_option("-i,--interface", words.interface,
		       "Only frames that came in on this interface")
		->type_name("NAME|INDEX");
	app.add_option("-p,--protocol", words.protocol,
		       "Open the socket with this EtherType, a rule by itself")
		->type_name("ETHERTYPE");
	app.add_flag("--dgram", words.datagram,
		     "Receive frames without their layer-2 header (SOCK_DGRAM)");
	app.add_option("-c,--count", options.count, "End after so many frames")
		->type_name("N")
		->check(CLI::Range(std::uint64_t{ 1 }, std::uint64_t{ 1 } << 62));
	app.add_option("-d,--duration", options.duration, "End after so many seconds")
		->type_name("SECONDS")
		->check(CLI::Range(0.0, 1e9));
	CLI::Option *write =
		app.add_option("-w,--write", options.file,
			       "Write the frames to a pcap file as well (\"-\": standard output)")
			->type_name("FILE");
	app.add_flag("--pcapng", options.pcapng,
		     "Write a pcapng file: with the interface and the control record of each frame")
		->needs(write);
	app.add_flag_callback(
		"--no-vlan", [&options] { options.vlan_tags = false; },
		"Write frames without the VLAN tags that the platform took off");
	app.add_option("-s,--snap", options.snap,
		       "Read no more than so many bytes of a frame (default 65535)")
		->type_name("BYTES")
		->check(CLI::Range(1, 65535));
	app.add_option("-b,--buffer", options.buffer, "Receive buffer of the socket (SO_RCVBUF)")
		->type_name("BYTES")
		->check(CLI::Range(1, 1 << 30));
	app.add_option("--label", options.label, "Put [TEXT] in front of every line")
		->type_name("TEXT");
	app.add_flag("-x,--hex", options.hex, "Show the bytes of every frame");
	app.add_flag("-q,--quiet", options.quiet, "Show no frames and no summary");
	app.add_flag("--stats", options.counters,
		     "End with a line of counters for scripts (name=value), also with --quiet");
	app.footer(footer());
}

/** The rules as one line; a protocol and an interface are rules, too. */
std::string rule_text(const Words &words)
{
	std::vector<std::string> rules = words.rules;
	if (!words.protocol.empty())
		rules.insert(rules.begin(), "eth=" + words.protocol);
	if (!words.interface.empty())
		rules.push_back("intf=" + words.interface);
	std::string text;
	for (const std::string &rule : rules)
		text += (text.empty() ? "" : " and ") + rule;
	return text.empty() ? "all" : text;
}

void look_up(const Words &words, const mox::InterfaceLookup &lookup, Options &options)
{
	options.location = mox::parse_location(words.location);
	options.treatment = mox::parse_treatment(words.treatment);
	if (words.datagram)
		options.kind = mox::SocketKind::kDatagram;
	if (!words.protocol.empty())
		options.protocol = mox::parse_ether_type(words.protocol);
	for (const std::string &rule : words.rules)
		options.rules.push_back(mox::Rule::parse(rule, lookup));
	options.rule_text = rule_text(words);

	// Nothing in a frame says that it is an 802.11 frame: only rules can exclude all others.
	bool wlan_only = !options.rules.empty() &&
			 std::all_of(options.rules.begin(), options.rules.end(),
				     [](const mox::Rule &rule) {
					     return rule.type().value == PACKET_WLAN_MGNT ||
						    rule.type().value == PACKET_PID_T;
				     }) &&
			 std::any_of(options.rules.begin(), options.rules.end(),
				     [](const mox::Rule &rule) {
					     return rule.type().value == PACKET_WLAN_MGNT;
				     });
	options.layout = wlan_only        ? Layout::kWlan
			 : words.datagram ? Layout::kNetwork
					  : Layout::kEthernet;

	if (!words.interface.empty()) {
		mox::Rule from(PACKET_SRC_INTF_EQUAL);
		from.add_value(words.interface, lookup);
		options.interface = mox::parse_interface(words.interface, lookup);
		options.rules.push_back(from);
	}
	options.rules = mox::in_filing_order(std::move(options.rules), options.protocol != 0);
}

} // namespace

std::optional<Ending> read_options(int argc, const char *const *argv,
				   const mox::InterfaceLookup &lookup, Options &options)
{
	CLI::App app{
		"Captures frames from the forwarding platform through the capture sockets of mox_ef_socket.",
		"moxcap"
	};
	app.set_version_flag("--version", "moxcap " MOX_VERSION, "Print the version and exit");
	Words words;
	describe_command_line(app, words, options);
	try {
		app.parse(argc, argv);
		look_up(words, lookup, options);
	} catch (const CLI::ParseError &error) {
		std::ostringstream out, complaint;
		int status = app.exit(error, out, complaint);
		return status == 0 ? Ending{ 0, out.str() }
				   : Ending{ kUsageStatus, "moxcap: " + complaint.str() };
	} catch (const mox::UsageError &error) {
		return Ending{ kUsageStatus, std::string("moxcap: ") + error.what() + "\n" };
	}
	return std::nullopt;
}

} // namespace moxcap
