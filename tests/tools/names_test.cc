/* SPDX-License-Identifier: GPL-2.0-only */
#include "expect_error.h"
#include "mox/error.h"
#include "mox/names.h"
#include "mox_packet.h"

namespace {

struct NameCase {
	const char *text;
	std::uint32_t value;
};

TEST(names, every_row_stands_at_its_own_number)
{
	for (auto table : { mox::locations(), mox::treatments() })
		for (std::size_t i = 0; i < table.size(); ++i)
			EXPECT_EQ(table[i].value, i);
	EXPECT_EQ(mox::locations().size(), 11u);
	EXPECT_EQ(mox::treatments().size(), 6u);
}

TEST(names, every_full_name_and_alias_is_found_and_means_its_row_alone)
{
	for (auto table : { mox::locations(), mox::treatments(), mox::send_flags() })
		for (const mox::Name &row : table) {
			EXPECT_EQ(mox::find_name(table, row.full)->value, row.value) << row.full;
			EXPECT_EQ(mox::find_name(table, row.alias())->value, row.value)
				<< row.alias();
		}
}

TEST(names, parse_location)
{
	constexpr NameCase cases[] = {
		{ "lev2", 2 },
		{ "l2", 2 },
		{ "LEV2", 2 },
		{ "PACKET_LEV2_LOC", 2 },
		{ "packet-lev2-loc", 2 },
		{ "LEV2_LOC", 2 },
		{ "local", 1 },
		{ "ipv4", 3 },
		{ "ip", 3 },
		{ "PACKET_IPv4_LOC", 3 },
		{ "ipv6", 4 },
		{ "resv", 7 },
		{ "wlan", 8 },
		{ "l2resv", 9 },
		{ "lev2-resv", 9 },
		{ "PACKET_LEV2_RESV_LOC", 9 },
		{ "l3resv", 10 },
		{ "LEV3_RESV", 10 },
	};
	for (const NameCase &each : cases)
		EXPECT_EQ(mox::parse_location(each.text), each.value) << each.text;
}

TEST(names, parse_location__refuses_unknown_ones_and_lists_the_allowed)
{
	for (const char *text : { "lev4", "", "PACKET_", "lev2 l2", "2", "l" })
		expect_error<mox::UsageError>([&] { mox::parse_location(text); },
					      { "\"" + std::string(text) + "\" is unknown",
						"lev2 (PACKET_LEV2_LOC)",
						"l3resv (PACKET_LEV3_RESV_LOC)", "local", "wlan" });
}

TEST(names, parse_location__refuses_what_the_module_refuses)
{
	for (const char *text : { "none", "mpls", "PACKET_TRILL_LOC" })
		expect_error<mox::UsageError>([&] { mox::parse_location(text); },
					      { "cannot capture", "lev2" });
	try {
		mox::parse_location("mpls");
	} catch (const mox::UsageError &error) {
		EXPECT_EQ(std::string(error.what()).find("TRILL"), std::string::npos)
			<< "listed as allowed";
	}
}

TEST(names, parse_treatment)
{
	constexpr NameCase cases[] = {
		{ "copy", 1 },       { "Fetch", 2 },      { "PACKET_TRAP", 3 },
		{ "copy-local", 4 }, { "copy_local", 4 }, { "PACKET_FETCH_LOCAL", 5 },
	};
	for (const NameCase &each : cases)
		EXPECT_EQ(mox::parse_treatment(each.text), each.value) << each.text;
	expect_error<mox::UsageError>([] { mox::parse_treatment("steal"); },
				      { "\"steal\"", "copy (PACKET_COPY)", "trap", "fetch-local" });
	expect_error<mox::UsageError>([] { mox::parse_treatment("none"); }, { "cannot capture" });
}

TEST(names, parse_send_flag)
{
	constexpr NameCase cases[] = {
		{ "debug", 0x2 },
		{ "trace", 0x2 },
		{ "ef40000", 0x4 },
		{ "vxlan-encap", 0x100 },
		{ "VXLAN_ENCAP", 0x100 },
		{ "block", 0x200 },
		{ "send4", 0x400 },
		{ "0x400", 0x400 },
		{ "send20", 0x4000 },
		{ "4000", 0x4000 },
		{ "send40", 0x10000 },
		{ "send80", 0x20000 },
		{ "no-acl", 0x40000 },
		{ "MOX_SEND_NO_ACL", 0x40000 },
		{ "proxy-capture", 0x100000 },
	};
	for (const NameCase &each : cases)
		EXPECT_EQ(mox::parse_send_flag(each.text), each.value) << each.text;
	for (const char *text : { "acl", "", "0x1", "debug,block" })
		expect_error<mox::UsageError>(
			[&] { mox::parse_send_flag(text); },
			{ "send flag \"" + std::string(text) + "\" is unknown",
			  "debug (MOX_SEND_DEBUG)", "proxy-capture (MOX_SEND_PROXY_CAPTURE)" });
}

TEST(names, send_flags__each_bit_of_the_header_once_and_shown_by_name)
{
	std::uint32_t all = 0;
	std::string text;
	for (const mox::Name &row : mox::send_flags()) {
		EXPECT_EQ(all & row.value, 0u) << row.full;
		all |= row.value;
		text += (text.empty() ? "" : " ") + std::string(row.alias());
	}
	EXPECT_EQ(all, 0x174706u);
	EXPECT_EQ(mox::send_flags_text(all), text);
	EXPECT_EQ(mox::send_flags_text(0), "");
	EXPECT_EQ(mox::send_flags_text(0x80000001), "0x80000001");
	EXPECT_EQ(mox::send_flags_text(0x80000002), "debug 0x80000000");
}

TEST(names, numbers_beyond_the_tables_are_unknown)
{
	EXPECT_EQ(mox::location_name(9), "PACKET_LEV2_RESV_LOC");
	EXPECT_EQ(mox::location_name(11), "Unknown");
	EXPECT_EQ(mox::treatment_name(3), "PACKET_TRAP");
	EXPECT_EQ(mox::treatment_name(6), "Unknown");
}

} // namespace
