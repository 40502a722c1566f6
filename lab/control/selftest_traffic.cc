// SPDX-License-Identifier: GPL-2.0-only
// Frames through the whole platform: sends, ports, reserved destinations, learned stations, floods.
#include "selftest.hpp"

#include <thread>

namespace selftest {
namespace {

TEST_F(Platform, SendsToAnInterfaceWithoutADevice)
{
	auto reply = lab.inject(
		Injection(MOXLAB_POINT_SEND, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
			.source(MOXLAB_NO_BLOCK)
			.destination(kB));
	EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
	EXPECT_EQ(reply.answer, 0u);
	auto left = lab.left().all;
	ASSERT_EQ(left.size(), 1u);
	EXPECT_EQ(left[0].ifindex, kB);
	EXPECT_TRUE(left[0].sent);
	EXPECT_EQ(left[0].bytes, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60));
}

TEST_F(Platform, OverridesTheOutcomeOfSends)
{
	Injection send(MOXLAB_POINT_SEND, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60));
	send.source(MOXLAB_NO_BLOCK).destination(kB);
	lab.override_outcome(6, 1, true);
	EXPECT_EQ(lab.inject(send).answer, 6u);
	EXPECT_EQ(lab.left().all.size(), 1u);
	lab.override_outcome(-9, 1, false);
	EXPECT_EQ(int32_t(lab.inject(send).answer), -9);
	EXPECT_EQ(lab.left().all.size(), 1u) << "freed, not sent";
	EXPECT_EQ(lab.inject(send).answer, 0u) << "only once";
}

TEST_F(Platform, FloodsFromTheHostPortAndFindsItsWayBack)
{
	uint32_t ap0 = host_port();
	// The only port: a frame from it has nowhere to go, one from elsewhere goes there.
	auto reply = lab.inject(
		Injection(MOXLAB_POINT_PIPELINE, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
			.port(ap0));
	if (lab.ports().all.size() == 1)
		EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_NOWHERE));
	else
		EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
	reply = lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
				   .port(ap0)
				   .destination(kB));
	EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
}

TEST_F(Platform, TakesVlanTagsOffAFrameFromAPort)
{
	uint32_t ap0 = host_port();
	Bytes tagged = frame({ 2, 0, 0, 0, 0, 1 }, 0x8100, 68);
	const uint8_t tags[] = { 0x81, 0x00, 0xa0, 0x64, 0x81, 0x00, 0x00, 0xc8, 0x86, 0xdd };
	std::copy(std::begin(tags), std::end(tags), tagged.begin() + 12);
	auto reply = lab.inject(Injection(MOXLAB_POINT_PIPELINE, tagged).port(ap0).destination(kB));
	ASSERT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
	auto left = lab.left().all;
	ASSERT_EQ(left.size(), 1u);
	EXPECT_EQ(left[0].length, 60u);
	EXPECT_EQ(left[0].header[18] << 8 | left[0].header[19], 0xa064);
	EXPECT_EQ(left[0].header[16] << 8 | left[0].header[17], 0x00c8);
	EXPECT_EQ(left[0].header[40], 27) << "classified behind the tags";
	EXPECT_EQ(left[0].bytes[12] << 8 | left[0].bytes[13], 0x86dd);
}

/// Addresses and what the platform makes of them: the destination's block, and the outcome of a send.
struct Reserved {
	std::initializer_list<uint8_t> dst;
	uint32_t block;
	uint32_t outcome;
};

constexpr uint32_t kNone = MOXLAB_NO_BLOCK;
const Reserved kReserved[] = {
	{ { 0x01, 0x80, 0xc2, 0, 0, 0x00 }, 4094, 5 },
	{ { 0x01, 0x80, 0xc2, 0, 0, 0x0f }, 4094, 5 },
	{ { 0x01, 0x80, 0xc2, 0, 0, 0x10 }, kNone, 6 },
	{ { 0x01, 0x80, 0xc2, 0, 1, 0x0e }, kNone, 6 },
	{ { 0x01, 0x00, 0x5e, 0, 0, 0xfb }, 4095, 5 },
	{ { 0x01, 0x00, 0x5e, 0, 1, 0xfb }, kNone, 6 },
	{ { 0x33, 0x33, 0, 0, 0, 0x01 }, 4095, 5 },
	{ { 0x33, 0x33, 0xff, 0, 0, 0x01 }, kNone, 6 },
	{ { 0xff, 0xff, 0xff, 0xff, 0xff, 0xff }, kNone, 4 },
	{ { 0x02, 0, 0, 0, 0, 0x01 }, kNone, 0 },
};

TEST_F(Platform, KnowsTheReservedDestinations)
{
	for (const Reserved &r : kReserved) {
		SCOPED_TRACE(testing::PrintToString(Bytes(r.dst)));
		lab.record_left(true);
		lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame(r.dst, 0x88cc, 60))
				   .port(host_port()));
		auto left = lab.left().all;
		ASSERT_FALSE(left.empty());
		EXPECT_EQ(block_at(left[0].header, 4), host_port());
		EXPECT_EQ(block_at(left[0].header, 8), r.block);

		Injection send(MOXLAB_POINT_SEND, frame(r.dst, 0x88cc, 60));
		EXPECT_EQ(lab.inject(send.source(MOXLAB_NO_BLOCK).destination(kB)).answer,
			  r.outcome);
	}
}

TEST_F(Platform, FindsALearnedStationByItsPort)
{
	// The host's own address needs no learning; any other sender through the host port is learned there.
	lab.flush_fdb();
	Bytes from_station = frame({ 0xff, 0xff, 0xff, 0xff, 0xff, 0xff }, 0x0806, 60);
	lab.inject(Injection(MOXLAB_POINT_PIPELINE, from_station).port(host_port()));
	EXPECT_EQ(lab.stats().fdb_entries, 1u);
	lab.record_left(true);
	lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame({ 0x02, 0, 0, 0, 0, 0x77 }, 0x0800, 60))
			   .port(host_port()));
	auto left = lab.left().all;
	ASSERT_EQ(left.size(), 1u);
	EXPECT_EQ(left[0].outcome, unsigned(MOXLAB_OUT_NOWHERE))
		<< "never out of the port it came in by";
	EXPECT_EQ(block_at(left[0].header, 8), host_port());
	lab.flush_fdb();
	EXPECT_EQ(lab.stats().fdb_entries, 0u);
}

TEST_F(Platform, SurvivesFloodsOnAllCpusAtOnce)
{
	uint32_t cpus = lab.stats().cpus;
	uint64_t injected = lab.stats().injected;
	std::vector<std::thread> threads;
	for (uint32_t cpu = 0; cpu < cpus; ++cpu)
		threads.emplace_back([&, cpu] {
			lab.inject(Injection(MOXLAB_POINT_SEND,
					     frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
					   .source(MOXLAB_NO_BLOCK)
					   .destination(kB)
					   .cpu(cpu)
					   .repeat(200));
		});
	for (auto &t : threads)
		t.join();
	EXPECT_EQ(lab.stats().injected - injected, 200u * cpus);
	EXPECT_EQ(lab.balance(MOXLAB_OWNER_PLATFORM).live, 0u);
}

TEST_F(Platform, KeepsTheWholeHeaderOfWhatLeft)
{
	Injection send(MOXLAB_POINT_SEND, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60));
	send.source(kA).destination(kB).flags(0x44000);
	send.request.set |= MOXLAB_SET_SEND_FLAGS;
	send.request.send_flags = 0xff;
	lab.inject(send);
	auto left = lab.left().all;
	ASSERT_EQ(left.size(), 1u);
	const Bytes &h = left[0].header;
	ASSERT_EQ(h.size(), size_t(MOXLAB_HEADER_ALL));
	EXPECT_EQ(block_at(h, 4), kA);
	EXPECT_EQ(block_at(h, 8), kB);
	EXPECT_EQ(block_at(h, 32), 0x44000u);
	EXPECT_EQ(block_at(h, 60), 0xffu);
	EXPECT_EQ(Bytes(h.begin() + MOXLAB_HEADER_LEN, h.end()), Bytes(64, 0));
}

} // namespace
} // namespace selftest
