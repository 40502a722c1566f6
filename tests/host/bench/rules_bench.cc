// SPDX-License-Identifier: GPL-2.0-only
/*
 * What a frame costs in the search for its rules, on the caches and with the atomic operations of
 * a real CPU: in the fast filter of a hook, with and without its lock, and in delivery. Names read
 * function/shape/frame/rules.
 *
 * Each frame differs from the one before it: rules are chosen at random, so that neither the
 * caches nor the branch prediction are better than with real frames. "frame" is that choice alone.
 */
#include <benchmark/benchmark.h>
#include <sched.h>

#include <string>

#include "library.h"
#include "rules/matching.hpp"
#include "rules/search.hpp"

namespace bench {
namespace {

constexpr int kThreads = 4;
constexpr int kRules[] = { 1, 64, 1024 };
// Numbers that follow those of the rules: their values are those of no rule.
constexpr u32 kUnknownValues = 1024;

// The frames of a benchmark.
enum class Frames {
	kWanted,     // by one rule
	kOtherValue, // what each rule has of its own is that of no rule
	kOtherType,  // it is that of one rule, but the EtherType is another one
};

constexpr const char *frames_name(Frames frames)
{
	switch (frames) {
	case Frames::kWanted:
		return "wanted";
	case Frames::kOtherValue:
		return "other_value";
	default:
		return "other_ethertype";
	}
}

// Numbers that no branch prediction foresees. A power of two of them.
class Numbers {
public:
	explicit Numbers(int thread) : state_(static_cast<u32>(thread) * 2654435761u + 1) {}
	u32 below(u32 count)
	{
		state_ = state_ * 1664525 + 1013904223;
		return state_ >> 16 & (count - 1);
	}

private:
	u32 state_;
};

// The CPUs that the program may use.
const cpu_set_t &usable_cpus()
{
	static const cpu_set_t cpus = [] {
		cpu_set_t set;
		CPU_ZERO(&set);
		sched_getaffinity(0, sizeof set, &set);
		return set;
	}();
	return cpus;
}

// Ties the calling thread to a CPU of its own, as a hook is, as far as there are enough; a
// scheduler may run threads that share a word on one CPU, where they never contend for it.
class OnCpu : Pinned {
public:
	explicit OnCpu(int thread)
	{
		const int count = CPU_COUNT(&usable_cpus());
		cpu_set_t own;
		int seen = 0;

		CPU_ZERO(&own);
		for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
			if (CPU_ISSET(cpu, &usable_cpus()) && seen++ == thread % count)
				CPU_SET(cpu, &own);
		sched_setaffinity(0, sizeof own, &own);
	}
	~OnCpu() { sched_setaffinity(0, sizeof(cpu_set_t), &usable_cpus()); }
};

// Presents frames to look(info), which returns how many rules matched, and counts its answers.
template <typename Shape, Frames frames, typename Look>
void present(benchmark::State &state, Look &&look)
{
	const OnCpu cpu(state.thread_index());
	const u32 rules = static_cast<u32>(state.range(0));
	Frame frame;
	Numbers numbers(state.thread_index());
	u64 matched = 0;

	if (frames == Frames::kOtherType)
		frame.info.eth_type = net16(kOtherType);
	for (auto _ : state) {
		if (frames == Frames::kOtherValue)
			Shape::choose(frame, rules + numbers.below(kUnknownValues));
		else
			Shape::choose(frame, numbers.below(rules));
		benchmark::ClobberMemory();
		matched += look(frame.info);
	}
	if (matched != (frames == Frames::kWanted ? static_cast<u64>(state.iterations()) : 0))
		state.SkipWithError("a frame got a wrong answer");
}

struct FilterFrame {
	static constexpr const char *kName = "filter_frame";
	static constexpr bool kHooks = true;
	u32 operator()(const pkt_info &info) const
	{
		return filter_frame(info, &library()) == PACKET_COPY;
	}
};

// The caller holds the lock all the time.
struct PktFastFilter {
	static constexpr const char *kName = "pkt_fast_filter";
	static constexpr bool kHooks = true;
	u32 operator()(const pkt_info &info) const
	{
		return pkt_fast_filter(&info, &library()) == PACKET_COPY;
	}

private:
	ReadGuard guard_{ &library().lock };
};

// A library's frames are delivered by one thread at a time, which holds the change lock.
struct Matching {
	static constexpr const char *kName = "MatchingRules";
	static constexpr bool kHooks = false;
	u32 operator()(const pkt_info &info) const
	{
		MatchingRules<pkt_info> matching(info, &library());
		u32 count = 0;

		for (auto *rule = matching.first(); rule; rule = matching.next())
			count++;
		return count;
	}

private:
	MutexGuard guard_{ &library().change_lock };
};

template <typename Function, typename Shape, Frames frames> void run(benchmark::State &state)
{
	present<Shape, frames>(state, Function());
}

template <typename Shape> void fill_for(const benchmark::State &state)
{
	fill(Shape::rule, static_cast<u32>(state.range(0)));
}

void repeat(benchmark::internal::Benchmark *made, bool hooks)
{
	// Wall time decides only how long a repetition takes: CPU time is what tests/host/run shows.
	made->UseRealTime()->MinTime(0.05)->Repetitions(5)->Threads(1);
	if (hooks)
		made->Threads(kThreads);
}

template <typename Function, typename Shape, Frames frames> void add()
{
	const std::string name = std::string(Function::kName) + '/' + Shape::kName + '/' +
				 frames_name(frames);
	auto *made = benchmark::RegisterBenchmark(name.c_str(), run<Function, Shape, frames>);

	for (int rules : kRules)
		made->Arg(rules);
	made->Setup(fill_for<Shape>);
	repeat(made, Function::kHooks);
}

template <typename Function> void add_shapes()
{
	add<Function, OwnEtherType, Frames::kWanted>();
	add<Function, OwnEtherType, Frames::kOtherValue>();
	add<Function, OwnSourceMac, Frames::kWanted>();
	add<Function, OwnSourceMac, Frames::kOtherValue>();
	add<Function, TypeAndOwnPort, Frames::kWanted>();
	add<Function, TypeAndOwnPort, Frames::kOtherValue>();
	add<Function, TypeAndOwnPort, Frames::kOtherType>();
}

// What the other figures include: the choice of a frame, and one hold of the reader's lock.
void choose_frame(benchmark::State &state)
{
	present<OwnSourceMac, Frames::kWanted>(state, [](const pkt_info &) { return 1u; });
}

void hold_read_lock(benchmark::State &state)
{
	present<OwnSourceMac, Frames::kWanted>(state, [](const pkt_info &) {
		ReadGuard guard(&library().lock);
		return 1u;
	});
}

void add_parts()
{
	repeat(benchmark::RegisterBenchmark("frame/none/none", choose_frame)
		       ->Arg(1)
		       ->Setup(fill_for<OwnSourceMac>),
	       true);
	repeat(benchmark::RegisterBenchmark("read_lock/none/none", hold_read_lock)
		       ->Arg(1)
		       ->Setup(fill_for<OwnSourceMac>),
	       true);
}

} // namespace
} // namespace bench

int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 2;
	bench::usable_cpus();
	bench::add_parts();
	bench::add_shapes<bench::FilterFrame>();
	bench::add_shapes<bench::PktFastFilter>();
	bench::add_shapes<bench::Matching>();
	benchmark::RunSpecifiedBenchmarks();
	benchmark::Shutdown();
	return 0;
}
