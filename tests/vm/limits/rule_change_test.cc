// SPDX-License-Identifier: GPL-2.0-only
// A rule is changed in a loop while frames that it takes before and after each change pass on another CPU: every frame
// that the hook took is delivered, or dropped by a full queue and counted there.
#include "limits/measure.h"
#include "support/capture.h"

#include <atomic>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace vm;

constexpr uint16_t kType = 0x88b5; // of the frames, and in every rule throughout
constexpr uint32_t kFrames = 1000, kPortion = 32, kMostFrames = 60000;
constexpr unsigned kChangesMeanwhile = 40;
constexpr int64_t kHeld = 400; // efbuffs of which more frames wait
constexpr int kFrameCpu = 2, kChangeCpu = 1;

struct Change {
	const char *name;
	uint32_t location;
	lab::Hook hook;
	uint32_t treatment;
	uint32_t destination; ///< the frames' interface block
	/// Change number n; 0 or an errno.
	int (*change)(Socket &socket, unsigned n);
};

void PrintTo(const Change &row, std::ostream *out)
{
	*out << row.name;
}

int one_value(Socket &socket, unsigned n)
{
	const Rule other = ethertype(0x9001);
	return n % 2 ? socket.del(other) : socket.add(other);
}

const Change kChanges[] = {
	{ "a_value_of_a_fetch_rule", PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_FETCH, 0, one_value },
	{ "a_value_of_a_trap_rule", PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_TRAP, 0, one_value },
	{ "fetch_and_trap", PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_FETCH, 0,
	  [](Socket &socket, unsigned n) {
		  return socket.treatment(n % 2 ? PACKET_FETCH : PACKET_TRAP);
	  } },
	{ "the_same_treatment", PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_TRAP, 0,
	  [](Socket &socket, unsigned) { return socket.treatment(PACKET_TRAP); } },
	{ "the_same_location", PACKET_LEV2_LOC, lab::Hook::Lev2, PACKET_FETCH, 0,
	  [](Socket &socket, unsigned) { return socket.location(PACKET_LEV2_LOC); } },
	{ "all_reserved_and_layer_2_reserved", PACKET_RESV_LOC, lab::Hook::Resv, PACKET_FETCH,
	  lab::kLev2Resv,
	  [](Socket &socket, unsigned n) {
		  return socket.location(n % 2 ? PACKET_RESV_LOC : PACKET_LEV2_RESV_LOC);
	  } },
	{ "layer_3_reserved_again", PACKET_LEV3_RESV_LOC, lab::Hook::Resv, PACKET_TRAP,
	  lab::kLev3Resv,
	  [](Socket &socket, unsigned) { return socket.location(PACKET_LEV3_RESV_LOC); } },
};

uint32_t dropped_by_queues()
{
	uint32_t all = 0;
	for (uint32_t location = PACKET_LOCAL_LOC; location <= PACKET_WLAN_LOC; ++location)
		all += uint32_t(location_word(location, MOX_CAPTURE_LOCATION_TAKES_REFUSED));
	return all;
}

class RuleChanges : public VmTest, public ::testing::WithParamInterface<Change> {};

TEST_P(RuleChanges, no_taken_frame_is_lost)
{
	const Change &row = GetParam();
	Socket socket = capture(row.location, row.treatment, ethertype(kType));
	const int room = 32 << 20;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room), 0);
	const uint32_t dropped = dropped_by_queues();
	lab::Frame frame = frames::plain(kType);
	frame.dst_ifx = row.destination;

	std::atomic<bool> done{ false };
	std::atomic<uint32_t> taken{ 0 };
	std::atomic<unsigned> changes{ 0 };
	std::thread traffic([&] {
		pin(kFrameCpu);
		for (uint32_t sent = 0;
		     sent < kMostFrames &&
		     (sent < kFrames || changes < kChangesMeanwhile || taken <= kFrames / 10);
		     sent += kPortion) {
			while (lab::books().live - before_.live > kHeld)
				::usleep(500);
			taken += lab::inject_many(row.hook, frame, kPortion, -1);
		}
		done = true;
	});
	pin(kChangeCpu);
	int refused = 0;
	while (!done)
		refused |= row.change(socket, changes++);
	traffic.join();
	pin(-1);
	EXPECT_EQ(refused, 0);
	EXPECT_TRUE(lab::settle());

	const mox_packet_stats stats = socket.stats();
	show("frames taken", taken, "");
	show("changes meanwhile", changes, "");
	EXPECT_GT(taken, kFrames / 10) << "the rule was hardly there: nothing was tested";
	EXPECT_GE(changes, kChangesMeanwhile);
	EXPECT_EQ(stats.drops, 0u);
	EXPECT_EQ(stats.packets + (dropped_by_queues() - dropped), taken);
	EXPECT_EQ(socket.drain(), stats.packets);
}

INSTANTIATE_TEST_SUITE_P(Limits, RuleChanges, ::testing::ValuesIn(kChanges),
			 [](const auto &info) { return std::string(info.param.name); });

} // namespace
