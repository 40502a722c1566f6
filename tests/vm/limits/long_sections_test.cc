// SPDX-License-Identifier: GPL-2.0-only
// No call of a user, no report and no frame keeps bottom halves off for long, however many values a rule has and however
// many sockets there are. Each scenario runs on one CPU, and so does the timer that looks. A busy host can stop that CPU
// for a while: the shortest of a few runs counts.
#include "limits/measure.h"
#include "support/copy_thread.h"
#include "support/genl.h"

#include <algorithm>
#include <fstream>

namespace {

using namespace vm;

constexpr int kCpu = 1;
constexpr double kMost = 50; // milliseconds; without portions it was ten times that and more
constexpr unsigned kRuns = 3;

class LongSections : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		pin(kCpu);
		lab::echo_printk(false);
	}
	void TearDown() override
	{
		line_us("0");
		lab::echo_printk(true);
		sockets_.clear();
		pin(-1);
		VmTest::TearDown();
	}
	/// How long the lab's console takes for each line.
	static void line_us(const char *us)
	{
		std::ofstream file("/sys/module/mox_dprintk/parameters/line_us");
		file << us << std::flush;
		ASSERT_TRUE(file);
	}
	std::vector<Socket> sockets_;
};

/// One after the other, in the life of one rule.
struct Step {
	const char *what;
	void (*act)(Socket &socket, unsigned values);
};

const Step kSteps[] = {
	{ "adding",
	  [](Socket &socket, unsigned values) {
		  EXPECT_EQ(socket.add(many(PACKET_SRC_MAC_EQUAL, 0, values)), 0);
	  } },
	{ "location",
	  [](Socket &socket, unsigned) { EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0); } },
	{ "one value more",
	  [](Socket &socket, unsigned values) {
		  EXPECT_EQ(socket.add(many(PACKET_SRC_MAC_EQUAL, values, 1)), 0);
	  } },
	{ "treatment",
	  [](Socket &socket, unsigned) { EXPECT_EQ(socket.treatment(PACKET_TRAP), 0); } },
	{ "bind", [](Socket &socket, unsigned) { EXPECT_EQ(socket.bind(0, 0x88b5), 0); } },
	{ "deleting half of them",
	  [](Socket &socket, unsigned values) {
		  EXPECT_EQ(socket.del(many(PACKET_SRC_MAC_EQUAL, 0, values / 2)), 0);
	  } },
	{ "no location",
	  [](Socket &socket, unsigned) { EXPECT_EQ(socket.location(PACKET_NONE_LOC), 0); } },
	{ "location again",
	  [](Socket &socket, unsigned) { EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0); } },
	{ "closing", [](Socket &socket, unsigned) { socket.close(); } },
};

TEST_F(LongSections, a_rule_of_4000_source_macs)
{
	constexpr unsigned kValues = 4000, kCount = std::size(kSteps);
	double least[kCount];
	std::fill(std::begin(least), std::end(least), kNotMeasured);
	for (unsigned run = 0; run < kRuns; ++run) {
		Socket socket;
		ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
		bool within = true;
		for (unsigned n = 0; n < kCount; ++n) {
			least[n] = std::min(least[n],
					    longest_ms([&] { kSteps[n].act(socket, kValues); }));
			within = within && least[n] < kMost;
		}
		if (within)
			break;
	}
	for (unsigned n = 0; n < kCount; ++n) {
		show(kSteps[n].what, least[n], "ms with bottom halves off");
		EXPECT_LT(least[n], kMost) << kSteps[n].what;
	}
}

TEST_F(LongSections, reports_of_2000_values_on_a_slow_console)
{
	sockets_.emplace_back();
	Socket &socket = sockets_[0];
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.add(many(PACKET_SRC_MAC_EQUAL, 0, 2000)), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	GenlSocket client;
	GenlMessage all;
	all.type = genl_family_id(client, MOX_PACKET_GENL_NAME);
	Bytes record;
	put16(record, MOX_MSG_SHOW_ALL);
	put16(record, 0);
	all.payload = attribute(MOX_PACKET_GENL_ATTR, record);
	const struct {
		const char *what;
		std::function<int()> print;
	} reports[] = {
		{ "a socket's own report",
		  [&] {
			  return socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET, "", 0);
		  } },
		{ "the report of all rules", [&] { return client.send(all.bytes()); } },
	};
	line_us("50");
	for (const auto &report : reports) {
		double least = kNotMeasured;
		for (unsigned run = 0; run < kRuns && least >= kMost; ++run)
			least = std::min(least, longest_ms([&] { EXPECT_EQ(report.print(), 0); }));
		show(report.what, least, "ms with bottom halves off");
		EXPECT_LT(least, kMost) << report.what;
	}
}

TEST_F(LongSections, a_long_frame_wanted_by_1000_sockets)
{
	constexpr unsigned kSockets = 1000;
	const CopyThreadOn same_cpu(kCpu);
	allow_files(kSockets);
	while (sockets_.size() < kSockets)
		sockets_.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5)));
	const lab::Frame frame = frames::plain(0x88b5, 1500);
	double least = kNotMeasured;
	for (unsigned run = 0; run < kRuns && least >= kMost; ++run) {
		least = std::min(least, longest_ms([&] {
					 lab::inject(lab::Hook::Lev2, frame, kCpu);
					 EXPECT_TRUE(lab::settle());
				 }));
		for (Socket &socket : sockets_)
			EXPECT_EQ(socket.drain(), 1u);
	}
	show("1,500 bytes for 1,000 sockets", least, "ms with bottom halves off");
	EXPECT_LT(least, kMost);
}

} // namespace
