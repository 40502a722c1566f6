// SPDX-License-Identifier: GPL-2.0-only
// Which platform call a location's first rule makes, which its last one undoes, and what a refusing platform changes.
#include <cerrno>

#include "support/fixture.h"

namespace {

using namespace vm;
using lab::Hook;
using lab::RegCall;

class Registration : public VmTest {
protected:
	/// The calls that `what` caused, as "call function point".
	template <class What> std::vector<std::string> calls(What what)
	{
		lab::clear_registration_log();
		what();
		std::vector<std::string> out;
		for (const RegCall &call : lab::registration_log())
			out.push_back(call.call + " " + call.func + " " +
				      std::to_string(call.point));
		return out;
	}
};

using Lines = std::vector<std::string>;

/// The calls for a location's hooks, with the function and the point of each.
Lines wanted(uint32_t location, bool on)
{
	Lines out;
	for (const contract::Hook &hook : contract::hooks(location))
		out.push_back(std::string(on ? "reg_" : "dereg_") + hook.call + " " + hook.symbol +
			      " " + std::to_string(hook.point));
	return out;
}

TEST_F(Registration, first_and_last_rule_of_each_location)
{
	for (uint32_t location = 1; location < contract::kLocationCount; ++location) {
		if (!contract::kLocations[location].accepted)
			continue;
		const Lines in = wanted(location, true), out = wanted(location, false);
		Socket socket;
		ASSERT_EQ(socket.add(all()), 0);
		ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
		EXPECT_EQ(calls([&] { socket.location(location); }), in) << location;
		EXPECT_EQ(calls([&] { socket.location(0); }), out) << location;
		ASSERT_EQ(socket.location(location), 0);
		EXPECT_EQ(calls([&] { socket.close(); }), out) << location << " by closing";
	}
}

TEST_F(Registration, receive_functions_are_registered_anew_at_every_change_and_records_are_not)
{
	// A module record remembers that it is registered; for functions the platform bears the repetition.
	Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Socket second;
	EXPECT_EQ(calls([&] { second.location(PACKET_LEV2_LOC); }), Lines{});
	EXPECT_EQ(calls([&] { second.close(); }), Lines{});
	Socket local = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	Socket other;
	EXPECT_EQ(calls([&] { other.location(PACKET_LOCAL_LOC); }), wanted(PACKET_LOCAL_LOC, true));
	EXPECT_EQ(calls([&] { other.close(); }), wanted(PACKET_LOCAL_LOC, true)) << "one is left";
}

TEST_F(Registration, a_rule_change_of_the_only_socket_takes_the_hook_down_and_up)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Lines both = wanted(PACKET_LEV2_LOC, false);
	both.push_back(wanted(PACKET_LEV2_LOC, true)[0]);
	EXPECT_EQ(calls([&] { socket.add(ethertype(0x0806)); }), both);
}

TEST_F(Registration, options_that_are_no_rule_leave_the_platform_alone)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	EXPECT_EQ(calls([&] {
			  socket.ctrl(true);
			  socket.stats();
			  socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET, nullptr, 0);
			  socket.location(PACKET_MPLS_LOC);
			  socket.treatment(17);
		  }),
		  Lines{});
}

TEST_F(Registration, a_refused_record_is_printed_and_tried_again_at_the_next_change)
{
	Socket socket;
	ASSERT_EQ(socket.add(all()), 0);
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	for (uint32_t location :
	     { PACKET_LEV2_LOC, PACKET_IPv4_LOC, PACKET_IPv6_LOC, PACKET_WLAN_LOC }) {
		const Hook hook = lab::hooks_of(location)[0];
		const std::string line = std::string("reg ") + contract::hooks(location)[0].record +
					 " failed";
		lab::clear_printk();
		lab::fail(lab::Fail::RegModule, 1, 1, -17);
		EXPECT_EQ(socket.location(location), 0) << "the call succeeds all the same";
		EXPECT_FALSE(lab::registered(hook));
		auto lines = lab::printk_lines();
		ASSERT_EQ(lines.size(), 1u) << line;
		EXPECT_TRUE(HasLine(lines, line)) << "printed whether debugging or not";
		EXPECT_EQ(lines[0].find("[MOX-PACKET("), std::string::npos)
			<< "and without the tag";
		lab::clear_registration_log();
		EXPECT_EQ(socket.add(all()), 0);
		EXPECT_TRUE(lab::registered(hook)) << location;
		for (const RegCall &call : lab::registration_log())
			EXPECT_NE(call.call, "dereg_module")
				<< "what was not registered is not deregistered";
	}
	socket.close();
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Registration, a_refused_function_is_silent)
{
	Socket socket;
	ASSERT_EQ(socket.add(all()), 0);
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	lab::clear_printk();
	lab::fail(lab::Fail::RegRecv, 1);
	EXPECT_EQ(socket.location(PACKET_RESV_LOC), 0);
	EXPECT_FALSE(lab::registered(Hook::Resv));
	lab::fail(lab::Fail::RegOutput, 1);
	EXPECT_EQ(socket.location(PACKET_LOCAL_LOC), 0);
	EXPECT_FALSE(lab::registered(Hook::Local));
	EXPECT_TRUE(lab::printk_lines().empty());
	EXPECT_EQ(socket.add(ethertype(0x0806)), 0);
	EXPECT_TRUE(lab::registered(Hook::Local));
}

TEST_F(Registration, a_refused_wlan_output_function_leaves_the_record)
{
	Socket socket;
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	lab::fail(lab::Fail::RegOutput, 1);
	EXPECT_EQ(socket.location(PACKET_WLAN_LOC), 0);
	EXPECT_TRUE(lab::registered(Hook::WlanIn));
	EXPECT_FALSE(lab::registered(Hook::WlanOut));
}

TEST_F(Registration, a_refused_wlan_record_does_not_keep_the_output_function_away)
{
	Socket socket;
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	lab::fail(lab::Fail::RegModule, 1);
	EXPECT_EQ(socket.location(PACKET_WLAN_LOC), 0);
	EXPECT_FALSE(lab::registered(Hook::WlanIn));
	EXPECT_TRUE(lab::registered(Hook::WlanOut));
}

TEST_F(Registration, all_locations_at_once)
{
	std::vector<Socket> sockets;
	for (uint32_t location : { 1, 2, 3, 4, 7, 8, 9, 10 })
		sockets.push_back(capture(location, PACKET_COPY, all()));
	for (Hook hook : { Hook::Local, Hook::Lev2, Hook::Ipv4, Hook::Ipv6, Hook::Resv,
			   Hook::WlanIn, Hook::WlanOut })
		EXPECT_TRUE(lab::registered(hook)) << lab::symbol(hook);
	EXPECT_FALSE(lab::registered(Hook::Mpls));
	EXPECT_FALSE(lab::registered(Hook::Trill));
	EXPECT_EQ(lab::registrations(), 7u);
}

} // namespace
