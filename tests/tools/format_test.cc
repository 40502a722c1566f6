/* SPDX-License-Identifier: GPL-2.0-only */
#include "format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

class Format : public testing::Test {
protected:
	void SetUp() override
	{
		setenv("TZ", "UTC", 1);
		tzset();
		description.source = { 2, 0, 0, 0, 1, 1 };
		description.destination = { 2, 0, 0, 0, 2, 1 };
		description.protocol = "ARP who-has 10.0.0.2 tell 10.0.0.1";
		line.time = { 3661, 123456789 };
		line.interface = "port1";
		line.description = &description;
		line.length = line.captured = 42;
	}

	moxcap::Description description;
	moxcap::Line line;
};

TEST_F(Format, line)
{
	EXPECT_EQ(format_line(line), "01:01:01.123456 port1 02:00:00:00:01:01 > 02:00:00:00:02:01 "
				     "ARP who-has 10.0.0.2 tell 10.0.0.1, length 42\n");
}

TEST_F(Format, line__label_and_cut_frame)
{
	line.label = "copy lev2";
	line.captured = 20;
	EXPECT_EQ(format_line(line),
		  "[copy lev2] 01:01:01.123456 port1 02:00:00:00:01:01 > 02:00:00:00:02:01 "
		  "ARP who-has 10.0.0.2 tell 10.0.0.1, length 42 (read 20)\n");
}

TEST_F(Format, line__without_addresses)
{
	description.source.reset();
	EXPECT_NE(format_line(line).find(" port1 - > 02:00:00:00:02:01 ARP"), std::string::npos);
	description.destination.reset();
	EXPECT_NE(format_line(line).find(" port1 ARP"), std::string::npos);
}

TEST_F(Format, line__what_the_control_record_tells)
{
	struct {
		std::uint16_t vlan, inner, wlan;
		std::uint8_t radio;
		std::uint32_t flags;
		const char *end;
	} const cases[] = {
		{ 0, 0, 0, 0, 0, "length 42\n" },
		{ 10 << 4, 0, 0, 0, 0, "length 42, vlan 10\n" },
		{ 10 << 4 | 5, 0, 0, 0, 0, "length 42, vlan 10 prio 5\n" },
		{ 4095 << 4 | 7, 20, 0, 0, 0, "length 42, vlan 4095 prio 7, inner vlan 20\n" },
		{ 3, 0, 0, 0, 0, "length 42, vlan 0 prio 3\n" },
		{ 0, 0, 2, 1, 0, "length 42, radio 1 wlan 2\n" },
		{ 0, 0, 0, 0, MOX_RECV_TRACE, "length 42, flags trace\n" },
		{ 1 << 4, 0, 0, 0, MOX_RECV_EF_80 | MOX_RECV_NO_L2,
		  "length 42, vlan 1, flags ef80 no-l2\n" },
	};
	for (const auto &each : cases) {
		mox_packet_ctrl_info control{};
		control.vlan = each.vlan;
		control.inner_vlan = each.inner;
		control.wlan_id = each.wlan;
		control.radio_id = each.radio;
		control.flags = each.flags;
		line.control = &control;
		std::string text = format_line(line);
		EXPECT_TRUE(text.ends_with(each.end))
			<< text << "expected at its end: " << each.end;
	}
}

TEST_F(Format, flags__names_every_bit_or_gives_its_number)
{
	EXPECT_EQ(moxcap::format_flags(0x00020002), "trace");
	EXPECT_EQ(moxcap::format_flags(0x4), "ef40000");
	EXPECT_EQ(moxcap::format_flags(0x800), "ef80");
	EXPECT_EQ(moxcap::format_flags(0x1000), "no-l2");
	EXPECT_EQ(moxcap::format_flags(0x80000), "wlan800000");
	EXPECT_EQ(moxcap::format_flags(0x000a1806), "trace ef40000 ef80 no-l2 wlan800000");
	EXPECT_EQ(moxcap::format_flags(0x80000002),
		  "0x80000002"); // half of the trace mark is not the mark
	EXPECT_EQ(moxcap::format_flags(0x10000004), "ef40000 0x10000000");
}

TEST_F(Format, hex)
{
	EXPECT_EQ(moxcap::format_hex({}), "");
	const std::uint8_t bytes[] = { 0x00, 0x41, 0x7e, 0x7f, 0x1b, 0x20, 6,  7,   8,
				       9,    10,   11,   12,   13,   14,   15, 0x5a };
	EXPECT_EQ(moxcap::format_hex(bytes),
		  "    0000  00 41 7e 7f 1b 20 06 07 08 09 0a 0b 0c 0d 0e 0f  .A~.. ..........\n"
		  "    0010  5a                                               Z\n");
}

TEST_F(Format, opening)
{
	moxcap::Options options;
	options.location = PACKET_RESV_LOC;
	options.treatment = PACKET_FETCH;
	options.rules = { mox::Rule::parse("eth=lldp,eapol", {}), mox::Rule::parse("all", {}) };
	EXPECT_EQ(moxcap::format_opening(options),
		  "capturing at PACKET_RESV_LOC, treatment PACKET_FETCH, "
		  "PACKET_ETH_PROT_EQUAL (2 values), PACKET_ALL\n");
	options.label = "a";
	options.rules.clear();
	options.protocol = 0x806;
	EXPECT_EQ(moxcap::format_opening(options),
		  "[a] capturing at PACKET_RESV_LOC, treatment PACKET_FETCH, protocol 0x0806\n");
}

TEST_F(Format, summary_and_counters)
{
	EXPECT_EQ(moxcap::format_summary("", { 1, 0, 4, 3 }),
		  "1 frame captured, 4 matched the rules, 3 of them dropped\n");
	EXPECT_EQ(
		moxcap::format_summary("x", { 2, 1, 2, 0 }),
		"[x] 2 frames captured (1 cut to the snapshot length), 2 matched the rules, 0 of them dropped\n");
	EXPECT_EQ(moxcap::format_counters("x", { 2, 1, 5, 3 }),
		  "[x] captured=2 truncated=1 matched=5 dropped=3\n");
	EXPECT_EQ(moxcap::format_counters("", {}), "captured=0 truncated=0 matched=0 dropped=0\n");
}

} // namespace
