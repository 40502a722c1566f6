// SPDX-License-Identifier: GPL-2.0-only
// The LLDP agent on the real module: what it puts on the wire, whom it lists, and how it goes.
#include <algorithm>
#include <csignal>

#include <unistd.h>

#include "support/process.h"
#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;

const Bytes kLldpHead = { 0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e };

Bytes text(const std::string &words)
{
	return Bytes(words.begin(), words.end());
}

bool holds(const Bytes &frame, const Bytes &part)
{
	return std::search(frame.begin(), frame.end(), part.begin(), part.end()) != frame.end();
}

/// The neighbour's frame: chassis "sw", port "p1", a TTL in seconds, system name "switch".
Bytes neighbour(uint8_t ttl)
{
	Bytes frame = kLldpHead;
	for (const Bytes &part :
	     { Bytes{ 0x02, 0, 0, 0, 0x03, 0x01, 0x88, 0xcc }, Bytes{ 0x02, 3, 7 }, text("sw"),
	       Bytes{ 0x04, 3, 7 }, text("p1"), Bytes{ 0x06, 2, 0, ttl }, Bytes{ 0x0a, 6 },
	       text("switch"), Bytes{ 0, 0 } })
		frame.insert(frame.end(), part.begin(), part.end());
	frame.resize(60);
	return frame;
}

class LldpAgent : public SendTest {
protected:
	static std::string shown()
	{
		Process show({ "lldpagent", "show", "--json" });
		show.wait();
		return show.output();
	}
	/// Asks until the agent's state holds the text, or holds it no more.
	static bool shows(const std::string &part, bool wanted = true)
	{
		for (int i = 0; i < 100; ++i, usleep(100'000)) {
			std::string state = shown();
			if (state.starts_with("{") &&
			    (state.find(part) != std::string::npos) == wanted)
				return true;
		}
		return false;
	}
};

TEST_F(LldpAgent, announces_lists_ages_and_takes_its_leave)
{
	TapPort port("tap-lldp"), other("tap-other");
	Process agent({ "lldpagent", "--interval", "1", "--hold", "2", "--name", "access-point",
			"--port", std::to_string(port.ifindex()) + "=uplink" });
	auto announcement = port.read(10000);
	ASSERT_TRUE(announcement) << agent.output();
	EXPECT_EQ(Bytes(announcement->begin(), announcement->begin() + 6), kLldpHead);
	EXPECT_TRUE(holds(*announcement,
			  Bytes{ 0x04, 7, 5, 'u', 'p', 'l', 'i', 'n', 'k', 0x06, 2, 0, 3 }));
	EXPECT_TRUE(holds(*announcement, text("access-point")));
	EXPECT_TRUE(port.read(5000)) << "an interval later there is another";

	port.write(neighbour(120));
	EXPECT_TRUE(shows("\"system_name\":\"switch\"")) << shown();
	port.write(neighbour(0));
	EXPECT_TRUE(shows("\"system_name\"", false)) << "it left, and is listed: " << shown();
	port.write(neighbour(1));
	EXPECT_TRUE(shows("\"aged\":1")) << shown();
	EXPECT_FALSE(other.read_now()) << "LLDP ends at the neighbour";

	// A port that the agent was not given is not its own: the platform goes on with the frame.
	other.write(neighbour(120));
	bool went_on = false;
	while (auto frame = port.read(2000))
		if ((went_on = *frame == neighbour(120)))
			break;
	EXPECT_TRUE(went_on);
	EXPECT_NE(shown().find("\"strays\":0"), std::string::npos);

	agent.signal(SIGTERM);
	EXPECT_EQ(agent.wait(), 0) << agent.output();
	Bytes last;
	while (auto frame = port.read(500))
		last = *frame;
	EXPECT_TRUE(holds(last, Bytes{ 'u', 'p', 'l', 'i', 'n', 'k', 0x06, 2, 0, 0, 0, 0 }));
	EXPECT_EQ(last.size(), 60u);
}

TEST_F(LldpAgent, an_interface_that_the_platform_does_not_know)
{
	Process agent(
		{ "lldpagent", "--port", std::to_string(lab::kNoSuchInterface) + "=nowhere" });
	EXPECT_EQ(agent.wait(), 1);
	EXPECT_NE(agent.output().find("platform has no interface of this index"), std::string::npos)
		<< agent.output();
}

TEST_F(LldpAgent, a_port_that_is_down_is_reported_and_tried_again)
{
	Process agent({ "lldpagent", "--interval", "1", "--port",
			std::to_string(lab::kPortDown) + "=cold", "--port",
			std::to_string(lab::kPortA) + "=warm" });
	EXPECT_TRUE(shows("\"name\":\"warm\""));
	EXPECT_TRUE(shows("\"sent\":2"));
	EXPECT_NE(agent.output().find("cold: cannot announce: Network is down"), std::string::npos)
		<< agent.output();
	agent.signal(SIGINT);
	EXPECT_EQ(agent.wait(), 0);
}

} // namespace
