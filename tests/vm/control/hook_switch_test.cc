// SPDX-License-Identifier: GPL-2.0-only
// The hook switch: what it asks of the platform at each location, with rules there and without, and that frames stop
// arriving and arrive again.
#include "control.h"

#include <arpa/inet.h>

namespace {

using namespace vm;
using namespace frames;
using contract::hook_calls;
using lab::Frame;
using lab::Hook;
using Calls = std::vector<std::string>;

struct Row {
	uint32_t type, location;
	std::vector<Hook> hooks;
	Calls away, back;
};

const std::vector<Row> kRows = [] {
	std::vector<Row> rows;
	for (uint32_t location = 1; location <= contract::kLibraries; ++location)
		rows.push_back({ contract::hook_switch(location), location, lab::hooks_of(location),
				 hook_calls(location, false, &contract::Hook::symbol),
				 hook_calls(location, true, &contract::Hook::symbol) });
	return rows;
}();

/// A frame that an all-packets rule catches there.
Frame frame_for(Hook hook)
{
	switch (hook) {
	case Hook::Ipv4:
		return ipv4(17, udp(68, 67));
	case Hook::Ipv6:
		return ipv6(17, udp(546, 547));
	case Hook::WlanIn:
		return wlan80211(true);
	case Hook::WlanOut:
		return eapol(0);
	default:
		return plain();
	}
}

class HookSwitch : public ControlTest {
protected:
	/// The platform's calls that a request causes, in their order.
	Calls calls(uint32_t type, uint32_t is_open)
	{
		lab::clear_registration_log();
		ask_debug(type, is_open);
		Calls out;
		for (const lab::RegCall &call : lab::registration_log())
			out.push_back(call.call + " " + call.func);
		return out;
	}
	/// One frame at each hook; how many of them found a hook, and how many reached the socket.
	static std::pair<size_t, size_t> traffic(const std::vector<Hook> &hooks, Socket &socket)
	{
		size_t hooked = 0;
		for (Hook hook : hooks)
			hooked += lab::flood(hook, frame_for(hook), 1, 2);
		EXPECT_TRUE(lab::settle());
		return { hooked, socket.drain() };
	}
};

TEST_F(HookSwitch, with_rules_frames_stop_and_arrive_again)
{
	for (const Row &row : kRows) {
		SCOPED_TRACE(row.type);
		if (row.hooks.empty())
			continue;
		Socket socket = capture(row.location, PACKET_COPY, all());
		const std::pair<size_t, size_t> every{ row.hooks.size(), row.hooks.size() },
			none{ 0, 0 };
		EXPECT_EQ(traffic(row.hooks, socket), every);
		EXPECT_EQ(calls(row.type, 1), row.away);
		EXPECT_EQ(traffic(row.hooks, socket), none);
		EXPECT_EQ(lab::registrations(), 0u);
		EXPECT_EQ(calls(row.type, 256), row.back)
			<< "only the low byte counts, and that is 0";
		EXPECT_EQ(traffic(row.hooks, socket), every);
		EXPECT_EQ(calls(row.type, 0x2ff), row.away);
		EXPECT_EQ(traffic(row.hooks, socket), none);
		EXPECT_EQ(calls(row.type, 0), row.back);
		EXPECT_EQ(traffic(row.hooks, socket), every);
		EXPECT_FALSE(client_.receive()) << "no answer";
	}
}

TEST_F(HookSwitch, without_rules_nothing_comes_back)
{
	for (const Row &row : kRows) {
		SCOPED_TRACE(row.type);
		EXPECT_EQ(calls(row.type, 0), Calls{});
		// A module record holds whether it is registered; functions are deregistered all the same.
		Calls functions;
		for (const std::string &call : row.away)
			if (call.find("dereg_module") != 0)
				functions.push_back(call);
		EXPECT_EQ(calls(row.type, 1), functions);
		EXPECT_EQ(calls(row.type, 0), Calls{});
		EXPECT_EQ(lab::registrations(), 0u);
	}
}

TEST_F(HookSwitch, mpls_and_trill_do_nothing)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (uint32_t type : { 23, 24 })
		for (uint32_t value : { 1, 0 }) {
			EXPECT_EQ(calls(type, value), Calls{});
			EXPECT_EQ(answer(MOX_MSG_DEBUG, words({ type, value })), "");
		}
	EXPECT_TRUE(lab::registered(Hook::Lev2));
}

TEST_F(HookSwitch, the_reserved_locations_share_a_hook_and_a_library)
{
	for (uint32_t location : { PACKET_LEV2_RESV_LOC, PACKET_LEV3_RESV_LOC }) {
		Socket socket = capture(location, PACKET_COPY, all());
		Frame frame = plain(0x88cc);
		frame.dst_ifx = location == PACKET_LEV2_RESV_LOC ? lab::kLev2Resv : lab::kLev3Resv;
		EXPECT_EQ(calls(25, 1), Calls{ "dereg_recv mox_packet_resv_rcv" });
		EXPECT_EQ(lab::flood(Hook::Resv, frame, 3, 0), 0u);
		EXPECT_EQ(socket.drain(), 0u);
		EXPECT_EQ(calls(25, 0), Calls{ "reg_recv mox_packet_resv_rcv" });
		EXPECT_EQ(lab::flood(Hook::Resv, frame, 3, 0), 3u);
		EXPECT_TRUE(lab::settle());
		EXPECT_EQ(socket.drain(), 3u);
	}
}

TEST_F(HookSwitch, all_at_once_in_order)
{
	std::vector<Socket> sockets;
	for (const Row &row : kRows)
		if (!row.hooks.empty())
			sockets.push_back(capture(row.location, PACKET_COPY, all()));
	ASSERT_EQ(lab::registrations(), 7u);
	Calls away, back;
	for (const Row &row : kRows) {
		away.insert(away.end(), row.away.begin(), row.away.end());
		back.insert(back.end(), row.back.begin(), row.back.end());
	}
	EXPECT_EQ(calls(27, 1), away);
	EXPECT_EQ(lab::registrations(), 0u);
	EXPECT_EQ(calls(27, 0), back);
	EXPECT_EQ(lab::registrations(), 7u);
	size_t i = 0;
	for (const Row &row : kRows)
		if (!row.hooks.empty()) {
			EXPECT_EQ(traffic(row.hooks, sockets[i]).second, row.hooks.size())
				<< row.type;
			++i;
		}
}

TEST_F(HookSwitch, all_at_once_puts_back_only_where_rules_are)
{
	Socket socket = capture(PACKET_IPv6_LOC, PACKET_COPY, all());
	ask_debug(27, 1);
	EXPECT_EQ(calls(27, 0), Calls{ "reg_module mox_packet_ipv6_rcv" });
}

TEST_F(HookSwitch, the_next_rule_brings_the_hook_back)
{
	Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ask_debug(20, 1);
	ASSERT_FALSE(lab::registered(Hook::Lev2));
	Socket second = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	EXPECT_TRUE(lab::registered(Hook::Lev2));
	ask_debug(20, 1);
	second.close();
	EXPECT_TRUE(lab::registered(Hook::Lev2)) << "one rule is left";
	ask_debug(20, 1);
	first.close();
	EXPECT_FALSE(lab::registered(Hook::Lev2));
	EXPECT_EQ(calls(20, 0), Calls{});
}

TEST_F(HookSwitch, what_waits_in_the_queue_is_still_delivered)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all());
	for (int i = 0; i < 20; ++i) {
		ask_debug(20, 0);
		lab::inject_many(Hook::Lev2, plain(), 10, 3);
		ask_debug(20, 1);
		EXPECT_TRUE(lab::settle());
		EXPECT_EQ(socket.drain(), 10u);
	}
}

TEST_F(HookSwitch, a_platform_that_refuses)
{
	Socket socket = capture(PACKET_IPv4_LOC, PACKET_COPY, all());
	ask_debug(21, 1);
	lab::fail(lab::Fail::RegModule, 1, 1, -17);
	EXPECT_EQ(answer(MOX_MSG_DEBUG, words({ 21, 0 })), "reg PACKET-IPV4-MODULE failed\n");
	EXPECT_FALSE(lab::registered(Hook::Ipv4));
	EXPECT_EQ(answer(MOX_MSG_DEBUG, words({ 21, 0 })), "");
	EXPECT_TRUE(lab::registered(Hook::Ipv4)) << "asked again, it takes it";
}

TEST_F(HookSwitch, other_types_are_no_hooks)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (uint32_t type : { 0, 1, 9, 17, 18, 28, 29, 255, 65535 })
		EXPECT_EQ(calls(type, 1), Calls{}) << type;
	EXPECT_TRUE(lab::registered(Hook::Lev2));
}

} // namespace
