/* SPDX-License-Identifier: GPL-2.0-only */
/* From words to options, and from options to the bytes of requests. */
#include "options.h"
#include "request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;
using Bytes = std::vector<std::uint8_t>;

std::uint32_t lookup(const std::string &name)
{
	return name == "port1" ? 7 : 0;
}

struct Parsed {
	moxctl::Options options;
	std::optional<moxctl::Ending> ending;
};

Parsed parse(const Words &words)
{
	std::vector<const char *> argv = { "moxctl" };
	for (const std::string &word : words)
		argv.push_back(word.c_str());
	Parsed result;
	result.ending = moxctl::read_options(static_cast<int>(argv.size()), argv.data(), lookup,
					     result.options);
	return result;
}

std::string joined(const Words &words)
{
	std::string text;
	for (const std::string &word : words)
		text += word + " ";
	return text;
}

std::vector<Bytes> requests(const Words &words)
{
	auto [options, ending] = parse(words);
	EXPECT_FALSE(ending) << joined(words) << ": " << ending->text;
	return ending ? std::vector<Bytes>() : moxctl::requests_of(options);
}

Bytes bytes(std::initializer_list<int> numbers)
{
	return Bytes(numbers.begin(), numbers.end());
}

TEST(ctl_request, without_body)
{
	struct {
		Words words;
		int type;
	} const cases[] = {
		{ { "show", "rules" }, 8 },
		{ { "show", "rules", "local" }, 0 },
		{ { "show", "rules", "lev2" }, 1 },
		{ { "show", "rules", "PACKET_LEV2_LOC" }, 1 },
		{ { "show", "rules", "l2" }, 1 },
		{ { "show", "rules", "IPv4" }, 2 },
		{ { "show", "rules", "ip6" }, 3 },
		{ { "show", "rules", "mpls" }, 4 },
		{ { "show", "rules", "trill" }, 5 },
		{ { "show", "rules", "resv" }, 6 },
		{ { "show", "rules", "wlan", "--json" }, 7 },
		{ { "show", "queues" }, 9 },
		{ { "show", "memory" }, 10 },
		{ { "show", "thread" }, 13 },
		{ { "tech" }, 16 },
		{ { "tech", "--output", "f" }, 16 },
	};
	for (const auto &each : cases)
		EXPECT_EQ(requests(each.words), std::vector<Bytes>{ bytes({ each.type, 0, 0, 0 }) })
			<< joined(each.words);
}

TEST(ctl_request, process)
{
	EXPECT_EQ(requests({ "show", "process", "412" }),
		  std::vector<Bytes>{ bytes({ 12, 0, 0, 0, 0x9c, 1, 0, 0 }) });
	EXPECT_EQ(requests({ "show", "process", "2147483647" })[0],
		  bytes({ 12, 0, 0, 0, 0xff, 0xff, 0xff, 0x7f }));
	EXPECT_EQ(requests({ "show", "process", "arpd" }),
		  std::vector<Bytes>{ bytes({ 11, 0, 0, 0, 'a', 'r', 'p', 'd', 0, 0,
					      0,  0, 0, 0, 0,   0,   0,   0,   0, 0 }) });
	EXPECT_EQ(requests({ "show", "process", "--name", "42" })[0],
		  bytes({ 11, 0, 0, 0, '4', '2', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
	Bytes longest = { 11, 0, 0, 0 };
	for (char c : std::string("abcdefghijklmno"))
		longest.push_back(static_cast<std::uint8_t>(c));
	longest.push_back(0);
	EXPECT_EQ(requests({ "show", "process", "abcdefghijklmno" })[0], longest);
	EXPECT_EQ(requests({ "show", "process", "abcdefghijklmnop-longer" })[0], longest);
}

TEST(ctl_options, a_process_name_that_the_kernel_would_cut_is_cut_with_a_word)
{
	EXPECT_EQ(parse({ "show", "process", "abcdefghijklmno" }).options.note, "");
	std::string note = parse({ "show", "process", "abcdefghijklmnop" }).options.note;
	EXPECT_NE(note.find("\"abcdefghijklmno\""), std::string::npos) << note;
}

/** The debug types that a command line sends, in order, all with the value. */
void expect_switches(const Words &words, const std::vector<int> &types, int value)
{
	std::vector<Bytes> expected;
	for (int type : types)
		expected.push_back(bytes({ 14, 0, 0, 0, type, 0, 0, 0, value, 0, 0, 0 }));
	EXPECT_EQ(requests(words), expected) << joined(words);
}

TEST(ctl_request, debug)
{
	expect_switches({ "debug", "on" }, { 0 }, 1);
	expect_switches({ "debug", "off" }, { 0 }, 0);
	struct {
		const char *path;
		std::vector<int> types;
	} const cases[] = {
		{ "general", { 0 } },
		{ "all", { 0, 9, 18 } },
		{ "deliver", { 9 } },
		{ "receive", { 18 } },
		{ "deliver-local", { 1 } },
		{ "deliver-lev2", { 2 } },
		{ "deliver-ipv4", { 3 } },
		{ "deliver-ipv6", { 4 } },
		{ "deliver-mpls", { 5 } },
		{ "deliver-trill", { 6 } },
		{ "deliver-resv", { 7 } },
		{ "deliver-wlan", { 8 } },
		{ "receive-local", { 10 } },
		{ "receive-lev2", { 11 } },
		{ "receive-ipv4", { 12 } },
		{ "receive-ipv6", { 13 } },
		{ "receive-mpls", { 14 } },
		{ "receive-trill", { 15 } },
		{ "receive-resv", { 16 } },
		{ "receive-wlan", { 17 } },
		{ "RECEIVE_PACKET_LEV2_LOC", { 11 } },
		{ "deliver-l2", { 2 } },
	};
	for (const auto &each : cases)
		for (int value : { 0, 1 })
			expect_switches({ "debug", value ? "on" : "off", each.path }, each.types,
					value);
	expect_switches({ "debug", "on", "receive-wlan", "general", "deliver" }, { 17, 0, 9 }, 1);
}

TEST(ctl_request, hook__1_takes_it_away)
{
	struct {
		const char *location;
		int type;
	} const cases[] = {
		{ "local", 19 }, { "lev2", 20 }, { "ipv4", 21 }, { "ipv6", 22 },
		{ "resv", 25 },  { "wlan", 26 }, { "all", 27 },  { "PACKET_WLAN_LOC", 26 },
	};
	for (const auto &each : cases) {
		expect_switches({ "hook", "off", each.location }, { each.type }, 1);
		expect_switches({ "hook", "on", each.location }, { each.type }, 0);
	}
}

/** A filter record: zeroes but for the parts given as (offset, bytes). */
Bytes filter_record(std::uint8_t enable, std::uint32_t flags,
		    const std::vector<std::pair<std::size_t, Bytes>> &parts)
{
	Bytes record(76);
	record[0] = 15;
	record[4] = enable;
	for (int i = 0; i < 4; ++i)
		record[8 + i] = static_cast<std::uint8_t>(flags >> 8 * i);
	for (const auto &[offset, part] : parts)
		std::copy(part.begin(), part.end(),
			  record.begin() + 4 + static_cast<std::ptrdiff_t>(offset));
	return record;
}

const Bytes fe80_17 = { 0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x17 };

TEST(ctl_request, filter__each_criterion)
{
	struct {
		Words words;
		std::uint32_t flags;
		std::vector<std::pair<std::size_t, Bytes>> parts;
	} const cases[] = {
		{ { "--vlan", "100" }, 0x2, { { 8, { 100, 0, 0, 0 } } } },
		{ { "--vlan", "4095" }, 0x2, { { 8, { 0xff, 0x0f, 0, 0 } } } },
		{ { "--src-mac", "02:00:00:00:00:01" }, 0x4, { { 12, { 2, 0, 0, 0, 0, 1 } } } },
		{ { "--dst-mac", "01-80-C2-00-00-0E" },
		  0x8,
		  { { 18, { 1, 0x80, 0xc2, 0, 0, 0x0e } } } },
		{ { "--src-if", "port1" }, 0x10, { { 24, { 7, 0, 0, 0 } } } },
		{ { "--dst-if", "258" }, 0x20, { { 28, { 2, 1, 0, 0 } } } },
		{ { "--src-ip", "10.0.0.17" }, 0x40, { { 32, { 10, 0, 0, 17 } } } },
		{ { "--dst-ip", "192.168.1.2" }, 0x80, { { 36, { 192, 168, 1, 2 } } } },
		{ { "--src-ip", "fe80::17" }, 0x100, { { 40, fe80_17 } } },
		{ { "--dst-ip", "fe80::17" }, 0x200, { { 56, fe80_17 } } },
		{ { "--every-packet" }, 0, {} },
		{ { "--vlan", "1", "--src-mac", "02:00:00:00:00:01", "--dst-mac", "broadcast",
		    "--src-if", "7", "--dst-if", "8", "--src-ip", "10.0.0.1", "--dst-ip",
		    "10.0.0.2" },
		  0xfe,
		  { { 8, { 1 } },
		    { 12, { 2, 0, 0, 0, 0, 1 } },
		    { 18, { 255, 255, 255, 255, 255, 255 } },
		    { 24, { 7 } },
		    { 28, { 8 } },
		    { 32, { 10, 0, 0, 1 } },
		    { 36, { 10, 0, 0, 2 } } } },
		{ { "--src-ip", "fe80::17", "--dst-ip", "::1" },
		  0x300,
		  { { 40, fe80_17 }, { 56, { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 } } } },
	};
	for (const auto &each : cases) {
		Words words = { "filter", "set" };
		words.insert(words.end(), each.words.begin(), each.words.end());
		EXPECT_EQ(requests(words),
			  std::vector<Bytes>{ filter_record(1, each.flags, each.parts) })
			<< joined(words);
	}
}

TEST(ctl_request, filter_off__is_all_zeroes)
{
	EXPECT_EQ(requests({ "filter", "off" }), std::vector<Bytes>{ filter_record(0, 0, {}) });
}

TEST(ctl_options, actions_and_flags)
{
	auto [options, ending] = parse({ "tech", "-o", "out.txt", "-t", "2.5" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.action, moxctl::Action::kTech);
	EXPECT_EQ(options.output, "out.txt");
	EXPECT_EQ(options.timeout, 2.5);
	EXPECT_EQ(parse({ "tech" }).options.timeout, 10);

	for (const char *report : { "rules", "queues", "memory", "thread" }) {
		EXPECT_FALSE(parse({ "show", report }).options.json) << report;
		EXPECT_TRUE(parse({ "show", report, "--json" }).options.json) << report;
	}
	EXPECT_TRUE(parse({ "show", "process", "1", "--json" }).options.json);
	EXPECT_EQ(parse({ "show", "process", "1" }).options.action, moxctl::Action::kShowProcess);
}

TEST(ctl_options, help__is_everywhere_and_a_success)
{
	struct {
		Words words;
		std::vector<const char *> parts;
	} const cases[] = {
		{ {}, { "show", "debug", "hook", "filter", "tech", "Examples:", "Exit status" } },
		{ { "show" }, { "rules", "queues", "memory", "thread", "process" } },
		{ { "show", "rules" },
		  { "LOCATION", "--json", "lev2", "PACKET_WLAN_LOC", "trill" } },
		{ { "show", "queues" }, { "--json" } },
		{ { "show", "memory" }, { "--json" } },
		{ { "show", "thread" }, { "--json" } },
		{ { "show", "process" }, { "NAME|PID", "--name", "--json" } },
		{ { "debug" }, { "on", "off" } },
		{ { "debug", "on" }, { "general", "deliver-LOCATION", "receive", "all" } },
		{ { "debug", "off" }, { "general", "deliver-LOCATION", "receive", "all" } },
		{ { "hook" }, { "on", "off" } },
		{ { "hook", "on" }, { "LOCATION|all", "lev2", "wlan" } },
		{ { "hook", "off" }, { "LOCATION|all", "lev2", "wlan" } },
		{ { "filter" }, { "set", "off" } },
		{ { "filter", "set" },
		  { "--vlan", "--src-mac", "--dst-mac", "--src-if", "--dst-if", "--src-ip",
		    "--dst-ip", "--every-packet" } },
		{ { "filter", "off" }, { "in force" } },
		{ { "tech" }, { "--output", "--timeout" } },
	};
	for (auto each : cases) {
		each.words.push_back("--help");
		auto ending = parse(each.words).ending;
		ASSERT_TRUE(ending) << joined(each.words);
		EXPECT_EQ(ending->status, 0) << joined(each.words);
		for (const char *part : each.parts)
			EXPECT_NE(ending->text.find(part), std::string::npos)
				<< part << " is missing in: " << ending->text;
	}
}

TEST(ctl_options, errors__status_2_and_what_would_be_allowed)
{
	struct {
		Words words;
		std::vector<const char *> parts;
	} const cases[] = {
		{ {}, { "show, debug, hook, filter, tech" } },
		{ { "shoe" }, { "\"shoe\" is unknown", "show, debug" } },
		{ { "show" }, { "rules, queues, memory, thread, process" } },
		{ { "show", "ruls" }, { "\"ruls\" is unknown", "commands of \"show\": rules" } },
		{ { "show", "rules", "lev9" },
		  { "location \"lev9\" is unknown", "lev2", "PACKET_LEV2_LOC", "trill" } },
		{ { "show", "rules", "none" }, { "location \"none\" has no report" } },
		{ { "show", "rules", "l2resv" }, { "stand in that of resv" } },
		{ { "show", "rules", "PACKET_LEV3_RESV_LOC" }, { "stand in that of resv" } },
		{ { "show", "rules", "lev2", "extra" }, { "extra" } },
		{ { "show", "process" }, { "process is required" } },
		{ { "show", "process", "0" }, { "process id \"0\"", "1 to 2147483647" } },
		{ { "show", "process", "2147483648" }, { "process id" } },
		{ { "show", "process", "" }, { "name is empty" } },
		{ { "debug" }, { "commands of \"debug\": on, off" } },
		{ { "debug", "on", "everything" },
		  { "debug path \"everything\" is unknown", "receive-LOCATION", "wlan" } },
		{ { "debug", "on", "deliver-" }, { "debug path \"deliver-\"" } },
		{ { "debug", "on", "deliver-nowhere" }, { "debug path \"deliver-nowhere\"" } },
		{ { "debug", "on", "deliver-none" }, { "debug path \"deliver-none\"" } },
		{ { "debug", "on", "receive-l2resv" }, { "debug path \"receive-l2resv\"" } },
		{ { "debug", "on", "deliverlev2" }, { "debug path \"deliverlev2\"" } },
		{ { "debug", "on", "d" }, { "debug path \"d\"" } },
		{ { "hook", "off" }, { "location is required" } },
		{ { "hook", "off", "mpls" }, { "location \"mpls\" has no hook", "lev2" } },
		{ { "hook", "on", "trill" }, { "location \"trill\" has no hook" } },
		{ { "hook", "off", "l3resv" }, { "shares that of resv" } },
		{ { "hook", "off", "nowhere" }, { "location \"nowhere\" is unknown", "all" } },
		{ { "hook", "off", "none" }, { "has no hook" } },
		{ { "filter" }, { "set, off" } },
		{ { "filter", "set" }, { "no criterion", "--vlan", "--every-packet" } },
		{ { "filter", "set", "--every-packet", "--vlan", "1" }, { "contradicts" } },
		{ { "filter", "set", "--vlan", "4096" }, { "VLAN id \"4096\"", "0 to 4095" } },
		{ { "filter", "set", "--src-mac", "02:00" }, { "MAC address \"02:00\"" } },
		{ { "filter", "set", "--dst-if", "port9" }, { "interface \"port9\"", "ip link" } },
		{ { "filter", "set", "--src-ip", "10.0.0" },
		  { "source address \"10.0.0\"", "has no prefixes" } },
		{ { "filter", "set", "--dst-ip", "10.0.0.0/8" },
		  { "destination address \"10.0.0.0/8\"" } },
		{ { "filter", "set", "--src-ip", "10.0.0.1", "--dst-ip", "::1" },
		  { "two IP versions" } },
		{ { "filter", "set", "--src-ip", "::1", "--dst-ip", "10.0.0.1" },
		  { "two IP versions" } },
		{ { "filter", "off", "--vlan", "1" }, { "--vlan" } },
		{ { "tech", "--timeout", "-1" }, { "--timeout" } },
		{ { "tech", "--output" }, { "--output" } },
		{ { "--frobnicate" }, { "frobnicate" } },
	};
	for (const auto &each : cases) {
		auto ending = parse(each.words).ending;
		ASSERT_TRUE(ending) << joined(each.words) << " was taken";
		EXPECT_EQ(ending->status, 2) << joined(each.words);
		EXPECT_TRUE(ending->text.starts_with("moxctl: ")) << ending->text;
		for (const char *part : each.parts)
			EXPECT_NE(ending->text.find(part), std::string::npos)
				<< part << " is missing in: " << ending->text;
	}
}

} // namespace
