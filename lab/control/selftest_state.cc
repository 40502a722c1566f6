// SPDX-License-Identifier: GPL-2.0-only
// What the platform holds and publishes: interfaces, services, and its measurements.
#include "selftest.hpp"

#include <sched.h>
#include <sys/socket.h>

namespace selftest {
namespace {

TEST_F(Platform, KeepsRemovedInterfacesOutOfTheLookup)
{
	lab.remove_interface(kB);
	EXPECT_EQ(errno_of([&] { lab.remove_interface(kB); }), ENXIO);
	bool listed = false;
	for (const auto &i : lab.interfaces().all)
		if (i.intf.ifindex == kB) {
			listed = true;
			EXPECT_EQ(i.known, 0u);
		}
	EXPECT_TRUE(listed) << "the block itself stays";
}

TEST_F(Platform, HasTheReservedInterfacesFromTheStart)
{
	unsigned found = 0;
	for (const auto &i : lab.interfaces().all)
		if ((i.intf.ifindex == 4094 || i.intf.ifindex == 4095) && i.known) {
			++found;
			EXPECT_EQ(i.intf.link, 1u);
		}
	EXPECT_EQ(found, 2u);
}

TEST_F(Platform, PublishesTheLocalMacService)
{
	moxlab_service s{};
	s.op = MOXLAB_SERVICE_QUERY;
	s.service_class = 11;
	s.instance = 10;
	EXPECT_EQ(lab.service(s).published, 1);
	s.op = MOXLAB_SERVICE_WITHDRAW;
	EXPECT_EQ(lab.service(s).published, 0);
	s.op = MOXLAB_SERVICE_PUBLISH;
	EXPECT_EQ(lab.service(s).published, 1);
	s.instance = 9;
	EXPECT_EQ(errno_of([&] { lab.service(s); }), ENOENT);
}

TEST_F(Platform, LetsAnotherEntryPointTakeAServicesPlace)
{
	moxlab_service s{};
	s.service_class = 11;
	s.instance = 10;
	s.op = MOXLAB_SERVICE_PUBLISH;
	s.entry = 1;
	EXPECT_EQ(lab.service(s).published, 1);
	s.op = MOXLAB_SERVICE_QUERY;
	moxlab_service before_calls = lab.service(s);
	EXPECT_EQ(before_calls.published, 1);
	s.entry = MOXLAB_SERVICE_ENTRIES;
	EXPECT_EQ(errno_of([&] { lab.service(s); }), EINVAL);
	s.op = MOXLAB_SERVICE_PUBLISH;
	s.entry = 0;
	EXPECT_EQ(lab.service(s).published, 1);
	EXPECT_EQ(lab.service(s).late, before_calls.late) << "the replaced entry point was called";
}

TEST_F(Platform, MeasuresSocketsOfTheFamilyOnly)
{
	int other[2];
	ASSERT_EQ(::pipe(other), 0);
	Bytes bytes = frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60);
	moxlab_bench good{};
	good.count = good.batches = 1;
	good.frame = reinterpret_cast<uintptr_t>(bytes.data());
	good.frame_len = 60;
	good.dst_ifindex = kB;
	good.part = MOXLAB_BENCH_PLATFORM;
	auto result = [&](auto change) {
		moxlab_bench request = good;
		change(request);
		return errno_of([&] { lab.bench(request); });
	};
	good.fd = other[0];
	EXPECT_EQ(result([](moxlab_bench &) {}), ENOTSOCK);
	EXPECT_EQ(result([](moxlab_bench &b) { b.fd = -1; }), EBADF);
	EXPECT_EQ(result([](moxlab_bench &b) { b.part = MOXLAB_BENCH_COUNT; }), EINVAL);
	EXPECT_EQ(result([](moxlab_bench &b) { b.count = 0; }), EINVAL);
	EXPECT_EQ(result([](moxlab_bench &b) { b.frame_len = 13; }), EINVAL);
	::close(other[0]);
	::close(other[1]);
	if (!module_loaded("mox_ef_socket"))
		return;
	good.fd = ::socket(17, SOCK_RAW, 0);
	ASSERT_GE(good.fd, 0);
	for (uint32_t part : { MOXLAB_BENCH_PLATFORM, MOXLAB_BENCH_SEND }) {
		good.part = part;
		lab.record_left(true);
		EXPECT_EQ(result([](moxlab_bench &) {}), 0);
		auto left = lab.left().all;
		ASSERT_EQ(left.size(), 1u) << "part " << part;
		EXPECT_EQ(left[0].length, 60u);
		EXPECT_EQ(left[0].ifindex, kB);
	}
	::close(good.fd);
}

TEST_F(Platform, MeasuresReceivedFramesOnOneCpuOnly)
{
	Bytes bytes = frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60);
	moxlab_measure good{};
	good.what = MOXLAB_MEASURE_EMPTY;
	good.point = MOXLAB_POINT_LEV2;
	good.count = 8;
	good.frame = reinterpret_cast<uintptr_t>(bytes.data());
	good.frame_len = 60;
	good.src_ifindex = kA;
	const int one_cpu = lab.stats().cpus == 1 ? 0 : EBUSY;
	const struct {
		const char *what;
		void (*change)(moxlab_measure &m);
		int error;
	} rows[] = {
		{ "as it is", [](moxlab_measure &) {}, one_cpu },
		{ "the clone", [](moxlab_measure &m) { m.what = MOXLAB_MEASURE_CLONE; }, one_cpu },
		{ "the free", [](moxlab_measure &m) { m.what = MOXLAB_MEASURE_FREE; }, one_cpu },
		{ "no kind", [](moxlab_measure &m) { m.what = MOXLAB_MEASURE_COUNT; }, EINVAL },
		{ "no point", [](moxlab_measure &m) { m.point = MOXLAB_POINT_COUNT; }, EINVAL },
		{ "one frame", [](moxlab_measure &m) { m.count = 1; }, EINVAL },
		{ "too many frames", [](moxlab_measure &m) { m.count = MOXLAB_MEASURE_MAX + 1; },
		  EINVAL },
		{ "a short frame", [](moxlab_measure &m) { m.frame_len = 13; }, EINVAL },
		{ "no such interface", [](moxlab_measure &m) { m.src_ifindex = 777777; },
		  one_cpu ? one_cpu : ENXIO },
	};
	for (const auto &row : rows) {
		moxlab_measure request = good;
		row.change(request);
		EXPECT_EQ(errno_of([&] { lab.measure(request); }), row.error) << row.what;
	}
	// A caller that runs on one CPU alone is as good as a machine that has no other.
	cpu_set_t before, one;
	ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
	CPU_ZERO(&one);
	CPU_SET(0, &one);
	ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
	for (uint32_t what : { MOXLAB_MEASURE_EMPTY, MOXLAB_MEASURE_CLONE, MOXLAB_MEASURE_FREE }) {
		moxlab_measure request = good;
		request.what = what;
		EXPECT_EQ(errno_of([&] { lab.measure(request); }), 0) << what;
	}
	EXPECT_EQ(::sched_setaffinity(0, sizeof before, &before), 0);
}

TEST_F(Platform, MeasuresHowLongBottomHalvesAreOff)
{
	moxlab_latency latency{};
	latency.op = MOXLAB_LATENCY_START;
	latency.period_ns = 9999;
	EXPECT_EQ(errno_of([&] { lab.latency(latency); }), EINVAL);
	latency.period_ns = 20000;
	cpu_set_t all, first;
	ASSERT_EQ(::sched_getaffinity(0, sizeof all, &all), 0);
	CPU_ZERO(&first);
	CPU_SET(0, &first);
	ASSERT_EQ(::sched_setaffinity(0, sizeof first, &first), 0); // the timer stays here
	lab.latency(latency);
	// A softirq that fills 64 times 60,000 bytes.
	Injection in(MOXLAB_POINT_RESV, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60000));
	in.cpu(0).source(kA).repeat(64).options(MOXLAB_INJ_HARD_SOFTIRQ);
	lab.inject(in);
	latency.op = MOXLAB_LATENCY_STOP;
	latency = lab.latency(latency);
	EXPECT_GT(latency.runs, 0u);
	EXPECT_GT(latency.longest_ns, 100000u);
	EXPECT_EQ(::sched_setaffinity(0, sizeof all, &all), 0);
	latency.op = MOXLAB_LATENCY_READ;
	EXPECT_EQ(lab.latency(latency).runs, latency.runs) << "it still runs";
	latency.op = MOXLAB_LATENCY_STOP + 1;
	EXPECT_EQ(errno_of([&] { lab.latency(latency); }), EINVAL);
}

} // namespace
} // namespace selftest
