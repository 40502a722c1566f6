// SPDX-License-Identifier: GPL-2.0-only
#include "play.h"

#include <algorithm>

#include "base/restriction.hpp"

namespace fuzz {
namespace {

// Points outside of all atomic sections, if the call holds no lock there.
constexpr Point kPoints[] = {
	Point::kLocking,     Point::kUnlock,      Point::kBarrier,     Point::kStoreBarrier,
	Point::kGrace,       Point::kWait,        Point::kWake,        Point::kSchedule,
	Point::kCondResched, Point::kOrphan,      Point::kSockPut,     Point::kDataReady,
	Point::kReceive,     Point::kCopyFromMsg, Point::kOutput,      Point::kOpen,
	Point::kWrite,       Point::kRegModule,   Point::kDeregModule, Point::kRegRecv,
	Point::kDeregRecv,   Point::kRegOutput,   Point::kDeregOutput,
};

// What the caller of a hook, or of deregistration, takes for granted.
constexpr Fail kNeverFail[] = { Fail::kDeregModule, Fail::kDeregRecv, Fail::kDeregOutput };

bool sleeps(fake::LockKind kind)
{
	using enum fake::LockKind;
	for (fake::LockKind spinning :
	     { kBind, kRule, kHook, kLib, kQueue, kReceiveQueue, kTracer })
		if (kind == spinning)
			return false;
	return true;
}

} // namespace

void Play::SetUp()
{
	CaptureTest::SetUp();
	kernel().present_cpus = { 0, 1, 2, 3 };
	socks_.resize(kSockets);
	for (Point point : kPoints)
		kernel().at.watch(point, [this, point](const void *) { at_point(point); });
	kernel().fault = [this](Fail call) { return fails(call); };
}

void Play::TearDown()
{
	until_other_ = until_failure_ = until_signal_ = 0;
	kernel().killed = false;
	restriction_set(false);
	reader_.reset();
	socks_.clear();
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	CaptureTest::TearDown();
}

// What happens in the middle of the next call, which of its allocations fails, and when its
// process gets a fatal signal.
void Play::plan()
{
	const u32 when = below(256);
	until_other_ = when < 96 ? 0 : when - 95;
	const u32 failure = below(256);
	until_failure_ = failure < 208 ? 0 : failure - 207;
	const u32 signal = failure >= 192 && failure < 208 ? below(256) : 0;
	kernel().killed = signal == 255;
	until_signal_ = signal == 255 ? 0 : signal;
	if (shown_)
		fprintf(stderr, "another CPU at point %u, failure of call %u, signal at %u:\n",
			until_other_, until_failure_, until_signal_);
}

bool Play::fails(Fail call)
{
	if (until_failure_ == 0 || std::ranges::count(kNeverFail, call) || --until_failure_ != 0)
		return false;
	check_.failed = true;
	if (shown_)
		fprintf(stderr, "%*scall %d fails\n", depth_ * 2, "", int(call));
	return true;
}

bool Play::hook_only_locks() const
{
	for (const auto &[lock, kind] : kernel().held)
		if (!sleeps(kind))
			return false;
	return true;
}

void Play::at_point(Point point)
{
	if (depth_ == 1 && until_signal_ && --until_signal_ == 0)
		kernel().killed = true;
	// Only a hook can still run while the module is unloaded, and only up to the wait for it.
	if (unloading_) {
		if (point == Point::kGrace && until_other_)
			on_other_cpu(Place::kHookOnly);
		return;
	}
	if (until_other_ == 0 || depth_ >= kDeepest || !hook_only_locks() || --until_other_ != 0)
		return;
	on_other_cpu(kernel().held.empty() && depth_ == 1 ? Place::kAnywhere : Place::kHookOnly);
	const u32 again = below(256);
	until_other_ = again < 128 ? 0 : again - 127;
}

// As another CPU runs: with none of this one's locks, and out of its hook.
void Play::on_other_cpu(Place place)
{
	fake::Kernel &k = kernel();
	auto held = std::move(k.held);
	const int bh_disabled = k.bh_disabled, cpu = k.cpu;
	const bool in_hook = k.in_hook, killed = std::exchange(k.killed, false);
	k.held.clear();
	k.bh_disabled = 0;
	k.in_hook = false;
	k.cpu = depth_;
	act(place);
	EXPECT_TRUE(k.held.empty()) << "locks behind a call";
	EXPECT_EQ(k.bh_disabled, 0);
	k.held = std::move(held);
	k.bh_disabled = bh_disabled;
	k.in_hook = in_hook;
	k.killed = killed;
	k.cpu = cpu;
}

void Play::act(Place place)
{
	static constexpr Action kFrame{ "frame", &Play::frame, 1 };

	const Action &action = place == Place::kHookOnly ? kFrame : chosen();
	const int id = int(below(kSockets));
	if (shown_)
		fprintf(stderr, "%*s%s, socket %d\n", depth_ * 2, "", action.name, id);
	depth_++;
	(this->*action.act)(id);
	depth_--;
}

void Play::step()
{
	plan();
	act(Place::kAnywhere);
	until_other_ = until_failure_ = until_signal_ = 0;
	kernel().killed = false;
	rest();
}

// Nothing runs: what there is must be what the reference files. In most cases that is compared at
// the end only, which leaves time for more of them.
void Play::rest()
{
	EXPECT_TRUE(kernel().held.empty());
	check_.dumps = reader_ ? 1 : 0;
	if (compares_each_)
		check_.run(socks_);
	for (int id = 0; id < kSockets; id++)
		learn(id);
	kernel().log.clear();
	kernel().journal.clear();
	kernel().answers.clear();
	kernel().capture_answers.clear();
	efmp().registrations.clear();
	efmp().sent.clear();
}

void Play::run(Input &input)
{
	const std::vector<uint8_t> bytes = input.rest();
	rng_.take_from(bytes.data(), bytes.size());
	compares_each_ = below(8) == 0;
	for (int steps = 0; steps < kSteps && !rng_.exhausted(); steps++)
		step();
	deliver(0);
	reader_.reset();
	check_.dumps = 0;
	check_.run(socks_);
}

} // namespace fuzz
