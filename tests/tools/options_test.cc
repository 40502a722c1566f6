/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::uint32_t lookup(const std::string &name)
{
	return name == "port1" ? 7 : 0;
}

struct Parsed {
	moxcap::Options options;
	std::optional<moxcap::Ending> ending;
};

Parsed parse(std::vector<const char *> words)
{
	words.insert(words.begin(), "moxcap");
	Parsed result;
	result.ending = moxcap::read_options(static_cast<int>(words.size()), words.data(), lookup,
					     result.options);
	return result;
}

std::vector<int> types(const moxcap::Options &options)
{
	std::vector<int> numbers;
	for (const mox::Rule &rule : options.rules)
		numbers.push_back(rule.type().value);
	return numbers;
}

TEST(options, without_any__copies_everything_at_lev2)
{
	auto [options, ending] = parse({});
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.location, 2u);
	EXPECT_EQ(options.treatment, 1u);
	EXPECT_EQ(types(options), (std::vector<int>{ PACKET_ALL }));
	EXPECT_EQ(options.kind, mox::SocketKind::kRaw);
	EXPECT_EQ(options.layout, moxcap::Layout::kEthernet);
	EXPECT_EQ(options.protocol, 0);
	EXPECT_EQ(options.interface, 0u);
	EXPECT_EQ(options.count, 0u);
	EXPECT_FALSE(options.duration);
	EXPECT_EQ(options.snap, 65535);
	EXPECT_EQ(options.buffer, 0);
	EXPECT_FALSE(options.hex || options.quiet || options.counters);
	EXPECT_TRUE(options.vlan_tags);
	EXPECT_FALSE(options.pcapng);
	EXPECT_EQ(options.rule_text, "all");
}

TEST(options, all_of_them)
{
	auto [options,
	      ending] = parse({ "--location",  "resv",     "--treatment", "fetch",
				"--rule",      "eth=lldp", "--rule",      "dmac=01:80:c2:00:00:0e",
				"--interface", "port1",    "--protocol",  "lldp",
				"--count",     "5",        "--duration",  "1.5",
				"--write",     "f.pcap",   "--snap",      "128",
				"--buffer",    "65536",    "--label",     "a b",
				"--hex",       "--quiet",  "--stats",     "--no-vlan",
				"--pcapng" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.location, 7u);
	EXPECT_EQ(options.treatment, 2u);
	EXPECT_EQ(types(options), (std::vector<int>{ 3, 1, 10 }));
	EXPECT_EQ(options.interface, 7u);
	EXPECT_EQ(options.protocol, 0x88cc);
	EXPECT_EQ(options.count, 5u);
	EXPECT_EQ(options.duration, 1.5);
	EXPECT_EQ(options.file, "f.pcap");
	EXPECT_EQ(options.snap, 128);
	EXPECT_EQ(options.buffer, 65536);
	EXPECT_EQ(options.label, "a b");
	EXPECT_TRUE(options.hex && options.quiet && options.counters);
	EXPECT_FALSE(options.vlan_tags);
	EXPECT_TRUE(options.pcapng);
	EXPECT_EQ(options.rule_text,
		  "eth=lldp and eth=lldp and dmac=01:80:c2:00:00:0e and intf=port1");
}

TEST(options, short_forms_and_full_names)
{
	auto [options, ending] = parse({ "-l", "PACKET_IPv6_LOC", "-t", "PACKET_TRAP", "-r",
					 "PACKET_ICMPV6_TYPE_EQUAL=135,136", "-i", "4", "-c", "1",
					 "-x", "-q" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.location, 4u);
	EXPECT_EQ(options.treatment, 3u);
	EXPECT_EQ(types(options), (std::vector<int>{ 11, 10 }));
	EXPECT_EQ(options.rules[0].count(), 2u);
	EXPECT_EQ(options.interface, 4u);
}

TEST(options, rules_are_put_into_the_order_in_which_the_module_finds_them)
{
	EXPECT_EQ(types(parse({ "-r", "arp=request" }).options), (std::vector<int>{ 3, 19 }));
	EXPECT_EQ(types(parse({ "-r", "arp=request", "-i", "port1" }).options),
		  (std::vector<int>{ 10, 19 }));
	EXPECT_EQ(types(parse({ "-i", "port1" }).options), (std::vector<int>{ 10 }));
	EXPECT_EQ(types(parse({ "-p", "arp" }).options), (std::vector<int>{}));
}

TEST(options, layout_follows_from_what_can_come)
{
	struct {
		std::vector<const char *> words;
		moxcap::Layout layout;
	} const cases[] = {
		{ { "--dgram" }, moxcap::Layout::kNetwork },
		{ { "-l", "wlan" }, moxcap::Layout::kEthernet },
		{ { "-l", "wlan", "-r", "wlan-mgnt" }, moxcap::Layout::kWlan },
		{ { "-l", "wlan", "-r", "wlan-mgnt", "-r", "not-attr=any" },
		  moxcap::Layout::kWlan },
		{ { "-l", "wlan", "-r", "not-attr=any" }, moxcap::Layout::kEthernet },
		{ { "-l", "wlan", "-r", "eapol=key" }, moxcap::Layout::kEthernet },
	};
	for (const auto &each : cases)
		EXPECT_EQ(parse(each.words).options.layout, each.layout) << each.words.back();
}

TEST(options, help__is_complete_and_a_success)
{
	auto [options, ending] = parse({ "--help" });
	ASSERT_TRUE(ending);
	EXPECT_EQ(ending->status, 0);
	for (const char *part : { "--location",
				  "--treatment",
				  "--rule",
				  "--interface",
				  "--protocol",
				  "--dgram",
				  "--count",
				  "--duration",
				  "--write",
				  "--no-vlan",
				  "--pcapng",
				  "--snap",
				  "--buffer",
				  "--label",
				  "--hex",
				  "--quiet",
				  "--stats",
				  "Examples:",
				  "moxcap --location lev2",
				  "l2resv",
				  "fetch-local",
				  "wlan-mgnt",
				  "not-attr" })
		EXPECT_NE(ending->text.find(part), std::string::npos) << part;
	EXPECT_EQ(ending->text.find("mpls"), std::string::npos) << "cannot capture there";
}

TEST(options, errors__status_2_and_what_would_be_allowed)
{
	struct {
		std::vector<const char *> words;
		std::vector<const char *> parts;
	} const cases[] = {
		{ { "-l", "lev9" }, { "location \"lev9\" is unknown", "lev2 (PACKET_LEV2_LOC)" } },
		{ { "-l", "trill" }, { "location \"trill\" cannot capture", "resv" } },
		{ { "-t", "keep" }, { "treatment \"keep\" is unknown", "trap (PACKET_TRAP)" } },
		{ { "-r", "nope=1" },
		  { "rule type \"nope\" is unknown", "eth (PACKET_ETH_PROT_EQUAL)" } },
		{ { "-r", "eth=what" }, { "EtherType \"what\"", "lldp" } },
		{ { "-i", "port9" }, { "interface \"port9\"", "ip link" } },
		{ { "-p", "12345" }, { "EtherType \"12345\"", "0xffff" } },
		{ { "-c", "0" }, { "--count", "range 1" } },
		{ { "-c", "many" }, { "--count" } },
		{ { "-d", "-1" }, { "--duration", "range 0" } },
		{ { "-s", "65536" }, { "--snap", "1 to 65535" } },
		{ { "-b", "0" }, { "--buffer", "1 to" } },
		{ { "-w" }, { "--write" } },
		{ { "--pcapng" }, { "--pcapng", "--write" } },
		{ { "--frobnicate" }, { "--frobnicate" } },
		{ { "eth=arp" }, { "eth=arp" } },
		{ { "-r", "eth=arp", "extra" }, { "extra" } },
	};
	for (const auto &each : cases) {
		auto [options, ending] = parse(each.words);
		ASSERT_TRUE(ending) << each.words[0] << " was taken";
		EXPECT_EQ(ending->status, 2);
		EXPECT_TRUE(ending->text.starts_with("moxcap: ")) << ending->text;
		for (const char *part : each.parts)
			EXPECT_NE(ending->text.find(part), std::string::npos)
				<< part << " is missing in: " << ending->text;
	}
}

} // namespace
