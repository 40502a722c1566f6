// SPDX-License-Identifier: GPL-2.0-only
// What a frame costs does not grow with the number of rules: one that no rule asks for, and one that a single rule asks
// for. The shapes are those in which many rules come: what differs from rule to rule, and what all share.
#include "limits/measure.h"
#include "support/copy_thread.h"

namespace {

using namespace vm;

constexpr unsigned kRules = 1024;
constexpr unsigned kNearMisses = 5;
constexpr double kMost = 4; // times the cost with one rule
/* Times the cost of a frame that the only rule asks for. A lock costs most on the checked kernel, and with many rules some
 * unwanted frames take it, as every wanted one does. */
constexpr double kMostUnwanted = 2;
constexpr uint32_t kInterfaces = 50000;
constexpr uint16_t kIpv4 = 0x0800;

lab::Frame to_port(unsigned port)
{
	return frames::ipv4(17, frames::udp(9, uint16_t(port)));
}

std::vector<Rule> own_type(unsigned n)
{
	return { ethertype(uint16_t(0x9000 + n)) };
}
std::vector<Rule> own_mac(unsigned n)
{
	return { many(PACKET_SRC_MAC_EQUAL, n, 1) };
}
std::vector<Rule> own_port(unsigned n)
{
	return { be16s(PACKET_IPv4_DEST_PORT_EQUAL, { uint16_t(20000 + n) }) };
}
std::vector<Rule> shared_type_own_port(unsigned n)
{
	return { ethertype(kIpv4), own_port(n)[0] };
}
std::vector<Rule> own_port_shared_type(unsigned n)
{
	return { own_port(n)[0], ethertype(kIpv4) };
}
std::vector<Rule> own_interface_shared_type(unsigned n)
{
	return { u32s(PACKET_SRC_INTF_EQUAL, { kInterfaces + n }), ethertype(kIpv4) };
}

struct Shape {
	const char *name;
	/// Of socket number n, in the order in which they are added.
	std::vector<Rule> (*rules)(unsigned n);
	/// By socket number n alone.
	lab::Frame (*wanted)(unsigned n);
	/// By no socket, with what all rules share.
	lab::Frame (*unwanted)(unsigned n);
};

const Shape kShapes[] = {
	{ "ethertype", own_type, [](unsigned n) { return frames::plain(uint16_t(0x9000 + n)); },
	  [](unsigned n) { return frames::plain(uint16_t(0xa000 + n)); } },
	{ "source_mac", own_mac, [](unsigned n) { return from_mac(frames::plain(), n); },
	  [](unsigned n) { return from_mac(frames::plain(), 5000 + n); } },
	{ "port", own_port, [](unsigned n) { return to_port(20000 + n); },
	  [](unsigned n) { return to_port(9 + n); } },
	{ "port_behind_shared_ethertype", shared_type_own_port,
	  [](unsigned n) { return to_port(20000 + n); },
	  [](unsigned n) { return to_port(9 + n); } },
	{ "port_before_shared_ethertype", own_port_shared_type,
	  [](unsigned n) { return to_port(20000 + n); },
	  [](unsigned n) { return to_port(9 + n); } },
	{ "interface_before_shared_ethertype", own_interface_shared_type,
	  [](unsigned n) {
		  lab::Frame frame = to_port(9);
		  frame.src_ifx = kInterfaces + n;
		  return frame;
	  },
	  [](unsigned n) { return to_port(9 + n); } },
};

void PrintTo(const Shape &row, std::ostream *out)
{
	*out << row.name;
}

struct Costs {
	double unwanted, wanted, delivery;
};

class FrameCosts : public VmTest, public ::testing::WithParamInterface<Shape> {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		pin(0);
		allow_files(kRules);
		for (uint32_t n : { 0u, kRules - 1 })
			lab::set_interface(kInterfaces + n, "own", lab::kPortAMac, true);
	}
	void TearDown() override
	{
		for (uint32_t n : { 0u, kRules - 1 })
			lab::remove_interface(kInterfaces + n);
		pin(-1);
		VmTest::TearDown();
	}
	static Socket listener(const std::vector<Rule> &rules)
	{
		Socket socket;
		EXPECT_EQ(socket.error(), 0);
		for (const Rule &rule : rules)
			EXPECT_EQ(socket.add(rule), 0);
		EXPECT_EQ(socket.treatment(PACKET_COPY), 0);
		EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0);
		return socket;
	}
};

/// With these sockets; the last one receives the wanted frame.
Costs costs(const Shape &shape, std::vector<Socket> &sockets)
{
	const unsigned last = unsigned(sockets.size() - 1);
	std::vector<double> misses;
	for (unsigned n = 0; n < kNearMisses; ++n) {
		const FrameCost miss = frame_cost(shape.unwanted(n));
		EXPECT_EQ(miss.queued, 0u) << "a frame that no rule asks for was copied";
		misses.push_back(miss.hook);
	}
	const FrameCost hit = frame_cost(shape.wanted(last), { &sockets[last] });
	EXPECT_EQ(hit.queued, kBatch);
	return { median(misses), hit.hook, hit.delivery };
}

TEST_P(FrameCosts, with_1024_rules_a_frame_costs_what_it_costs_with_one)
{
	const Shape &shape = GetParam();
	const CopyThreadOn same_cpu(0);
	std::vector<Socket> sockets;
	sockets.push_back(listener(shape.rules(0)));
	const Costs one = costs(shape, sockets);
	while (sockets.size() < kRules)
		sockets.push_back(listener(shape.rules(unsigned(sockets.size()))));
	const Costs all = costs(shape, sockets);
	show("hook, unwanted, 1 rule", one.unwanted, "ns");
	show("hook, unwanted, 1,024 rules", all.unwanted, "ns");
	show("hook, wanted by one of 1", one.wanted, "ns");
	show("hook, wanted by one of 1,024", all.wanted, "ns");
	show("delivery, wanted by one of 1", one.delivery, "ns");
	show("delivery, wanted by one of 1,024", all.delivery, "ns");
	EXPECT_LT(all.unwanted, kMostUnwanted * one.wanted);
	EXPECT_LT(all.wanted, kMost * one.wanted);
	EXPECT_LT(all.delivery, kMost * one.delivery);
}

INSTANTIATE_TEST_SUITE_P(Limits, FrameCosts, ::testing::ValuesIn(kShapes),
			 [](const auto &info) { return std::string(info.param.name); });

} // namespace
