/* SPDX-License-Identifier: GPL-2.0-only */
#include "expect_error.h"
#include "mox/error.h"
#include "mox/rule.h"

#include <ostream>

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t lookup(const std::string &name)
{
	return name == "port1" ? 0x01020304 : 0;
}

struct RecordCase {
	const char *text;
	Bytes record; // as a little-endian machine stores it
};

void PrintTo(const RecordCase &each, std::ostream *out)
{
	*out << each.text;
}

class RuleRecord : public testing::TestWithParam<RecordCase> {};

TEST_P(RuleRecord, is_laid_out_as_the_module_reads_it)
{
	EXPECT_EQ(mox::Rule::parse(GetParam().text, lookup).record(), GetParam().record);
}

// Every type once by alias and once by its full name; type, size and count are two bytes each.
INSTANTIATE_TEST_SUITE_P(
	every_type, RuleRecord,
	testing::Values(
		RecordCase{ "code=7.1,8", { 0, 0, 2, 0, 2, 0, 7, 1, 8, 0 } },
		RecordCase{ "PACKET_PACKET_CODE_EQUAL=255.255", { 0, 0, 2, 0, 1, 0, 255, 255 } },
		RecordCase{ "dmac=01:80:c2:00:00:0e",
			    { 1, 0, 6, 0, 1, 0, 1, 0x80, 0xc2, 0, 0, 0x0e } },
		RecordCase{ "smac=broadcast,02:00:00:00:00:01",
			    { 2, 0, 6, 0, 2, 0, 255, 255, 255, 255, 255, 255, 2, 0, 0, 0, 0, 1 } },
		RecordCase{ "eth=arp,88cc", { 3, 0, 2, 0, 2, 0, 0x08, 0x06, 0x88, 0xcc } },
		RecordCase{ "PACKET_ETH_PROT_EQUAL=any", { 3, 0, 2, 0, 1, 0, 0, 3 } },
		RecordCase{ "snap=ipv4", { 4, 0, 2, 0, 1, 0, 8, 0 } },
		RecordCase{ "ipproto=icmp,89", { 5, 0, 1, 0, 2, 0, 1, 89 } },
		RecordCase{ "ipproto6=icmpv6", { 6, 0, 1, 0, 1, 0, 58 } },
		RecordCase{ "dport=67,68", { 7, 0, 2, 0, 2, 0, 0, 67, 0, 68 } },
		RecordCase{ "sport=0x1234", { 8, 0, 2, 0, 1, 0, 0x12, 0x34 } },
		RecordCase{ "dport6=546", { 9, 0, 2, 0, 1, 0, 2, 0x22 } },
		RecordCase{ "intf=port1,5", { 10, 0, 4, 0, 2, 0, 4, 3, 2, 1, 5, 0, 0, 0 } },
		RecordCase{ "icmp6=echo-request,135", { 11, 0, 1, 0, 2, 0, 128, 135 } },
		RecordCase{ "mcast", { 12, 0, 0, 0, 1, 0 } },
		RecordCase{ "PACKET_IPv6_MCAST_TRAFFIC", { 13, 0, 0, 0, 1, 0 } },
		RecordCase{ "eapol=eap,start,key", { 14, 0, 1, 0, 3, 0, 0, 1, 3 } },
		RecordCase{ "wps", { 15, 0, 1, 0, 1, 0, 0 } },
		RecordCase{ "all", { 16, 0, 0, 0, 0, 0 } },
		RecordCase{ "not-attr=any,0x10",
			    { 17, 0, 4, 0, 2, 0, 255, 255, 255, 255, 16, 0, 0, 0 } },
		RecordCase{ "wlan-mgnt", { 18, 0, 0, 0, 1, 0 } },
		RecordCase{ "arp=request,reply", { 19, 0, 2, 0, 2, 0, 0, 1, 0, 2 } }));

TEST(rule, table_stands_in_the_order_of_the_numbers_with_one_name_each)
{
	for (std::size_t i = 0; i < mox::rule_types().size(); ++i) {
		const mox::RuleType &row = mox::rule_types()[i];
		EXPECT_EQ(row.value, i);
		EXPECT_EQ(mox::find_rule_type(row.full).value, i) << row.full;
		EXPECT_EQ(mox::find_rule_type(row.alias()).value, i) << row.alias();
	}
	EXPECT_EQ(mox::rule_types().size(), 20u);
}

TEST(rule, add_number__in_the_byte_order_and_width_of_the_type)
{
	struct {
		std::uint32_t type, number;
		Bytes element; // as a little-endian machine stores it
	} const cases[] = {
		{ PACKET_ETH_PROT_EQUAL, 0x88cc, { 0x88, 0xcc } },
		{ PACKET_SNAP_ETH_TYPE_EQUAL, 0x0800, { 8, 0 } },
		{ PACKET_IPv4_PROT_EQUAL, 255, { 255 } },
		{ PACKET_IPv6_DEST_PORT_EQUAL, 546, { 2, 0x22 } },
		{ PACKET_SRC_INTF_EQUAL, 0x01020304, { 4, 3, 2, 1 } },
		{ PACKET_EAPOL_TYPE_WPS, 0, { 0 } },
		{ PACKET_PID_T, 0xffffffff, { 255, 255, 255, 255 } },
		{ PACKET_ARP_TYPE, 2, { 0, 2 } },
	};
	for (const auto &each : cases) {
		mox::Rule rule(each.type);
		rule.add_number(each.number);
		Bytes record = rule.record();
		EXPECT_EQ(Bytes(record.begin() + 6, record.end()), each.element) << each.type;
		EXPECT_EQ(rule.count(), 1u);
	}
}

TEST(rule, add_number__refuses_what_does_not_fit_and_types_without_numbers)
{
	struct {
		std::uint32_t type, number;
		const char *part;
	} const cases[] = {
		{ PACKET_ETH_PROT_EQUAL, 0x10000, "eth has values of 2 bytes: 65536 does not fit" },
		{ PACKET_IPv4_PROT_EQUAL, 256, "ipproto has values of 1 bytes: 256 does not fit" },
		{ PACKET_PACKET_CODE_EQUAL, 1, "code has no values that are numbers" },
		{ PACKET_DEST_MAC_EQUAL, 1, "dmac has no values that are numbers" },
		{ PACKET_IPv4_MCAST_TRAFFIC, 1, "mcast has no values that are numbers" },
		{ PACKET_ALL, 1, "all has no values that are numbers" },
	};
	for (const auto &each : cases)
		expect_error<mox::UsageError>([&] { mox::Rule(each.type).add_number(each.number); },
					      { each.part });
}

TEST(rule, parse__refuses_unknown_types_and_lists_the_allowed)
{
	for (const char *text : { "ethertype=arp", "=arp", "", "PACKET_=1", "all all" })
		expect_error<mox::UsageError>([&] { mox::Rule::parse(text, lookup); },
					      { "rule type", "is unknown",
						"eth (PACKET_ETH_PROT_EQUAL)",
						"arp (PACKET_ARP_TYPE)", "all" });
}

TEST(rule, parse__refuses_a_type_without_its_value)
{
	for (const char *text :
	     { "eth", "dport", "dmac", "intf", "arp", "not-attr", "code", "eapol" })
		expect_error<mox::UsageError>([&] { mox::Rule::parse(text, lookup); },
					      { text, "needs a value" });
}

TEST(rule, parse__refuses_a_value_where_there_is_none)
{
	for (const char *text : { "all=1", "mcast=239.1.1.1", "mcast6=", "wlan-mgnt=8" })
		expect_error<mox::UsageError>([&] { mox::Rule::parse(text, lookup); },
					      { "takes no value" });
}

TEST(rule, parse__refuses_bad_values_with_what_is_allowed)
{
	struct {
		const char *text;
		const char *allowed;
	} const cases[] = {
		{ "eth=zz", "lldp" },
		{ "eth=arp,", "lldp" },
		{ "dport=0", "1 to 65535" },
		{ "dport=65536", "dhcps" },
		{ "sport=", "1 to 65535" },
		{ "ipproto=256", "tcp" },
		{ "icmp6=0", "1 to 255" },
		{ "icmp6=256", "ns" },
		{ "dmac=1:2:3", "01:80:c2" },
		{ "intf=nope", "ip link" },
		{ "code=256", "0 to 255" },
		{ "code=1.256", "0 to 255" },
		{ "code=1.", "0 to 255" },
		{ "eapol=9x", "start" },
		{ "arp=0", "request" },
		{ "arp=65536", "reply" },
		{ "wps=256", "0 to 255" },
		{ "not-attr=4294967296", "any" },
		{ "dport=67,,68", "1 to 65535" },
	};
	for (const auto &each : cases)
		expect_error<mox::UsageError>([&] { mox::Rule::parse(each.text, lookup); },
					      { "allowed", each.allowed });
}

TEST(rule, add_element__takes_elements_of_the_types_own_size_only)
{
	mox::Rule mac(PACKET_DEST_MAC_EQUAL);
	const std::uint8_t bytes[7] = { 1, 2, 3, 4, 5, 6, 7 };
	mac.add_element(std::span(bytes, 6));
	EXPECT_EQ(mac.count(), 1u);
	expect_error<mox::UsageError>([&] { mac.add_element(std::span(bytes, 5)); },
				      { "6 bytes", "given 5" });
	expect_error<mox::UsageError>([&] { mac.add_element(std::span(bytes, 7)); },
				      { "6 bytes", "given 7" });
	EXPECT_EQ(mac.count(), 1u);

	mox::Rule all(PACKET_ALL);
	expect_error<mox::UsageError>([&] { all.add_element({}); }, { "all has no elements" });
}

TEST(rule, the_count_never_overflows_its_16_bits)
{
	mox::Rule rule(PACKET_IPv4_MCAST_TRAFFIC);
	for (int i = 0; i < 65535; ++i)
		rule.add_element({});
	expect_error<mox::UsageError>([&] { rule.add_element({}); }, { "65535" });
	EXPECT_EQ(rule.record(), (Bytes{ 12, 0, 0, 0, 0xff, 0xff }));
}

TEST(rule, a_number_that_is_no_type_is_refused)
{
	expect_error<mox::UsageError>([] { mox::Rule rule(20); }, { "rule type 20", "0 to 19" });
	EXPECT_EQ(mox::Rule(19).type().full, "PACKET_ARP_TYPE");
}

struct OrderCase {
	std::vector<const char *> given;
	bool protocol;
	std::vector<int> filed;
};

TEST(rule, in_filing_order)
{
	const OrderCase cases[] = {
		{ {}, false, { 16 } },                         // nothing would match nothing
		{ {}, true, {} },                              // the protocol is a rule
		{ { "eth=arp", "dport=1" }, false, { 3, 7 } }, // order kept
		{ { "arp=request" }, false, { 3, 19 } },       // found behind an EtherType only
		{ { "arp=request" }, true, { 19 } },
		{ { "arp=request", "smac=broadcast" }, false, { 2, 19 } },
		{ { "arp=reply", "eth=arp", "arp=request" }, false, { 3, 19, 19 } },
		{ { "not-attr=any" }, false, { 16, 17 } }, // an exclusion is no key
		{ { "not-attr=any" }, true, { 17 } },
		{ { "not-attr=1", "mcast" }, false, { 17, 12 } },
		{ { "not-attr=1", "arp=request" }, false, { 3, 17, 19 } },
		{ { "all" }, false, { 16 } },
	};
	for (const OrderCase &each : cases) {
		std::vector<mox::Rule> rules;
		std::string given;
		for (const char *text : each.given) {
			rules.push_back(mox::Rule::parse(text, lookup));
			given += std::string(text) + " ";
		}
		std::vector<int> filed;
		for (const mox::Rule &rule : mox::in_filing_order(rules, each.protocol))
			filed.push_back(rule.type().value);
		EXPECT_EQ(filed, each.filed) << given << (each.protocol ? "with protocol" : "");
	}
}

TEST(rule, in_filing_order__the_EtherType_that_is_put_in_front_is_ARP)
{
	auto rules = mox::in_filing_order({ mox::Rule::parse("arp=request", lookup) }, false);
	ASSERT_EQ(rules.size(), 2u);
	EXPECT_EQ(rules[0].record(), (Bytes{ 3, 0, 2, 0, 1, 0, 8, 6 }));
	EXPECT_EQ(rules[1].record(), (Bytes{ 19, 0, 2, 0, 1, 0, 0, 1 }));
}

} // namespace
