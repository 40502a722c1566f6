/* SPDX-License-Identifier: GPL-2.0-only */
#include "agent.h"
#include "samples.h"
#include "state.h"
#include "text.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using namespace std::chrono_literals;
using lldp::Bytes;

constexpr lldp::Time start{ 1000s };
const lldp::Mac mac1 = { 2, 0, 0, 0, 1, 0xff }, mac2 = { 2, 0, 0, 0, 2, 0xff };

/** Keeps what is sent, and fails on demand. */
class FakeWire : public lldp::Wire {
public:
	struct Sent {
		std::uint32_t ifindex;
		Bytes frame;
	};
	std::vector<Sent> sent;
	std::map<std::uint32_t, int> errors;

	int send(std::uint32_t ifindex, lldp::View frame) override
	{
		if (errors[ifindex])
			return errors[ifindex];
		sent.push_back({ ifindex, Bytes(frame.begin(), frame.end()) });
		return 0;
	}
};

class AgentTest : public ::testing::Test {
protected:
	FakeWire wire;
	std::vector<std::string> lines;
	lldp::Agent agent{
		identity(),     { { 3, "port1" }, { 7, "port2" } },
		{ mac1, mac2 }, 2,
		wire,           [this](const std::string &line) { lines.push_back(line); }
	};

	static lldp::Identity identity()
	{
		lldp::Identity identity;
		identity.name = "ap";
		identity.description = "an access point";
		identity.capabilities = lldp::Capabilities{ 0x0c, 0x0c };
		identity.management.push_back({ lldp::family_ipv4, { 10, 0, 0, 1 }, 2, 0 });
		identity.interval = 5;
		identity.hold = 3;
		return identity;
	}
	void hear(std::uint32_t ifindex, const lldp::Lldpdu &pdu, lldp::Time now)
	{
		agent.receive(ifindex, lldp::frame_of(sample_mac, lldp::encode(pdu)), now);
	}
	const lldp::Counters &counters(std::size_t port) { return agent.ports()[port].counters; }
};

TEST_F(AgentTest, announces_at_once_on_every_port_to_the_byte)
{
	agent.run(start);
	ASSERT_EQ(wire.sent.size(), 2u);
	EXPECT_EQ(wire.sent[0].ifindex, 3u);
	EXPECT_EQ(wire.sent[0].frame, from_hex("0180c200000e 0200000001ff 88cc"
					       "0207 04 0200000001ff"
					       "0406 05 706f727431"
					       "0602 0010"
					       "080b 696e746572666163652033"
					       "0a02 6170"
					       "0c0f 616e2061636365737320706f696e74"
					       "0e04 000c 000c"
					       "100c 05 01 0a000001 02 00000003 00"
					       "0000"));
	// The chassis is one; port, source address and interface number are the port's own.
	EXPECT_EQ(wire.sent[1].ifindex, 7u);
	auto second = lldp::decode(*lldp::lldpdu_of(wire.sent[1].frame));
	ASSERT_TRUE(second.pdu);
	EXPECT_EQ(Bytes(wire.sent[1].frame.begin() + 6, wire.sent[1].frame.begin() + 12),
		  Bytes(mac2.begin(), mac2.end()));
	EXPECT_EQ(second.pdu->chassis.value, Bytes(mac1.begin(), mac1.end()));
	EXPECT_EQ(second.pdu->port.value, (Bytes{ 'p', 'o', 'r', 't', '2' }));
	EXPECT_EQ(second.pdu->management[0].interface, 7u);
}

TEST_F(AgentTest, announces_every_interval)
{
	agent.run(start);
	EXPECT_EQ(agent.due(), start + 5s);
	agent.run(start + 5s - 1ns);
	EXPECT_EQ(wire.sent.size(), 2u);
	agent.run(start + 5s);
	EXPECT_EQ(wire.sent.size(), 4u);
	EXPECT_EQ(agent.due(), start + 10s);
	// After a halt of the machine, once and not for every interval that was missed.
	agent.run(start + 1h);
	EXPECT_EQ(wire.sent.size(), 6u);
	EXPECT_EQ(agent.due(), start + 1h + 5s);
	EXPECT_EQ(counters(0).sent, 3u);
}

TEST(Agent, the_longest_ttl_is_what_the_field_holds)
{
	FakeWire wire;
	lldp::Identity identity;
	identity.interval = 3600;
	identity.hold = 100;
	identity.chassis = sample_mac;
	lldp::Agent agent(identity, { { 3, "p" } }, { mac1 }, 1, wire, [](const std::string &) {});
	agent.run(start);
	auto read = lldp::decode(*lldp::lldpdu_of(wire.sent.at(0).frame));
	EXPECT_EQ(read.pdu->ttl, 0xffff);
	EXPECT_EQ(read.pdu->chassis.value, Bytes(sample_mac.begin(), sample_mac.end()));
	EXPECT_FALSE(read.pdu->capabilities);
}

TEST_F(AgentTest, shut_down__says_ttl_0_on_every_port)
{
	agent.shut_down();
	ASSERT_EQ(wire.sent.size(), 2u);
	Bytes expected = from_hex(
		"0180c200000e 0200000002ff 88cc 0207 04 0200000001ff 0406 05 706f727432 0602 0000 0000");
	expected.resize(60);
	EXPECT_EQ(wire.sent[0].ifindex, 3u);
	EXPECT_EQ(wire.sent[1].ifindex, 7u);
	EXPECT_EQ(wire.sent[1].frame, expected);
}

TEST_F(AgentTest, a_port_that_cannot_send_is_told_of_once_and_does_not_stop_the_others)
{
	wire.errors[3] = ENETDOWN;
	agent.run(start);
	agent.run(start + 5s);
	EXPECT_EQ(counters(0).send_failures, 2u);
	EXPECT_EQ(counters(0).sent, 0u);
	EXPECT_EQ(counters(1).sent, 2u);
	ASSERT_EQ(lines.size(), 1u);
	EXPECT_EQ(lines[0], "port1: cannot announce: Network is down");

	wire.errors[3] = 0;
	agent.run(start + 10s);
	agent.run(start + 15s);
	ASSERT_EQ(lines.size(), 2u);
	EXPECT_EQ(lines[1], "port1: announcing again");
	EXPECT_EQ(counters(0).sent, 2u);
}

TEST_F(AgentTest, receive__finds_refreshes_changes_and_loses_a_neighbour)
{
	agent.run(start);
	hear(7, sample_pdu(), start);
	ASSERT_EQ(agent.neighbours().all().size(), 1u);
	hear(7, sample_pdu(), start + 1s);
	lldp::Lldpdu renamed = sample_pdu();
	renamed.system_name = "new\nname";
	hear(7, renamed, start + 2s);
	hear(7, lldp::shutdown_of(sample_pdu()), start + 3s);
	EXPECT_TRUE(agent.neighbours().all().empty());
	EXPECT_EQ(lines, (std::vector<std::string>{
				 "port2: found mac 02:00:00:00:03:01 ifname eth0 (switch)",
				 "port2: changed: mac 02:00:00:00:03:01 ifname eth0 (new\\x0aname)",
				 "port2: left: mac 02:00:00:00:03:01 ifname eth0",
			 }));
	EXPECT_EQ(counters(1).received, 4u);
	EXPECT_EQ(counters(1).discarded, 0u);
	EXPECT_EQ(counters(0).received, 0u);
}

TEST_F(AgentTest, receive__ages_with_the_neighbours_own_ttl)
{
	agent.run(start);
	lldp::Lldpdu brief = sample_pdu();
	brief.ttl = 2;
	hear(3, brief, start + 1s);
	EXPECT_EQ(agent.due(), start + 3s) << "the neighbour ends before the next announcement";
	agent.run(start + 3s - 1ns);
	EXPECT_EQ(agent.neighbours().all().size(), 1u);
	agent.run(start + 3s);
	EXPECT_TRUE(agent.neighbours().all().empty());
	EXPECT_EQ(counters(0).aged, 1u);
	EXPECT_EQ(
		lines.back(),
		"port1: lost mac 02:00:00:00:03:01 ifname eth0 (switch): not heard for its TTL of 2 s");
	EXPECT_EQ(agent.due(), start + 5s);
}

TEST_F(AgentTest, receive__counts_what_it_cannot_use)
{
	agent.receive(3, Bytes(60), start); // not LLDP at all
	agent.receive(3, lldp::frame_of(sample_mac, from_hex("0000")), start);
	agent.receive(3, {}, start);
	hear(99, sample_pdu(), start);
	agent.receive(
		3,
		lldp::frame_of(
			sample_mac,
			from_hex("0202 07 78 0402 07 79 0602 0079 0e01 00 1200 fe04 00000001")),
		start);
	EXPECT_EQ(counters(0).received, 4u);
	EXPECT_EQ(counters(0).discarded, 3u);
	EXPECT_EQ(counters(0).tlvs_discarded, 1u);
	EXPECT_EQ(counters(0).tlvs_unrecognised, 2u);
	EXPECT_EQ(agent.strays(), 1u);
	EXPECT_EQ(agent.neighbours().all().size(), 1u);

	for (char name : { 'a', 'b', 'c' }) {
		lldp::Lldpdu pdu = sample_pdu();
		pdu.port.value = { static_cast<std::uint8_t>(name) };
		hear(3, pdu, start);
	}
	EXPECT_EQ(counters(0).refused, 2u);
}

TEST_F(AgentTest, log__a_flood_of_changes_has_a_limit_and_a_count)
{
	agent.run(start);
	lldp::Lldpdu pdus[] = { sample_pdu(), sample_pdu() };
	pdus[1].system_name = "other";
	for (int i = 0; i < 1000; ++i)
		hear(3, pdus[i % 2], start);
	ASSERT_EQ(lines.size(), lldp::kMostLinesAMinute);
	EXPECT_EQ(lines.front(), "port1: found mac 02:00:00:00:03:01 ifname eth0 (switch)");
	EXPECT_EQ(lines.back(), "port1: changed: mac 02:00:00:00:03:01 ifname eth0 (other)");
	EXPECT_EQ(agent.neighbours().all().begin()->second.pdu.system_name, "other");
	EXPECT_EQ(counters(0).received, 1000u);

	// The other port has a limit of its own.
	hear(7, sample_pdu(), start + 1s);
	ASSERT_EQ(lines.size(), lldp::kMostLinesAMinute + 1);
	EXPECT_EQ(lines.back(), "port2: found mac 02:00:00:00:03:01 ifname eth0 (switch)");

	// The agent prints the count when the minute ends, also when no frame comes.
	agent.run(start + 58s);
	lines.clear();
	agent.run(start + 60s - 1ns);
	EXPECT_EQ(lines, std::vector<std::string>{});
	EXPECT_EQ(agent.due(), start + 60s);
	agent.run(start + 60s);
	EXPECT_EQ(lines,
		  std::vector<std::string>{
			  "port1: 900 more lines about neighbours were left out within a minute" });
	EXPECT_EQ(agent.due(), start + 63s);
	agent.run(start + 61s);
	EXPECT_EQ(lines.size(), 1u) << "once";
}

TEST_F(AgentTest, log__the_count_stands_before_the_next_line)
{
	lldp::Lldpdu pdus[] = { sample_pdu(), sample_pdu() };
	pdus[1].system_name = "other";
	for (std::size_t i = 0; i <= lldp::kMostLinesAMinute; ++i)
		hear(3, pdus[i % 2], start);
	lines.clear();
	hear(3, pdus[1], start + 60s);
	EXPECT_EQ(lines, (std::vector<std::string>{
				 "port1: 1 more line about neighbours was left out within a minute",
				 "port1: changed: mac 02:00:00:00:03:01 ifname eth0 (other)" }));
	// A new minute has begun, with all of its lines.
	for (std::size_t i = 0; i < 2 * lldp::kMostLinesAMinute; ++i)
		hear(3, pdus[i % 2], start + 61s);
	EXPECT_EQ(lines.size(), 1 + lldp::kMostLinesAMinute);
}

TEST_F(AgentTest, log__a_shutdown_prints_the_count)
{
	lldp::Lldpdu pdus[] = { sample_pdu(), sample_pdu() };
	pdus[1].system_name = "other";
	for (std::size_t i = 0; i < lldp::kMostLinesAMinute + 5; ++i)
		hear(3, pdus[i % 2], start);
	agent.shut_down();
	EXPECT_EQ(lines.back(),
		  "port1: 5 more lines about neighbours were left out within a minute");
}

TEST_F(AgentTest, log__neighbours_that_age_count_as_well)
{
	for (int i = 0; i < 300; ++i) {
		lldp::Lldpdu brief = sample_pdu();
		brief.ttl = 1;
		hear(3, brief, start + i * 100ms);
		agent.run(start + i * 100ms + 1s);
	}
	// In 30 seconds 300 were found and 300 lost.
	EXPECT_EQ(lines.size(), lldp::kMostLinesAMinute);
	wire.errors[3] = ENETDOWN;
	agent.run(start + 40s);
	EXPECT_EQ(lines.back(), "port1: cannot announce: Network is down")
		<< "at most one an interval: not limited";
}

// --- how it is shown -------------------------------------------------------------------------------------------------

TEST_F(AgentTest, state__as_text)
{
	agent.run(start);
	hear(7, sample_pdu(), start);
	EXPECT_EQ(
		state_as_text(agent, start + 21s),
		"Neighbours: 1\n"
		"port2: mac 02:00:00:00:03:01, ifname eth0\n"
		"  heard               21 s ago, TTL 121 s, 100 s left\n"
		"  system name         switch\n"
		"  system description  a switch\n"
		"  port description    uplink\n"
		"  capabilities        bridge(on) router(off)\n"
		"  management address  10.0.0.9\n"
		"  management address  fd00::1\n"
		"Counters:\n"
		"  port         index                mac    sent  failed  received  discarded  refused  bad TLVs  unknown "
		"TLVs  aged\n"
		"  port1            3  02:00:00:00:01:ff       1       0         0          0        0         0           "
		"  0     0\n"
		"  port2            7  02:00:00:00:02:ff       1       0         1          0        0         0           "
		"  0     0\n");
}

TEST_F(AgentTest, state__as_json)
{
	agent.run(start);
	lldp::Lldpdu pdu = sample_pdu();
	pdu.system_name = "say \"hi\"\\\n\xc3";
	pdu.port_description.reset();
	hear(7, pdu, start);
	hear(99, pdu, start);
	EXPECT_EQ(
		state_as_json(agent, start + 500s),
		R"({"neighbours":[{"port":"port2","chassis":"mac 02:00:00:00:03:01","neighbour_port":"ifname eth0","ttl":121,)"
		R"("heard_ago":500,"expires_in":0,"system_name":"say \"hi\"\\\u000a\u00c3","system_description":"a switch",)"
		R"("capabilities":["bridge","router"],"enabled":["bridge"],"management":["10.0.0.9","fd00::1"]}],"ports":[)"
		R"({"name":"port1","ifindex":3,"mac":"02:00:00:00:01:ff","sent":1,"send_failures":0,"received":0,)"
		R"("discarded":0,"refused":0,"tlvs_discarded":0,"tlvs_unrecognised":0,"aged":0},)"
		R"({"name":"port2","ifindex":7,"mac":"02:00:00:00:02:ff","sent":1,"send_failures":0,"received":1,)"
		R"("discarded":0,"refused":0,"tlvs_discarded":0,"tlvs_unrecognised":0,"aged":0}],"strays":1})"
		"\n");
}

TEST_F(AgentTest, state__without_neighbours)
{
	EXPECT_TRUE(state_as_text(agent, start).starts_with("Neighbours: 0\nCounters:\n"));
	EXPECT_TRUE(state_as_json(agent, start).starts_with(R"({"neighbours":[],"ports":[{)"));
}

TEST(text, ids_by_subtype)
{
	struct {
		lldp::Id id;
		const char *chassis;
		const char *port;
	} const cases[] = {
		{ { 0, { 1, 2 } }, "reserved 01:02", "reserved 01:02" },
		{ { 1, { 'x' } }, "component x", "ifalias x" },
		{ { 2, { 'x' } }, "ifalias x", "component x" },
		{ { 3, { 0x61 } }, "port a", "mac 61" },
		{ { 4, { 1, 10, 0, 0, 1 } }, "mac 01:0a:00:00:01", "network 10.0.0.1" },
		{ { 5, { 1, 10, 0, 0, 1 } },
		  "network 10.0.0.1",
		  "ifname \\x01\\x0a\\x00\\x00\\x01" },
		{ { 5, { 2, 10 } }, "network 0a", "ifname \\x02\\x0a" },
		{ { 6, { 'e', '\\' } }, "ifname e\\x5c", "circuit 65:5c" },
		{ { 7, { 'l' } }, "local l", "local l" },
		{ { 8, { 'l' } }, "reserved8 6c", "reserved8 6c" },
		{ { 255, { 0 } }, "reserved255 00", "reserved255 00" },
		{ { 5, {} }, "network ", "ifname " },
	};
	for (const auto &each : cases) {
		EXPECT_EQ(lldp::chassis_text(each.id), each.chassis);
		EXPECT_EQ(lldp::port_text(each.id), each.port);
	}
}

} // namespace
