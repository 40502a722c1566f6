/* SPDX-License-Identifier: GPL-2.0-only */
#include "expect_error.h"
#include "mox/error.h"
#include "mox/values.h"

namespace {

TEST(values, parse_number__decimal_hexadecimal_and_names)
{
	struct {
		const char *text;
		std::uint32_t value;
	} const cases[] = { { "0", 0 },      { "17", 17 },    { "0x11", 17 },
			    { "0XFF", 255 }, { "255", 255 },  { "udp", 17 },
			    { "UDP", 17 },   { "icmp6", 58 }, { "ICMPV6", 58 } };
	for (const auto &each : cases)
		EXPECT_EQ(mox::parse_number("IP protocol", each.text, 0, 255,
					    mox::ip_protocol_names()),
			  each.value)
			<< each.text;
}

TEST(values, parse_number__refuses_what_is_not_all_number)
{
	for (const char *text : { "", " ", "256", "-1", "+1", "0x", "0x100", "1x", "12 ", " 12",
				  "1.5", "99999999999999", "udpx", "0b1" })
		expect_error<mox::UsageError>(
			[&] {
				mox::parse_number("IP protocol", text, 0, 255,
						  mox::ip_protocol_names());
			},
			{ "IP protocol \"" + std::string(text) + "\"", "0 to 255", "icmp", "tcp" });
}

TEST(values, parse_number__keeps_its_bounds)
{
	EXPECT_EQ(mox::parse_number("port", "1", 1, 65535), 1u);
	EXPECT_EQ(mox::parse_number("port", "65535", 1, 65535), 65535u);
	EXPECT_EQ(mox::parse_number("word", "4294967295", 0, 0xffffffff), 0xffffffffu);
	expect_error<mox::UsageError>([] { mox::parse_number("port", "0", 1, 65535); },
				      { "1 to 65535" });
	expect_error<mox::UsageError>([] { mox::parse_number("port", "65536", 1, 65535); },
				      { "1 to 65535" });
	expect_error<mox::UsageError>(
		[] { mox::parse_number("word", "4294967296", 0, 0xffffffff); }, { "word" });
}

TEST(values, parse_mac)
{
	EXPECT_EQ(mox::parse_mac("01:80:c2:00:00:0E"),
		  (mox::MacAddress{ 1, 0x80, 0xc2, 0, 0, 0x0e }));
	EXPECT_EQ(mox::parse_mac("01-80-C2-00-00-0e"),
		  (mox::MacAddress{ 1, 0x80, 0xc2, 0, 0, 0x0e }));
	EXPECT_EQ(mox::parse_mac("broadcast"),
		  (mox::MacAddress{ 0xff, 0xff, 0xff, 0xff, 0xff, 0xff }));
	for (const char *text : { "", "01:80:c2:00:00", "01:80:c2:00:00:0", "01:80:c2:00:00:0g",
				  "01:80:c2:00:00:0e:", "0180c200000e", "01.80.c2.00.00.0e",
				  "1:80:c2:00:00:0e:", "01:80:c2:00:00:0e:00" })
		expect_error<mox::UsageError>([&] { mox::parse_mac(text); },
					      { "MAC address \"" + std::string(text) + "\"",
						"01:80:c2:00:00:0e" });
}

TEST(values, parse_ether_type__is_hexadecimal_without_the_prefix_too)
{
	struct {
		const char *text;
		std::uint16_t value;
	} const cases[] = { { "0x0806", 0x0806 }, { "0806", 0x0806 }, { "806", 0x0806 },
			    { "88cc", 0x88cc },   { "arp", 0x0806 },  { "lldp", 0x88cc },
			    { "EAPOL", 0x888e },  { "ipv4", 0x0800 }, { "ip", 0x0800 },
			    { "ipv6", 0x86dd },   { "any", 3 },       { "0", 0 },
			    { "ffff", 0xffff } };
	for (const auto &each : cases)
		EXPECT_EQ(mox::parse_ether_type(each.text), each.value) << each.text;
	for (const char *text : { "10000", "0x10000", "arpp", "", "x", "-806" })
		expect_error<mox::UsageError>([&] { mox::parse_ether_type(text); },
					      { "EtherType \"" + std::string(text) + "\"",
						"0x0 to 0xffff", "lldp" });
}

TEST(values, parse_interface__by_name_or_index)
{
	auto lookup = [](const std::string &name) -> std::uint32_t {
		return name == "port1" ? 7 : 0;
	};
	EXPECT_EQ(mox::parse_interface("port1", lookup), 7u);
	EXPECT_EQ(mox::parse_interface("12", lookup), 12u);
	EXPECT_EQ(mox::parse_interface("2147483647", lookup), 2147483647u);
	for (const char *text : { "port2", "", "0", "2147483648", "-1", "1 " })
		expect_error<mox::UsageError>([&] { mox::parse_interface(text, lookup); },
					      { "interface", "\"" + std::string(text) + "\"",
						"allowed" });
}

TEST(values, parse_interface__an_index_is_not_looked_up_as_a_name)
{
	auto lookup = [](const std::string &) -> std::uint32_t {
		ADD_FAILURE() << "looked up";
		return 0;
	};
	EXPECT_EQ(mox::parse_interface("3", lookup), 3u);
}

TEST(values, value_name__gives_the_first_name)
{
	EXPECT_EQ(mox::value_name(mox::ether_type_names(), 0x0800), "ipv4");
	EXPECT_EQ(mox::value_name(mox::port_names(), 67), "dhcps");
	EXPECT_EQ(mox::value_name(mox::port_names(), 9), "");
}

} // namespace
