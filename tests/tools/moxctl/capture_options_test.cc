// SPDX-License-Identifier: GPL-2.0-only
/* Command lines of what is read from "mox_capture". */
#include "fake_capture.h"
#include "options.h"

namespace {

using moxctl::Action;

struct Read {
	moxctl::Options options;
	std::optional<moxctl::Ending> ending;
};

Read read(std::vector<const char *> words)
{
	words.insert(words.begin(), "moxctl");
	Read result;
	result.ending = moxctl::read_options(
		static_cast<int>(words.size()), words.data(),
		[](const std::string &name) { return name == "port1" ? 7u : 0u; }, result.options);
	return result;
}

TEST(capture_options, actions)
{
	struct {
		std::vector<const char *> words;
		Action action;
	} const cases[] = {
		{ { "show", "sockets" }, Action::kShowSockets },
		{ { "show", "losses" }, Action::kShowLosses },
		{ { "watch" }, Action::kWatch },
		{ { "metrics" }, Action::kMetrics },
		{ { "trace" }, Action::kTrace },
		{ { "restrict", "on" }, Action::kRestrict },
		{ { "restrict", "off" }, Action::kLiftRestriction },
		{ { "restrict", "status" }, Action::kRestrictStatus },
		{ { "info" }, Action::kInfo },
	};
	for (const auto &each : cases) {
		Read found = read(each.words);
		ASSERT_FALSE(found.ending) << found.ending->text;
		EXPECT_EQ(found.options.action, each.action);
		EXPECT_EQ(moxctl::runs_until_stopped(each.action),
			  each.action == Action::kWatch || each.action == Action::kTrace);
	}
}

TEST(capture_options, selection)
{
	for (const char *report : { "sockets", "rules", "losses" }) {
		Read found = read({ "show", report, "--location", "resv", "--pid", "412",
				    "--cookie", "18446744073709551615", "--json" });
		ASSERT_FALSE(found.ending) << found.ending->text;
		EXPECT_EQ(found.options.selection.location, 7u);
		EXPECT_EQ(found.options.selection.pid, 412u);
		EXPECT_EQ(found.options.selection.cookie, ~std::uint64_t{ 0 });
		EXPECT_TRUE(found.options.json);
	}
	EXPECT_EQ(read({ "show", "rules", "lev2" }).options.selection.location, 2u);
	EXPECT_EQ(read({ "show", "rules", "lev2" }).options.location, 2u);
	EXPECT_EQ(read({ "show", "queues", "--location", "wlan" }).options.selection.location, 8u);
	EXPECT_EQ(read({ "show", "sockets", "--location", "l2resv" }).options.selection.location,
		  9u);
	EXPECT_TRUE(read({ "show", "sockets" }).options.selection.empty());
	EXPECT_TRUE(read({ "show", "losses", "--all" }).options.all);
	for (const char *report : { "rules", "queues", "memory", "thread" })
		EXPECT_TRUE(read({ "show", report, "--log" }).options.log);
}

TEST(capture_options, watch_and_metrics)
{
	Read found = read({ "watch", "--interval", "0.5", "--count", "3", "--pid", "1" });
	ASSERT_FALSE(found.ending);
	EXPECT_DOUBLE_EQ(found.options.interval, 0.5);
	EXPECT_EQ(found.options.count, 3u);
	EXPECT_EQ(found.options.selection.pid, 1u);
	EXPECT_EQ(read({ "metrics", "--output", "x.prom" }).options.output, "x.prom");
}

TEST(capture_options, trace_criteria)
{
	Bytes v6 = { 0xfe, 0x80 };
	v6.resize(16);
	v6[15] = 1;
	struct {
		std::vector<const char *> words;
		Attributes request;
	} const cases[] = {
		{ {}, Attributes() },
		{ { "--location", "lev2" }, Attributes().u32(MOX_CAPTURE_REQUEST_LOCATION, 2) },
		{ { "--interface", "port1" }, Attributes().u32(MOX_CAPTURE_REQUEST_IFINDEX, 7) },
		{ { "--interface", "12" }, Attributes().u32(MOX_CAPTURE_REQUEST_IFINDEX, 12) },
		{ { "--vlan", "4095" }, Attributes().u16(MOX_CAPTURE_REQUEST_VLAN, 4095) },
		{ { "--mac", "02:00:00:00:00:01" },
		  Attributes().raw(MOX_CAPTURE_REQUEST_MAC, { 2, 0, 0, 0, 0, 1 }) },
		{ { "--ethertype", "arp" },
		  Attributes().u16(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x0806) },
		{ { "--ethertype", "88cc" },
		  Attributes().u16(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88cc) },
		{ { "--ip", "10.0.0.1" },
		  Attributes().raw(MOX_CAPTURE_REQUEST_ADDRESS, { 10, 0, 0, 1 }) },
		{ { "--ip", "10.0.0.0/8" },
		  Attributes()
			  .raw(MOX_CAPTURE_REQUEST_ADDRESS, { 10, 0, 0, 0 })
			  .u8(MOX_CAPTURE_REQUEST_PREFIX, 8) },
		{ { "--ip", "fe80::1/128" },
		  Attributes()
			  .raw(MOX_CAPTURE_REQUEST_ADDRESS, v6)
			  .u8(MOX_CAPTURE_REQUEST_PREFIX, 128) },
		{ { "--protocol", "udp" }, Attributes().u8(MOX_CAPTURE_REQUEST_IP_PROTOCOL, 17) },
		{ { "--port", "dhcps" }, Attributes().u16(MOX_CAPTURE_REQUEST_PORT, 67) },
		{ { "--protocol", "6", "--port", "65535" },
		  Attributes()
			  .u8(MOX_CAPTURE_REQUEST_IP_PROTOCOL, 6)
			  .u16(MOX_CAPTURE_REQUEST_PORT, 65535) },
	};
	for (const auto &each : cases) {
		std::vector<const char *> words = { "trace", "--count", "5", "--seconds", "9" };
		words.insert(words.end(), each.words.begin(), each.words.end());
		Read found = read(words);
		ASSERT_FALSE(found.ending) << found.ending->text;
		auto bytes = found.options.trace.attributes();
		EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), each.request.bytes())
			<< (each.words.empty() ? "" : each.words.front());
		EXPECT_EQ(found.options.count, 5u);
		EXPECT_EQ(found.options.seconds, 9u);
	}
}

TEST(capture_options, errors)
{
	struct {
		std::vector<const char *> words;
		std::vector<const char *> expected;
	} const cases[] = {
		{ { "show", "sockets", "--location", "nowhere" },
		  { "\"nowhere\" is unknown", "lev2" } },
		{ { "show", "sockets", "--location", "mpls" }, { "cannot capture" } },
		{ { "show", "rules", "--location", "l2resv" }, { "that of resv" } },
		{ { "show", "rules", "lev2", "--location", "lev2" }, { "given twice" } },
		{ { "show", "sockets", "--pid", "0" }, { "process id", "1 to 2147483647" } },
		{ { "show", "sockets", "--cookie", "-1" }, { "cookie \"-1\"", "show sockets" } },
		{ { "show", "sockets", "--cookie", "17x" }, { "cookie \"17x\"" } },
		{ { "show", "sockets", "--log" }, { "--log" } },
		{ { "show", "rules", "--log", "--pid", "4" }, { "--log", "show process" } },
		{ { "show", "queues", "--log", "--location", "lev2" }, { "--log" } },
		{ { "watch", "--interval", "0" }, { "--interval" } },
		{ { "watch", "--interval", "4000" }, { "--interval" } },
		{ { "watch", "--count", "0" }, { "--count" } },
		{ { "trace", "--seconds", "-1" }, { "--seconds" } },
		{ { "trace", "--vlan", "4096" }, { "VLAN id", "0 to 4095" } },
		{ { "trace", "--mac", "2:0" }, { "MAC address" } },
		{ { "trace", "--ethertype", "any" }, { "leave --ethertype out" } },
		{ { "trace", "--ip", "10.0.0" }, { "IP address", "10.0.0.0/8" } },
		{ { "trace", "--ip", "10.0.0.0/33" }, { "prefix length", "0 to 32" } },
		{ { "trace", "--ip", "fe80::/129" }, { "0 to 128" } },
		{ { "trace", "--ip", "10.0.0.0/" }, { "prefix length" } },
		{ { "trace", "--protocol", "256" }, { "IP protocol" } },
		{ { "trace", "--port", "0" }, { "port", "1 to 65535" } },
		{ { "trace", "--interface", "nosuch" }, { "interface \"nosuch\"", "ip link" } },
		{ { "restrict" }, { "on, off, status" } },
	};
	for (const auto &each : cases) {
		Read found = read(each.words);
		ASSERT_TRUE(found.ending) << each.words.back();
		EXPECT_EQ(found.ending->status, 2);
		for (const char *part : each.expected)
			EXPECT_NE(found.ending->text.find(part), std::string::npos)
				<< part << " is missing in " << found.ending->text;
	}
}

} // namespace
