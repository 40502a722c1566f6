/* SPDX-License-Identifier: GPL-2.0-only */
#include "options.h"

#include <gtest/gtest.h>

namespace {

struct Parsed {
	lldp::Options options;
	std::optional<lldp::Ending> ending;
};

Parsed parse(std::vector<const char *> words)
{
	words.insert(words.begin(), "lldpagent");
	Parsed result;
	result.ending = lldp::read_options(static_cast<int>(words.size()), words.data(),
					   { "host", "kernel" }, result.options);
	return result;
}

TEST(lldp_options, a_port_is_enough)
{
	auto [options, ending] = parse({ "--port", "3=port1" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_FALSE(options.show);
	EXPECT_EQ(options.ports, (std::vector<lldp::Port>{ { 3, "port1" } }));
	EXPECT_EQ(options.identity.interval, 30u);
	EXPECT_EQ(options.identity.hold, 4u);
	EXPECT_EQ(options.identity.name, "host");
	EXPECT_EQ(options.identity.description, "kernel");
	EXPECT_EQ(options.identity.capabilities->available, 0x0c);
	EXPECT_EQ(options.identity.capabilities->enabled, 0x0c);
	EXPECT_FALSE(options.identity.chassis);
	EXPECT_TRUE(options.identity.management.empty());
	EXPECT_EQ(options.most_of_a_port, 32u);
	EXPECT_EQ(options.status, "/run/lldpagent.sock");
	EXPECT_FALSE(options.quiet);
}

TEST(lldp_options, all_of_them)
{
	auto [options, ending] = parse({ "-p",
					 "3=port1",
					 "-p",
					 "4294967295=a=b",
					 "-i",
					 "1",
					 "--hold",
					 "2",
					 "-n",
					 "ap",
					 "-d",
					 "",
					 "-c",
					 "router,station",
					 "-m",
					 "10.0.0.1",
					 "-m",
					 "fd00::1",
					 "--chassis",
					 "02:00:00:00:00:aB",
					 "--neighbours",
					 "5",
					 "-s",
					 "/tmp/s",
					 "-q" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(options.ports,
		  (std::vector<lldp::Port>{ { 3, "port1" }, { 4294967295u, "a=b" } }));
	EXPECT_EQ(options.identity.interval, 1u);
	EXPECT_EQ(options.identity.hold, 2u);
	EXPECT_EQ(options.identity.name, "ap");
	EXPECT_EQ(options.identity.description, "");
	EXPECT_EQ(options.identity.capabilities->available, 0x90);
	ASSERT_EQ(options.identity.management.size(), 2u);
	EXPECT_EQ(options.identity.management[0].address, (lldp::Bytes{ 10, 0, 0, 1 }));
	EXPECT_EQ(options.identity.management[1].family, lldp::family_ipv6);
	EXPECT_EQ(options.identity.chassis, (lldp::Mac{ 2, 0, 0, 0, 0, 0xab }));
	EXPECT_EQ(options.most_of_a_port, 5u);
	EXPECT_EQ(options.status, "/tmp/s");
	EXPECT_TRUE(options.quiet);
}

TEST(lldp_options, show)
{
	auto [plain, no_ending] = parse({ "show" });
	ASSERT_FALSE(no_ending) << no_ending->text;
	EXPECT_TRUE(plain.show);
	EXPECT_EQ(plain.form, lldp::StateForm::kText);
	auto [json, ending] = parse({ "show", "--json", "--status", "/tmp/s" });
	ASSERT_FALSE(ending) << ending->text;
	EXPECT_EQ(json.form, lldp::StateForm::kJson);
	EXPECT_EQ(json.status, "/tmp/s");
}

TEST(lldp_options, help)
{
	auto [options, ending] = parse({ "--help" });
	ASSERT_TRUE(ending);
	EXPECT_EQ(ending->status, 0);
	for (const char *part :
	     { "--port", "--interval", "--hold", "--name", "--description", "--capabilities",
	       "--management", "--chassis", "--neighbours", "--status", "--quiet", "show",
	       "Examples:", "SIGTERM", "Exit status:", "wlan-ap" })
		EXPECT_NE(ending->text.find(part), std::string::npos) << part;
}

TEST(lldp_options, errors__status_2_and_what_would_be_allowed)
{
	struct {
		std::vector<const char *> words;
		const char *part;
	} const cases[] = {
		{ {}, "--port INDEX=NAME" },
		{ { "-p", "port1" }, "3=port1" },
		{ { "-p", "0=port1" }, "3=port1" },
		{ { "-p", "x=port1" }, "3=port1" },
		{ { "-p", "3x=port1" }, "3=port1" },
		{ { "-p", "4294967296=port1" }, "3=port1" },
		{ { "-p", "-1=port1" }, "3=port1" },
		{ { "-p", "3=" }, "1 to 255" },
		{ { "-p", "3=a", "-p", "3=b" }, "before" },
		{ { "-p", "3=a", "-p", "4=a" }, "before" },
		{ { "-p", "3=a", "-i", "0" }, "--interval" },
		{ { "-p", "3=a", "-i", "3601" }, "--interval" },
		{ { "-p", "3=a", "--hold", "0" }, "--hold" },
		{ { "-p", "3=a", "-c", "toaster" }, "wlan-ap" },
		{ { "-p", "3=a", "-m", "10.0.0" }, "IPv4 or IPv6" },
		{ { "-p", "3=a", "--chassis", "02:00:00" }, "MAC address" },
		{ { "-p", "3=a", "--chassis", "02:00:00:00:00:01x" }, "MAC address" },
		{ { "-p", "3=a", "--neighbours", "0" }, "--neighbours" },
		{ { "-p", "3=a", "extra" }, "extra" },
		{ { "show", "--yaml" }, "--yaml" },
	};
	for (const auto &each : cases) {
		auto [options, ending] = parse(each.words);
		std::string shown = each.words.empty() ? "(nothing)" : each.words.back();
		ASSERT_TRUE(ending) << shown << " was taken";
		EXPECT_EQ(ending->status, 2) << shown;
		EXPECT_TRUE(ending->text.starts_with("lldpagent: ")) << ending->text;
		EXPECT_NE(ending->text.find(each.part), std::string::npos)
			<< each.part << " is missing in: " << ending->text;
	}
	std::string longest(256, 'n');
	EXPECT_EQ(parse({ "-p", "3=a", "-n", longest.c_str() }).ending->status, 2);
}

} // namespace
