// SPDX-License-Identifier: GPL-2.0-only
// Registration of the platform hooks.
#include "locations/table.hpp"
#include "packet/info.hpp"
#include "rules/search.hpp"
#include "rules_fixture.h"

using namespace mox;

namespace {

class Hooks : public RulesTest {};

using Log = std::vector<std::string>;

TEST_F(Hooks, follow_library__calls_per_location)
{
	for (u32 location = 1; location < contract::kLocationCount; location++) {
		SCOPED_TRACE(location);
		Rule rule(location, PACKET_COPY);
		efmp().registrations.clear();
		rule.add();
		EXPECT_EQ(efmp().registrations, contract::hook_calls(location, true));
		efmp().registrations.clear();
		rule.remove();
		EXPECT_EQ(efmp().registrations, contract::hook_calls(location, false));
	}
}

TEST_F(Hooks, follow_library__every_change_that_leaves_rules_registers_again)
{
	Rule a(PACKET_LOCAL_LOC, PACKET_COPY), b(PACKET_LOCAL_LOC, PACKET_COPY);
	a.add();
	b.add();
	a.remove();
	EXPECT_EQ(efmp().registrations,
		  (Log{ "reg_output local", "reg_output local", "reg_output local" }));
	b.remove();
	EXPECT_EQ(efmp().registrations.back(), "dereg_output local");
}

TEST_F(Hooks, follow_library__reserved_locations_share_one_registration)
{
	Rule a(PACKET_RESV_LOC, PACKET_COPY), b(PACKET_LEV3_RESV_LOC, PACKET_COPY);
	a.add();
	b.add();
	a.remove();
	EXPECT_TRUE(efmp().registered["resv"]);
	b.remove();
	EXPECT_FALSE(efmp().registered["resv"]);
}

TEST_F(Hooks, follow_library__what_the_platform_answers_changes_nothing)
{
	kernel().fail(Fail::kRegOutput);
	kernel().fail(Fail::kRegRecv);
	Rule local(PACKET_LOCAL_LOC, PACKET_COPY), resv(PACKET_RESV_LOC, PACKET_COPY);
	local.add();
	resv.add();
	EXPECT_EQ(g_local_packet_regular_lib.regular_count, 1u);
	EXPECT_TRUE(kernel().log.empty());
}

TEST_F(Hooks, reg_module__once)
{
	EXPECT_EQ(mox_packet_reg_module(&g_ipv4_packet_module), 0);
	EXPECT_EQ(g_ipv4_packet_module.registered, 1);
	EXPECT_EQ(mox_packet_reg_module(&g_ipv4_packet_module), 0);
	EXPECT_EQ(efmp().registrations, Log{ "reg_module ipv4" });
	mox_packet_dereg_module(&g_ipv4_packet_module);
	EXPECT_EQ(g_ipv4_packet_module.registered, 0);
	mox_packet_dereg_module(&g_ipv4_packet_module);
	EXPECT_EQ(efmp().registrations.size(), 2u);
}

TEST_F(Hooks, reg_module__failure_is_printed_passed_back_and_tried_again)
{
	const struct {
		packet_module *module;
		const char *line;
	} cases[] = {
		{ &g_lev2_packet_module, "reg PACKET-LEV2-MODULE failed\n" },
		{ &g_ipv4_packet_module, "reg PACKET-IPV4-MODULE failed\n" },
		{ &g_ipv6_packet_module, "reg PACKET-IPV6-MODULE failed\n" },
		{ &g_wlan_packet_module, "reg PACKET-WLAN-MODULE failed\n" },
	};
	for (auto &c : cases) {
		kernel().log.clear();
		kernel().error[Fail::kRegModule] = -77;
		kernel().fail(Fail::kRegModule);
		EXPECT_EQ(mox_packet_reg_module(c.module), -77);
		EXPECT_EQ(kernel().text(), c.line);
		EXPECT_EQ(c.module->registered, 0);
		EXPECT_EQ(mox_packet_reg_module(c.module), 0);
		mox_packet_dereg_module(c.module);
	}
}

TEST_F(Hooks, records__as_the_platform_expects_them)
{
	const struct {
		packet_module *module;
		efmp_pkt_func func;
		contract::HookId hook;
	} cases[] = {
		{ &g_lev2_packet_module, mox_packet_lev2_rcv, contract::kLev2Hook },
		{ &g_ipv4_packet_module, mox_packet_ipv4_rcv, contract::kIpv4Hook },
		{ &g_ipv6_packet_module, mox_packet_ipv6_rcv, contract::kIpv6Hook },
		{ &g_wlan_packet_module, mox_packet_wlan_in_rcv, contract::kWlanInHook },
	};
	for (auto &c : cases) {
		EXPECT_STREQ(c.module->name, contract::kHooks[c.hook].record);
		EXPECT_EQ(c.module->descriptor.link, 0u);
		EXPECT_EQ(c.module->descriptor.receive, c.func);
		EXPECT_EQ(c.module->descriptor.mask, 0xffffffffu);
		EXPECT_EQ(c.module->descriptor.point | c.module->descriptor.priority << 8,
			  int(contract::kHooks[c.hook].point));
		EXPECT_EQ(c.module->descriptor.reserved, 0);
	}
}

TEST_F(Hooks, mclist__does_nothing)
{
	mox_packet_flush_input_mclist();
	mox_packet_flush_output_mclist();
	EXPECT_TRUE(efmp().registrations.empty());
}

// A rule that came after the last one has left and before the hooks are deregistered would be
// without them: the change lock, held over both, keeps it out.
TEST_F(Hooks, follow_library__no_rule_comes_between_removal_and_deregistration)
{
	Rule leaving(PACKET_LEV2_LOC, PACKET_COPY);
	leaving.add();
	int deregistered = 0;
	kernel().at[Point::kDeregModule] = [&](const void *) {
		deregistered++;
		EXPECT_TRUE(kernel().holds(fake::LockKind::kChange));
		EXPECT_TRUE(kernel().holds(fake::LockKind::kHook));
		EXPECT_FALSE(kernel().holds(fake::LockKind::kLib));
	};
	leaving.remove();
	EXPECT_EQ(deregistered, 1);
	EXPECT_FALSE(efmp().registered["lev2"]);
}

} // namespace
