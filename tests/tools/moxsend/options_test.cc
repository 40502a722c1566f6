/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include "hex.h"
#include "mox/error.h"
#include "mox/names.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

using moxsend::Bytes;

constexpr char own_mac[] = "020000000101";

moxsend::Machine machine()
{
	return { [](const std::string &name) {
			return name == "port1" ? 7u : name == "wan" ? 8u : 0u;
		},
		 [](std::uint32_t ifindex) -> std::optional<mox::MacAddress> {
			 if (ifindex == 7)
				 return mox::MacAddress{ 2, 0, 0, 0, 1, 1 };
			 if (ifindex == 8)
				 return std::nullopt;
			 throw mox::SocketError("cannot bind to interface 9", ENODEV);
		 } };
}

struct Parsed {
	moxsend::Options options;
	std::optional<moxsend::Ending> ending;
};

Parsed parse(std::vector<const char *> words)
{
	words.insert(words.begin(), "moxsend");
	Parsed result;
	result.ending = moxsend::read_options(static_cast<int>(words.size()), words.data(),
					      machine(), result.options);
	return result;
}

Bytes hex(std::string_view text)
{
	return moxsend::parse_hex("expected", text);
}

TEST(moxsend_options, hex_alone__one_raw_frame_to_wherever_the_platform_says)
{
	auto [options, ending] = parse({ "--hex", "01 02" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.frames, std::vector<Bytes>{ hex("0102") });
	EXPECT_EQ(options.kind, mox::SocketKind::kRaw);
	EXPECT_EQ(options.interface, 0u);
	EXPECT_EQ(options.count, 1u);
	EXPECT_EQ(options.rate, 0);
	EXPECT_TRUE(options.has_header);
	EXPECT_FALSE(options.control || options.to || options.ether_type);
	EXPECT_FALSE(options.bind || options.pad || options.continue_on_error || options.dry_run ||
		     options.progress || options.quiet || options.counters);
}

TEST(moxsend_options, everything_about_a_run)
{
	auto [options,
	      ending] = parse({ "-r", "a.pcap", "-i", "port1", "-b", "-c", "5", "--rate", "2.5",
				"-k", "-n", "--progress", "-q", "--stats", "--pad" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.pcap_file, "a.pcap");
	EXPECT_TRUE(options.frames.empty());
	EXPECT_EQ(options.interface, 7u);
	EXPECT_EQ(options.count, 5u);
	EXPECT_EQ(options.rate, 2.5);
	EXPECT_TRUE(options.bind && options.continue_on_error && options.dry_run &&
		    options.progress && options.quiet && options.counters && options.pad);
}

TEST(moxsend_options, control__each_option_is_its_field)
{
	struct {
		std::vector<const char *> words;
		std::size_t offset;
		Bytes bytes;
	} const cases[] = {
		{ { "--source-if", "port1" }, 0, { 7, 0, 0, 0 } },
		{ { "--origin-if", "258" }, 4, { 2, 1, 0, 0 } },
		{ { "--l2-if", "wan" }, 8, { 8, 0, 0, 0 } },
		{ { "--dst-l2-if", "4" }, 12, { 4, 0, 0, 0 } },
		{ { "--vlan", "4095" }, 18, { 0xff, 0x0f } },
		{ { "--inner-vlan", "10" }, 32, { 10, 0 } },
		{ { "--word28", "0xffffffff" }, 28, { 0xff, 0xff, 0xff, 0xff } },
		{ { "--half38", "0x102" }, 38, { 2, 1 } },
		{ { "--wlan-id", "258" }, 40, { 2, 1 } },
		{ { "--ap-wlan-id", "65535" }, 42, { 0xff, 0xff } },
		{ { "--radio-id", "3" }, 44, { 3 } },
		{ { "--flag", "no-acl" }, 24, { 0, 0, 4, 0 } },
		{ { "-f", "debug", "-f", "MOX_SEND_EF_40000" }, 24, { 6, 0, 0, 0 } },
	};
	for (const auto &each : cases) {
		auto words = each.words;
		words.insert(words.end(), { "--hex", "00" });
		auto [options, ending] = parse(words);
		ASSERT_FALSE(ending) << ending->text;
		ASSERT_TRUE(options.control) << words[0];
		Bytes expected(sizeof(mox_packet_ctrl_info)), record(sizeof(mox_packet_ctrl_info));
		std::copy(each.bytes.begin(), each.bytes.end(),
			  expected.begin() + static_cast<std::ptrdiff_t>(each.offset));
		std::memcpy(record.data(), &*options.control, record.size());
		EXPECT_EQ(record, expected) << words[0];
	}
}

TEST(moxsend_options, control__proxy_capture_brings_its_flag)
{
	auto options = parse({ "--proxy-capture", "0", "--hex", "00" }).options;
	ASSERT_TRUE(options.control);
	EXPECT_EQ(options.control->flags, 0x100000u);
	EXPECT_EQ(parse({ "--proxy-capture", "255", "--hex", "00" }).options.control->proxy_capture,
		  255);
}

TEST(moxsend_options, control__a_value_of_0_is_a_record_all_the_same)
{
	EXPECT_TRUE(parse({ "--vlan", "0", "--hex", "00" }).options.control);
}

TEST(moxsend_options, control__every_flag_by_its_name)
{
	std::vector<const char *> words = { "--hex", "00" };
	std::vector<std::string> names;
	std::uint32_t all = 0;
	for (const mox::Name &row : mox::send_flags()) {
		names.emplace_back(row.alias());
		all |= row.value;
	}
	for (const std::string &name : names)
		words.insert(words.end(), { "--flag", name.c_str() });
	EXPECT_EQ(parse(words).options.control->flags, all);
}

TEST(moxsend_options, datagram__digits_begin_behind_the_header)
{
	auto [options, ending] = parse({ "--datagram", "--to", "02:00:00:00:00:07", "--ethertype",
					 "lldp", "--hex", "0102" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.kind, mox::SocketKind::kDatagram);
	EXPECT_FALSE(options.has_header);
	EXPECT_EQ(options.to, (mox::MacAddress{ 2, 0, 0, 0, 0, 7 }));
	EXPECT_EQ(options.ether_type, 0x88cc);
}

TEST(moxsend_options, datagram__files_have_a_header_to_take_the_addresses_from)
{
	auto [options, ending] = parse({ "--datagram", "--pcap", "a.pcap" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_TRUE(options.has_header);
	EXPECT_FALSE(options.to || options.ether_type);
}

TEST(moxsend_options, arp)
{
	auto request = parse(
		{ "-i", "port1", "arp", "--sender-ip", "10.0.0.1", "--target-ip", "10.0.0.2" });
	ASSERT_FALSE(request.ending) << request.ending->text;
	EXPECT_TRUE(request.options.pad);
	EXPECT_EQ(moxsend::to_hex(request.options.frames.at(0)),
		  std::string("ffffffffffff") + own_mac + "08060001080006040001" + own_mac +
			  "0a000001" + "000000000000" + "0a000002");

	auto reply = parse({ "arp", "reply", "--sender-ip", "10.0.0.1", "--target-ip", "10.0.0.2",
			     "--sender-mac", "02:00:00:00:09:09", "--target-mac",
			     "02:00:00:00:02:02", "--no-pad", "--vlan", "3" });
	ASSERT_FALSE(reply.ending) << reply.ending->text;
	EXPECT_FALSE(reply.options.pad);
	EXPECT_TRUE(reply.options.control) << "options stand before and behind the command";
	EXPECT_EQ(moxsend::to_hex(reply.options.frames.at(0)), "020000000202"
							       "020000000909"
							       "08060001080006040002"
							       "0200000009090a000001"
							       "0200000002020a000002");

	// The header can say something else than the packet.
	auto other = parse({ "arp", "7", "--sender-ip", "10.0.0.1", "--target-ip", "10.0.0.2",
			     "--sender-mac", "02:00:00:00:09:09", "--from", "02:00:00:00:08:08",
			     "--to", "02:00:00:00:07:07" });
	EXPECT_EQ(moxsend::to_hex(other.options.frames.at(0)), "020000000707"
							       "020000000808"
							       "08060001080006040007"
							       "0200000009090a000001"
							       "0000000000000a000002");
}

TEST(moxsend_options, eapol)
{
	auto start = parse({ "-i", "port1", "eapol" });
	ASSERT_FALSE(start.ending) << start.ending->text;
	EXPECT_EQ(moxsend::to_hex(start.options.frames.at(0)),
		  std::string("0180c2000003") + own_mac + "888e02010000");
	auto identity = parse({ "-i", "port1", "eapol", "identity", "--identity", "bob", "--id",
				"9", "--version", "1" });
	EXPECT_EQ(moxsend::to_hex(identity.options.frames.at(0)),
		  std::string("0180c2000003") + own_mac + "888e0100000802090008" + "01626f62");
	// Without a header of its own a datagram needs no source address.
	auto datagram = parse({ "--datagram", "eapol", "logoff" });
	ASSERT_FALSE(datagram.ending) << datagram.ending->text;
	EXPECT_EQ(moxsend::to_hex(datagram.options.frames.at(0)),
		  "0180c2000003000000000000888e02020000");
}

TEST(moxsend_options, lldp)
{
	auto least = parse({ "-i", "port1", "lldp" });
	ASSERT_FALSE(least.ending) << least.ending->text;
	EXPECT_EQ(moxsend::to_hex(least.options.frames.at(0)),
		  std::string("0180c200000e") + own_mac + "88cc" + "020704" + own_mac +
			  "040605706f727431" + "06020078" + "0000");
	auto full = parse({ "--from",  "02:00:00:00:03:03",
			    "lldp",    "--chassis-id",
			    "c",       "--port-id",
			    "p",       "--ttl",
			    "0",       "--port-description",
			    "d",       "--system-name",
			    "n",       "--system-description",
			    "s",       "--capability",
			    "bridge",  "--capability",
			    "wlan-ap", "--management-ip",
			    "10.0.0.1" });
	ASSERT_FALSE(full.ending) << full.ending->text;
	EXPECT_EQ(moxsend::to_hex(full.options.frames.at(0)), "0180c200000e02000000030388cc"
							      "02020763"
							      "04020570"
							      "06020000"
							      "080164"
							      "0a016e"
							      "0c0173"
							      "0e04000c000c"
							      "100c05010a000001010000000000"
							      "0000");
}

TEST(moxsend_options, help__is_complete_and_a_success)
{
	auto [options, ending] = parse({ "--help" });
	ASSERT_TRUE(ending);
	EXPECT_EQ(ending->status, 0);
	for (const char *part : { "--hex",        "--hex-file",   "--pcap",
				  "--pad",        "--no-pad",     "--interface",
				  "--bind",       "--datagram",   "--to",
				  "--from",       "--ethertype",  "--source-if",
				  "--origin-if",  "--l2-if",      "--dst-l2-if",
				  "--vlan",       "--inner-vlan", "--wlan-id",
				  "--ap-wlan-id", "--radio-id",   "--proxy-capture",
				  "--word28",     "--half38",     "--flag",
				  "--count",      "--rate",       "--continue-on-error",
				  "--dry-run",    "--progress",   "--quiet",
				  "--stats",      "Examples:",    "arp",
				  "lldp",         "eapol" })
		EXPECT_NE(ending->text.find(part), std::string::npos) << part;
	for (const mox::Name &row : mox::send_flags())
		EXPECT_NE(ending->text.find("  " + std::string(row.alias()) + " "),
			  std::string::npos)
			<< row.alias();
	for (const char *command : { "arp", "lldp", "eapol" }) {
		auto help = parse({ command, "--help" }).ending;
		ASSERT_TRUE(help);
		EXPECT_EQ(help->status, 0) << command;
	}
}

TEST(moxsend_options, errors__status_2_and_what_would_be_allowed)
{
	struct {
		std::vector<const char *> words;
		std::vector<const char *> parts;
	} const cases[] = {
		{ {}, { "nothing to send", "--pcap" } },
		{ { "--hex", "00", "--pcap", "f" }, { "exclude each other" } },
		{ { "--hex", "00", "eapol" }, { "exclude each other" } },
		{ { "--hex", "0" }, { "--hex, column 1", "half a byte" } },
		{ { "--hex", "00", "-i", "port9" }, { "interface \"port9\"", "ip link" } },
		{ { "--hex", "00", "-i", "0" }, { "interface index \"0\"", "1 to" } },
		{ { "--hex", "00", "--source-if", "port9" }, { "interface \"port9\"" } },
		{ { "--hex", "00", "--flag", "acl" },
		  { "send flag \"acl\" is unknown", "no-acl (MOX_SEND_NO_ACL)" } },
		{ { "--hex", "00", "--vlan", "4096" }, { "--vlan", "4095" } },
		{ { "--hex", "00", "--inner-vlan", "-1" }, { "--inner-vlan" } },
		{ { "--hex", "00", "--wlan-id", "65536" }, { "--wlan-id", "65535" } },
		{ { "--hex", "00", "--radio-id", "256" }, { "--radio-id", "255" } },
		{ { "--hex", "00", "--proxy-capture", "256" }, { "--proxy-capture", "255" } },
		{ { "--hex", "00", "--bind" }, { "--bind needs the --interface" } },
		{ { "--hex", "00", "--bind", "-i", "1", "--datagram" },
		  { "--bind does not go with --datagram" } },
		{ { "--hex", "00", "--datagram" }, { "needs --to MAC and --ethertype" } },
		{ { "--hex", "00", "--datagram", "--to", "broadcast" },
		  { "needs --to MAC and --ethertype" } },
		{ { "--hex", "00", "--to", "broadcast" }, { "--to goes with --datagram" } },
		{ { "--hex", "00", "--ethertype", "arp" }, { "--ethertype goes with --datagram" } },
		{ { "--hex", "00", "--from", "broadcast" }, { "--from goes with arp" } },
		{ { "--datagram", "--to", "x", "--ethertype", "arp", "--hex", "00" },
		  { "MAC address \"x\"", "six hexadecimal" } },
		{ { "--datagram", "--to", "broadcast", "--ethertype", "what", "--hex", "00" },
		  { "EtherType \"what\"", "lldp" } },
		{ { "--pcap", "-", "--count", "2" }, { "--count does not go with --pcap -" } },
		{ { "--pad", "--no-pad", "eapol" }, { "--pad", "--no-pad" } },
		{ { "--hex", "00", "--count", "-1" }, { "--count" } },
		{ { "--hex", "00", "--rate", "0" }, { "--rate" } },
		{ { "--hex", "00", "--frobnicate" }, { "--frobnicate" } },
		{ { "arp" }, { "--sender-ip", "required" } },
		{ { "arp", "--sender-ip", "10.0.0", "--target-ip", "10.0.0.2" },
		  { "sender IP address \"10.0.0\"", "10.0.0.1" } },
		{ { "arp", "--sender-ip", "10.0.0.1", "--target-ip", "a" },
		  { "target IP address \"a\"" } },
		{ { "arp", "shout", "--sender-ip", "10.0.0.1", "--target-ip", "10.0.0.2" },
		  { "ARP operation \"shout\"", "reply" } },
		{ { "arp", "--sender-ip", "10.0.0.1", "--target-ip", "10.0.0.2" },
		  { "source address is missing", "--from MAC" } },
		{ { "-i", "wan", "eapol" }, { "no MAC address of interface 8", "--from MAC" } },
		{ { "eapol", "hello" }, { "EAPOL frame \"hello\"", "request-identity" } },
		{ { "-i", "1", "eapol", "identity" }, { "--identity TEXT" } },
		{ { "-i", "1", "eapol", "start", "--identity", "x" },
		  { "\"eapol identity\" alone" } },
		{ { "-i", "1", "eapol", "--id", "256" }, { "--id", "255" } },
		{ { "lldp", "--from", "02:00:00:00:00:01" },
		  { "port id is missing", "--port-id" } },
		{ { "-i", "port1", "lldp", "--capability", "fly" },
		  { "system capability \"fly\"", "wlan-ap" } },
		{ { "-i", "port1", "lldp", "--ttl", "65536" }, { "--ttl", "65535" } },
		{ { "-i", "port1", "lldp", "--management-ip", "::1" },
		  { "management address \"::1\"" } },
		{ { "arp", "eapol" }, {} },
	};
	for (const auto &each : cases) {
		std::string line;
		for (const char *word : each.words)
			line += std::string(" ") + word;
		SCOPED_TRACE(line);
		auto [options, ending] = parse(each.words);
		ASSERT_TRUE(ending) << "was taken";
		EXPECT_EQ(ending->status, 2);
		EXPECT_TRUE(ending->text.starts_with("moxsend: ")) << ending->text;
		for (const char *part : each.parts)
			EXPECT_NE(ending->text.find(part), std::string::npos)
				<< part << " is missing in: " << ending->text;
	}
}

TEST(moxsend_options, errors__an_address_that_the_kernel_does_not_tell_is_status_1)
{
	auto [options, ending] = parse({ "-i", "9", "eapol" });
	ASSERT_TRUE(ending);
	EXPECT_EQ(ending->status, 1);
	EXPECT_EQ(ending->text, "moxsend: cannot bind to interface 9\n");
}

} // namespace
