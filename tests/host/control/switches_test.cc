// SPDX-License-Identifier: GPL-2.0-only
// The requests of the control channel that change something: the debug switches, the
// hooks' switch and the filter for frames.
#include "contract/control.h"
#include "control_fixture.h"

namespace {

class Msg : public ControlTest {
protected:
	static std::string debug_lines(const Strings &lines)
	{
		std::string all;
		for (const std::string &l : lines)
			all += tagged(l);
		return all;
	}
};

// ---- debug switches --------------------------------------------------------------------------

TEST_F(Msg, debug__every_type_with_every_value)
{
	for (u32 type = 0; type <= 28; type++)
		for (u32 value : { 0u, 1u, 256u, 0x107u, 0xffffffffu })
			for (u8 before : { 0, 1, 9 }) {
				SCOPED_TRACE("type " + std::to_string(type) + " value " +
					     std::to_string(value));
				memset(mox_packet_debug, before, sizeof mox_packet_debug);
				mox_packet_debug[9] = mox_packet_debug[18] = 0;
				std::vector<u8> wanted = switches();
				const auto [from, to] = contract::switches_of(type);
				for (u32 i = from; i <= to; i++)
					wanted[i] = u8(value);
				ask(14, debug_body(type, value));
				EXPECT_EQ(switches(), wanted);
				EXPECT_EQ(mox_packet_debug[9], 0);
				EXPECT_EQ(mox_packet_debug[18], 0);
				kernel().log.clear();
			}
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Msg, debug__is_printed_while_debugging)
{
	debug();
	const struct {
		u32 type, value;
		Strings lines;
	} cases[] = {
		{ 3, 1, { "DEBUG TYPE 3, IS_OPEN 1\n" } },
		{ 9, 256, { "DEBUG TYPE 9, IS_OPEN 0\n" } },
		{ 18, 0x1ff, { "DEBUG TYPE 18, IS_OPEN 255\n" } },
		{ 23, 1, { "DEBUG TYPE 23, IS_OPEN 1\n" } },
		{ 27, 0, { "DEBUG TYPE 27, IS_OPEN 0\n" } },
		{ 28, 1, { "DEBUG TYPE 28, IS_OPEN 1\n", "DEBUG TYPE ILLEGAL\n" } },
		{ 0xffffffff, 7, { "DEBUG TYPE -1, IS_OPEN 7\n", "DEBUG TYPE ILLEGAL\n" } },
	};
	for (auto &c : cases) {
		mox_packet_request r{};
		r.msg_type = 14;
		r.body.debug.type = c.type;
		r.body.debug.is_open = c.value;
		EXPECT_EQ(mox_packet_msg_deal(&r, kClient), 0);
		EXPECT_EQ(said(), tagged("MSG TYPE 14, client 74565\n") +
					  "Deal message from 74565, captured.\n" +
					  debug_lines(c.lines));
	}
}

// The switch is looked at before it changes.
TEST_F(Msg, debug__general_switch_going_off_is_printed_and_going_on_is_not)
{
	debug();
	ask(14, debug_body(0, 0));
	EXPECT_TRUE(kernel().said(tagged("DEBUG TYPE 0, IS_OPEN 0\n")));
	EXPECT_EQ(mox_packet_debug[0], 0);
	kernel().log.clear();
	ask(14, debug_body(0, 1));
	EXPECT_EQ(answer(), "");
	EXPECT_EQ(mox_packet_debug[0], 1);
}

// ---- hook switch -----------------------------------------------------------------------------

TEST_F(Msg, hook__each_location_with_a_filled_library)
{
	for (u32 location = 1; location <= contract::kLibraries; location++) {
		SCOPED_TRACE(location);
		const Strings away = contract::hook_calls(location, false),
			      back = contract::hook_calls(location, true);
		Rule rule(location, PACKET_COPY);
		rule.item(PACKET_ALL).add();
		auto turned = [&](u32 value) {
			efmp().registrations.clear();
			ask(14, debug_body(contract::hook_switch(location), value));
			return efmp().registrations;
		};
		EXPECT_EQ(turned(1), away);
		for (const std::string &call : away)
			EXPECT_FALSE(hooked(call.substr(call.find(' ') + 1)));
		EXPECT_EQ(turned(256), back) << "the low byte counts";
		for (const std::string &call : back)
			EXPECT_TRUE(hooked(call.substr(call.find(' ') + 1)));
		EXPECT_EQ(turned(255), away);
		EXPECT_EQ(turned(0), back);
		kernel().log.clear();
	}
}

TEST_F(Msg, hook__each_location_with_an_empty_library)
{
	for (u32 location = 1; location <= contract::kLibraries; location++) {
		SCOPED_TRACE(location);
		efmp().registrations.clear();
		ask(14, debug_body(contract::hook_switch(location), 0));
		EXPECT_EQ(efmp().registrations, Strings{}) << "nothing to put back";
		ask(14, debug_body(contract::hook_switch(location), 1));
		// A module record holds whether it is registered; functions have no such state.
		for (const std::string &call : efmp().registrations)
			EXPECT_EQ(call.find("dereg_module"), std::string::npos);
	}
}

TEST_F(Msg, hook__all_in_order_and_the_record_keeps_the_last)
{
	std::vector<std::unique_ptr<Rule>> rules;
	for (u32 location = 1; location <= 8; location++) {
		rules.push_back(std::make_unique<Rule>(location, PACKET_COPY));
		rules.back()->item(PACKET_ALL).add();
	}
	for (u32 value : { 1u, 0u }) {
		Strings wanted;
		for (u32 location = 1; location <= contract::kLibraries; location++)
			for (const std::string &call : contract::hook_calls(location, !value))
				wanted.push_back(call);
		efmp().registrations.clear();
		mox_packet_request r{};
		r.msg_type = 14;
		r.body.debug.type = contract::kEveryHookSwitch;
		r.body.debug.is_open = value;
		EXPECT_EQ(mox_packet_msg_deal(&r, kClient), 0);
		EXPECT_EQ(efmp().registrations, wanted);
		EXPECT_EQ(r.body.debug.type, 26u);
		EXPECT_EQ(r.body.debug.is_open, value);
	}
}

TEST_F(Msg, hook__frames_pass_by_while_it_is_away)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ask(14, debug_body(20, 1));
	EXPECT_FALSE(hooked("lev2"));
	EXPECT_EQ(g_lev2_packet_module.registered, 0);
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u) << "the rule stays";
	ask(14, debug_body(20, 0));
	EXPECT_TRUE(hooked("lev2"));
}

// A change of the location's rules brings the hook back in line.
TEST_F(Msg, hook__next_rule_registers_again_and_the_last_one_going_is_harmless)
{
	Sock s, t;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ask(14, debug_body(20, 1));
	t.capture(PACKET_LEV2_LOC, PACKET_COPY);
	EXPECT_TRUE(hooked("lev2"));
	ask(14, debug_body(20, 1));
	t.release();
	EXPECT_TRUE(hooked("lev2"));
	ask(14, debug_body(20, 1));
	s.release();
	EXPECT_FALSE(hooked("lev2"));
}

TEST_F(Msg, hook__refused_by_the_platform)
{
	Sock s;
	s.capture(PACKET_IPv4_LOC, PACKET_COPY);
	ask(14, debug_body(21, 1));
	kernel().log.clear();
	kernel().fail(Fail::kRegModule);
	ask(14, debug_body(21, 0));
	EXPECT_EQ(answer(), "reg PACKET-IPV4-MODULE failed\n");
	EXPECT_FALSE(hooked("ipv4"));
	const u32 body[2] = { 21, 0 };
	kernel().error[Fail::kRegModule] = -77;
	kernel().fail(Fail::kRegModule);
	EXPECT_EQ(mox_packet_dereg_msg_deal(body), -77);
	EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
	EXPECT_TRUE(hooked("ipv4"));
}

TEST_F(Msg, hook__other_types_are_illegal_there)
{
	for (u32 type : { 0u, 18u, 27u, 28u, 0xffffffffu }) {
		const u32 body[2] = { type, 1 };
		debug(false);
		EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
		EXPECT_EQ(said(), "");
		debug();
		EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
		EXPECT_EQ(said(), tagged("MSG TYPE ILLEGAL\n"));
	}
}

// A socket comes at the location while an operator puts the hook back, and the other
// way round: with a rule in the library at the end, the hook is there.
TEST_F(Msg, hook__turned_while_the_last_rule_goes)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	ask(14, debug_body(20, 1));
	// The last rule goes just before the hook lock is taken to put the hook back.
	bool gone = false;
	kernel().at[Point::kLocking] = [&](const void *) {
		if (!gone) {
			gone = true;
			on_other_cpu([&] { s.release(); });
		}
	};
	ask(14, debug_body(20, 0));
	kernel().at.clear();
	EXPECT_TRUE(gone);
	EXPECT_FALSE(hooked("lev2")) << "no hook is left behind for an empty library";
}

// ---- the filter ---------------------------------------------------------------------------------

Bytes filter_record(u8 enable, u32 flags, u32 vid)
{
	Bytes f{ enable, 0, 0, 0 };
	f = f + u32_bytes(flags) + u32_bytes(vid);
	for (u8 b = 0; f.size() < 72; b++)
		f.push_back(0x40 + b);
	return f;
}

TEST_F(Msg, filter__is_replaced_as_a_whole)
{
	const Bytes wanted = filter_record(1, 0x3fe, 100);
	ask(15, wanted);
	std::vector<u8> stored = filter_bytes();
	EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), (Bytes{ 0, 0, 0, 100 }));
	Bytes rest = wanted;
	std::copy(stored.begin() + 8, stored.begin() + 12, rest.begin() + 8);
	EXPECT_EQ(stored, rest);
	ask(15, Bytes(72));
	EXPECT_EQ(filter_bytes(), std::vector<u8>(72));
}

TEST_F(Msg, filter__vlan_word_carries_the_senders_vsd)
{
	const struct {
		const char *cwd;
		u32 vid;
		Bytes word;
	} cases[] = {
		{ "/root", 0x123, { 0, 0, 0x01, 0x23 } },
		{ "/root", 0xffffffff, { 0, 0, 0x0f, 0xff } },
		{ "/root", 0x1000, { 0, 0, 0, 0 } },
		{ "/data/var/run/vsd/0/x", 1, { 0, 0, 0, 1 } },
		{ "/data/var/run/vsd/3/x", 100, { 0x30, 0, 0, 100 } },
		{ "/data/var/run/vsd/15", 0xfff, { 0xf0, 0, 0x0f, 0xff } },
		{ "/data/var/run/vsd/16", 2, { 0, 0, 0, 2 } }, // the upper bits are lost
		{ "/data/var/run/vsd/35abc", 2, { 0x30, 0, 0, 2 } },
		{ "/data/var/run/vsd/4294967295", 2, { 0, 0, 0, 2 } }, // negative
		{ "/data/var/run/vsd/", 2, { 0, 0, 0, 2 } },
		{ "/data/var/run/vsd", 2, { 0, 0, 0, 2 } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cwd);
		kernel().cwd = c.cwd;
		ask(15, filter_record(1, 2, c.vid));
		std::vector<u8> stored = filter_bytes();
		EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), c.word);
	}
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().cwd_renders = false;
	ask(15, filter_record(1, 2, 5));
	EXPECT_EQ(filter_bytes()[8], 0) << "a path that cannot be rendered is no vsd's";
}

TEST_F(Msg, filter__without_memory_for_the_path_is_set_for_vsd_0)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().fail(Fail::kKmalloc);
	kernel().log.clear();
	ask(15, filter_record(1, 2, 5));
	ASSERT_EQ(kernel().log.size(), 2u);
	EXPECT_EQ(kernel().log[1].level, 0);
	EXPECT_EQ(kernel().log[1].text, "Failed to kmalloc buf.\n");
	std::vector<u8> stored = filter_bytes();
	EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), (Bytes{ 0, 0, 0, 5 }));
}

TEST_F(Msg, filter__is_printed_while_debugging)
{
	kernel().cwd = "/data/var/run/vsd/2";
	debug();
	ask(15, filter_record(1, 0x002 | 0x010, 100));
	EXPECT_TRUE(kernel().said(tagged("Recv filter debug msg enable\n")));
	// The record's bytes 24 to 27, little-endian.
	EXPECT_EQ(kernel().log.back().text, tagged("    Filter: src_intf 1330531660\r\n"));
	EXPECT_EQ(kernel().log[kernel().log.size() - 2].text, tagged("    Filter: vid 100\r\n"));
	kernel().log.clear();
	ask(15, filter_record(0, 0, 0));
	EXPECT_EQ(kernel().log.back().text, tagged("Recv filter debug msg disable\n"));
	debug(false);
	kernel().log.clear();
	ask(15, filter_record(1, 0x3fe, 100));
	EXPECT_EQ(answer(), "") << "no line of a filter";
}

} // namespace
