/* SPDX-License-Identifier: GPL-2.0-only */
#include "relay/config.h"

#include "mox_packet.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unistd.h>

namespace {

using Variables = std::map<std::string, std::string>;

std::uint32_t lookup(const std::string &name)
{
	return name == "port1" ? 7 : 0;
}

relay::Settings parse(const std::string &program, const std::string &text,
		      const Variables &variables = {})
{
	return relay::parse_settings(
		program, text, "conf",
		[&](const char *name) -> const char * {
			const auto at = variables.find(name);
			return at == variables.end() ? nullptr : at->second.c_str();
		},
		lookup);
}

/** Settings as one line. */
std::string shown(const relay::Settings &settings)
{
	std::string text = settings.native ? "off" : "on";
	for (const auto location : settings.locations)
		text += " l" + std::to_string(location);
	text += " t" + std::to_string(settings.treatment);
	if (settings.any_interface)
		text += " any";
	for (const auto &rule : settings.rules)
		text += " " + std::string(rule.type().alias()) + "*" + std::to_string(rule.count());
	return text;
}

struct Good {
	const char *program, *text;
	Variables variables;
	const char *expected;
};

TEST(CompatConfig, settings__of_file_and_environment)
{
	const Good rows[] = {
		{ "tcpdump", "", {}, "on l2 t1" },
		{ "tcpdump", "# nothing\n\n   \t\n", {}, "on l2 t1" },
		{ "tcpdump", "tcpdump location=lev2,local", {}, "on l2 l1 t1" },
		{ "tcpdump",
		  "dhcpd location=ipv4\ntcpdump location=resv treatment=trap # why\n",
		  {},
		  "on l7 t3" },
		{ "tcpdump", "tcpdump off\ntcpdump location=ipv4\n", {}, "off l2 t1" },
		{ "tcpdump", "tcp* treatment=fetch\r\n* off\r\n", {}, "on l2 t2" },
		{ "arping", "tcp* treatment=fetch\n* off\n", {}, "off l2 t1" },
		{ "dhcpd",
		  "dhcpd location=ipv4 interfaces=any rule=dport=67,68 rule=ipproto=udp",
		  {},
		  "on l3 t1 any dport*2 ipproto*1" },
		{ "x", "x interfaces=bound rule=intf=port1", {}, "on l2 t1 intf*1" },
		{ "x", "x location=ipv4", { { "MOX_LOCATION", "resv" } }, "on l7 t1" },
		{ "x", "x off", { { "MOX_COMPAT", "on" } }, "on l2 t1" },
		{ "x", "", { { "MOX_COMPAT", "off" } }, "off l2 t1" },
		{ "x",
		  "",
		  { { "MOX_TREATMENT", "PACKET_TRAP" }, { "MOX_INTERFACES", "any" } },
		  "on l2 t3 any" },
		{ "x",
		  "x rule=all",
		  { { "MOX_RULES", "eth=arp  dport=67" } },
		  "on l2 t1 eth*1 dport*1" },
		{ "x", "", { { "MOX_LOCATION", "" } }, "on l2 t1" },
		// The interface of another program's rule need not exist.
		{ "x", "other rule=intf=gone", {}, "on l2 t1" },
	};
	for (const Good &row : rows)
		EXPECT_EQ(shown(parse(row.program, row.text, row.variables)), row.expected)
			<< row.program << ": " << row.text;
}

struct Bad {
	const char *text;
	Variables variables;
	const char *begins, *has;
};

TEST(CompatConfig, errors__name_line_and_remedy)
{
	std::string rules = "x";
	for (std::size_t i = 0; i <= relay::kMaxRules; ++i)
		rules += " rule=eth=arp";
	const Bad rows[] = {
		{ "# one\nx location=lev9\n", {}, "conf:2: ", "lev2" },
		{ "x location=none", {}, "conf:1: ", "none" },
		{ "other treatment=maybe", {}, "conf:1: ", "trap" },
		{ "x speed=9", {}, "conf:1: ", "location=, treatment=, interfaces= and rule=" },
		{ "x location=", {}, "conf:1: ", "no value" },
		{ "x location=ipv4 location=ipv6", {}, "conf:1: ", "twice" },
		{ "location=ipv4", {}, "conf:1: ", "program's name" },
		{ "\n\nx interfaces=some", {}, "conf:3: ", "'any' or 'bound'" },
		{ "x rule=sport", {}, "conf:1: ", "sport" },
		{ "y off\nx rule=intf=gone", {}, "conf:2: ", "gone" },
		{ "x location=lev2,local,ipv4,ipv6,resv", {}, "conf:1: ", "more than 4 locations" },
		{ rules.c_str(), {}, "conf:1: ", "more than 16 rules" },
		{ "", { { "MOX_LOCATION", "moon" } }, "environment: ", "moon" },
		{ "", { { "MOX_COMPAT", "maybe" } }, "environment: ", "'on' or 'off'" },
		{ "", { { "MOX_RULES", "eth=arp nonsense" } }, "environment: ", "nonsense" },
	};
	for (const Bad &row : rows) {
		try {
			parse("x", row.text, row.variables);
			ADD_FAILURE() << "accepted: " << row.text;
		} catch (const relay::ConfigError &error) {
			const std::string text = error.what();
			EXPECT_EQ(text.rfind(row.begins, 0), 0u) << text;
			EXPECT_NE(text.find(row.has), std::string::npos) << text;
			EXPECT_EQ(text.find('\n'), std::string::npos) << text;
			EXPECT_EQ(text.find("  "), std::string::npos) << text;
		}
	}
}

TEST(CompatConfig, file__missing_only_when_it_is_named)
{
	const auto load = [](const char *path) {
		return relay::load_settings(
			"x",
			[path](const char *name) -> const char * {
				return std::string(name) == "MOX_COMPAT_CONF" ? path : nullptr;
			},
			lookup);
	};
	EXPECT_EQ(shown(load(nullptr)), "on l2 t1"); // no /etc/mox-compat.conf on this machine
	EXPECT_THROW(load("/nonexistent/conf"), relay::ConfigError);

	char path[] = "/tmp/mox-compat-conf-XXXXXX";
	const int fd = mkstemp(path);
	ASSERT_GE(fd, 0);
	const std::string text = "x location=ipv6\n";
	ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
	EXPECT_EQ(shown(load(path)), "on l4 t1");
	const std::string longer(relay::kMaxConfigBytes, '#');
	ASSERT_EQ(write(fd, longer.data(), longer.size()), static_cast<ssize_t>(longer.size()));
	close(fd);
	EXPECT_THROW(load(path), relay::ConfigError);
	std::remove(path);
}

} // namespace
