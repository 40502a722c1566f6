/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include "hex.h"
#include "mox/error.h"
#include "mox/names.h"
#include "mox_version.h"
#include "words.h"

#include <algorithm>
#include <sstream>

namespace moxsend {
namespace {

constexpr char kExamples[] =
	"Examples:\n"
	"  moxsend --interface port1 arp request --sender-ip 10.0.0.1 --target-ip 10.0.0.2\n"
	"      Ask for an address, out of port1.\n"
	"  moxsend -i port1 --count 0 --rate 0.033 lldp --system-name ap-1 --capability bridge --capability wlan-ap\n"
	"      Announce the device every 30 seconds.\n"
	"  moxsend -i port1 --datagram --to 02:00:00:00:00:07 --ethertype eapol --hex 02010000\n"
	"      The module puts the MAC header in front, with the device's own address.\n"
	"  moxsend -i port1 --vlan 10 --flag no-acl --flag debug --pcap dhcp.pcap\n"
	"      Replay a capture into VLAN 10, past the access lists, with a trace of every frame.\n"
	"  moxsend --dry-run eapol identity --identity alice --from 02:00:00:00:00:01\n"
	"      Show the frame and send nothing.\n";

/** The words that are not frames. */
struct Words {
	std::string hex, hex_file;
	std::string interface, to, from, ether_type;
	std::string source_if, origin_if, l2_if, dst_l2_if;
	std::vector<std::string> flags;
	std::optional<unsigned> vlan, inner_vlan, word28, half38, wlan_id, ap_wlan_id, radio_id,
		proxy_capture;
	bool datagram = false;
	bool pad = false, no_pad = false;
};

std::string footer()
{
	std::ostringstream out;
	out << "\nSend flags:\n";
	for (const mox::Name &row : mox::send_flags()) {
		std::string head = "  " + std::string(row.alias());
		head.resize(std::max<std::size_t>(head.size() + 1, 20), ' ');
		out << head << row.meaning << "\n";
	}
	out << "The names of mox_packet.h (MOX_SEND_NO_ACL, ...) are accepted as well.\n\n"
	    << kExamples
	    << "\nFor the options of a command see moxsend arp --help, moxsend lldp --help and moxsend eapol --help.\n";
	return out.str();
}

void describe_source(CLI::App &app, Words &words, Options &options)
{
	app.add_option("-x,--hex", words.hex, "The frame in hexadecimal digits")
		->type_name("DIGITS");
	app.add_option("--hex-file", words.hex_file,
		       "Frames in hexadecimal, one a line (\"-\": standard input)")
		->type_name("FILE");
	app.add_option("-r,--pcap", options.pcap_file,
		       "All frames of a capture file (\"-\": standard input)")
		->type_name("FILE");
	auto pad = app.add_flag(
		"--pad", words.pad,
		"Fill short frames up to 60 bytes (default for arp, lldp and eapol)");
	app.add_flag("--no-pad", words.no_pad,
		     "Leave frames as short as they are (default for all others)")
		->excludes(pad);
}

void describe_destination(CLI::App &app, Words &words, Options &options)
{
	app.add_option("-i,--interface", words.interface,
		       "Destination interface (default: the platform decides)")
		->type_name("NAME|INDEX");
	app.add_flag("-b,--bind", options.bind,
		     "Bind the socket to the interface, and send without an address");
	app.add_flag("-d,--datagram", words.datagram,
		     "Let the module make the MAC header (SOCK_DGRAM)");
	app.add_option("-t,--to", words.to,
		       "Destination address of a datagram, or of arp, lldp and eapol")
		->type_name("MAC");
	app.add_option("--from", words.from,
		       "Source address of arp, lldp and eapol (default: the interface's)")
		->type_name("MAC");
	app.add_option("-e,--ethertype", words.ether_type, "EtherType of a datagram")
		->type_name("ETHERTYPE");
}

void describe_control(CLI::App &app, Words &words)
{
	struct {
		const char *name;
		std::string &word;
		const char *meaning;
	} const interfaces[] = {
		{ "--source-if", words.source_if, "Source interface" },
		{ "--origin-if", words.origin_if, "Original interface" },
		{ "--l2-if", words.l2_if, "Layer-2 interface" },
		{ "--dst-l2-if", words.dst_l2_if, "Destination layer-2 interface" },
	};
	for (const auto &each : interfaces)
		app.add_option(each.name, each.word, each.meaning)
			->type_name("NAME|INDEX")
			->group("Control record");

	struct {
		const char *name;
		std::optional<unsigned> &word;
		const char *meaning;
		unsigned most;
	} const numbers[] = {
		{ "--vlan", words.vlan, "VLAN id", MOX_SEND_VLAN_MASK },
		{ "--inner-vlan", words.inner_vlan, "Id of the second VLAN tag",
		  MOX_SEND_VLAN_MASK },
		{ "--wlan-id", words.wlan_id, "WLAN id", 0xffff },
		{ "--ap-wlan-id", words.ap_wlan_id, "AP WLAN id", 0xffff },
		{ "--radio-id", words.radio_id, "Radio id", 0xff },
		{ "--proxy-capture", words.proxy_capture, "Proxy-capture byte, with its flag",
		  0xff },
		{ "--word28", words.word28, "The platform's word at byte 28", 0xffffffff },
		{ "--half38", words.half38, "The platform's half word at byte 38", 0xffff },
	};
	for (const auto &each : numbers)
		app.add_option(each.name, each.word, each.meaning)
			->type_name("N")
			->check(CLI::Range(0u, each.most))
			->group("Control record");
	app.add_option("-f,--flag", words.flags, "Send flag, see below; may be given several times")
		->type_name("NAME")
		->expected(1)
		->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
		->allow_extra_args(false)
		->group("Control record");
}

void describe_run(CLI::App &app, Options &options)
{
	app.add_option("-c,--count", options.count,
		       "Times to send everything (default 1; 0: until interrupted)")
		->type_name("N")
		->check(CLI::Range(std::uint64_t{ 0 }, std::uint64_t{ 1 } << 62));
	app.add_option("--rate", options.rate, "Frames a second (default: as fast as possible)")
		->type_name("N")
		->check(CLI::Range(1e-6, 1e9));
	app.add_flag("-k,--continue-on-error", options.continue_on_error,
		     "Go on when a frame is refused");
	app.add_flag("-n,--dry-run", options.dry_run,
		     "Print the frames in hexadecimal, and send nothing");
	app.add_flag("--progress", options.progress,
		     "Print the progress, also when standard error is no terminal");
	app.add_flag("-q,--quiet", options.quiet, "Print no progress and no summary");
	app.add_flag("--stats", options.counters,
		     "End with a line of counters for scripts (name=value), also with --quiet");
}

/** The control record, when at least one of its fields was given: without one, the frame has no record. */
std::optional<mox_packet_ctrl_info> control_record(const Words &words,
						   const mox::InterfaceLookup &lookup)
{
	mox::SendControl control;
	bool given = !words.flags.empty();
	auto number = [&given](const std::optional<unsigned> &word, auto &field) {
		if (word) {
			field = static_cast<std::remove_reference_t<decltype(field)>>(*word);
			given = true;
		}
	};
	auto interface = [&](const std::string &word, std::uint32_t &field) {
		if (!word.empty()) {
			field = mox::parse_interface(word, lookup);
			given = true;
		}
	};
	interface(words.source_if, control.source_ifindex);
	interface(words.origin_if, control.origin_ifindex);
	interface(words.l2_if, control.l2_ifindex);
	interface(words.dst_l2_if, control.destination_l2_ifindex);
	number(words.vlan, control.vlan);
	number(words.inner_vlan, control.inner_vlan);
	number(words.word28, control.word28);
	number(words.half38, control.half38);
	number(words.wlan_id, control.wlan_id);
	number(words.ap_wlan_id, control.ap_wlan_id);
	number(words.radio_id, control.radio_id);
	if (words.proxy_capture)
		control.proxy_capture = static_cast<std::uint8_t>(*words.proxy_capture);
	for (const std::string &flag : words.flags)
		control.flags |= mox::parse_send_flag(flag);
	if (!given && !control.proxy_capture)
		return std::nullopt;
	return control.record();
}

void refuse_if(bool wrong, const char *text)
{
	if (wrong)
		throw mox::UsageError(text);
}

void look_up(const Words &words, const FrameWords &frame_words, const Machine &machine,
	     Options &options)
{
	bool built = frame_words.any();
	int sources = !words.hex.empty() + !words.hex_file.empty() + !options.pcap_file.empty() +
		      built;
	refuse_if(sources == 0,
		  "nothing to send: give --hex, --hex-file, --pcap, arp, lldp or eapol");
	refuse_if(
		sources > 1,
		"one thing at a time: --hex, --hex-file, --pcap, arp, lldp and eapol exclude each other");
	refuse_if(options.bind && words.interface.empty(),
		  "--bind needs the --interface to bind to");
	refuse_if(
		options.bind && words.datagram,
		"--bind does not go with --datagram: the destination address of a datagram is in the address that --bind "
		"leaves out");
	refuse_if(
		!words.ether_type.empty() && !words.datagram,
		"--ethertype goes with --datagram alone: a raw frame has its EtherType in its header");
	refuse_if(
		!words.to.empty() && !words.datagram && !built,
		"--to goes with --datagram, or with arp, lldp and eapol: other frames have their header already");
	refuse_if(!words.from.empty() && !built, "--from goes with arp, lldp and eapol alone");

	// Digits for a datagram are what follows the header; files and made frames have one, to take the rest from.
	options.has_header = !(words.datagram && (!words.hex.empty() || !words.hex_file.empty()));
	refuse_if(
		!options.has_header && (words.to.empty() || words.ether_type.empty()),
		"--datagram with hexadecimal digits needs --to MAC and --ethertype ETHERTYPE: the digits begin behind "
		"the header");
	refuse_if(options.count != 1 && options.pcap_file == "-",
		  "--count does not go with --pcap -: standard input can be read once only");

	if (words.datagram)
		options.kind = mox::SocketKind::kDatagram;
	if (!words.interface.empty())
		options.interface = mox::parse_interface(words.interface, machine.interface_index);
	if (!words.to.empty())
		options.to = mox::parse_mac(words.to);
	if (!words.ether_type.empty())
		options.ether_type = mox::parse_ether_type(words.ether_type);
	options.control = control_record(words, machine.interface_index);
	options.pad = built ? !words.no_pad : words.pad;
	options.hex_file = words.hex_file;

	if (!words.hex.empty())
		options.frames.push_back(parse_hex("--hex", words.hex));
	if (built) {
		FrameSurroundings around{ words.interface, options.interface, options.to,
					  std::nullopt, !words.datagram };
		if (!words.from.empty())
			around.from = mox::parse_mac(words.from);
		options.frames.push_back(build_frame(frame_words, around, machine));
	}
}

} // namespace

std::optional<Ending> read_options(int argc, const char *const *argv, const Machine &machine,
				   Options &options)
{
	CLI::App app{
		"Sends frames out through the forwarding platform, by the sockets of mox_ef_socket.",
		"moxsend"
	};
	app.set_version_flag("--version", "moxsend " MOX_VERSION, "Print the version and exit");
	Words words;
	FrameWords frame_words;
	describe_source(app, words, options);
	describe_destination(app, words, options);
	describe_control(app, words);
	describe_run(app, options);
	describe_frames(app, frame_words);
	app.footer(footer());
	try {
		app.parse(argc, argv);
		look_up(words, frame_words, machine, options);
	} catch (const CLI::ParseError &error) {
		std::ostringstream out, complaint;
		int status = app.exit(error, out, complaint);
		return status == 0 ? Ending{ 0, out.str() }
				   : Ending{ kUsageStatus, "moxsend: " + complaint.str() };
	} catch (const mox::UsageError &error) {
		return Ending{ kUsageStatus, std::string("moxsend: ") + error.what() + "\n" };
	} catch (const mox::SocketError &error) {
		return Ending{ kSystemStatus, std::string("moxsend: ") + error.what() + "\n" };
	}
	return std::nullopt;
}

} // namespace moxsend
