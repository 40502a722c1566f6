// SPDX-License-Identifier: GPL-2.0-only
#include "surroundings.h"

#include <cstring>

#include "base/log.hpp"
#include "base/restriction.hpp"
#include "rules/budget.hpp"

namespace fuzz {

using fake::Fail;
using fake::kernel;
using fake::Point;

namespace {

// Of the machine: with so little, a rule of a few values is more than one socket may have.
constexpr uint64_t kLittleMemory = 1 << 20;

} // namespace

bool may_fail(Fail call)
{
	return call != Fail::kDeregModule && call != Fail::kDeregRecv && call != Fail::kDeregOutput;
}

World::World(Input &input)
{
	const uint8_t what = input.byte();
	fake::Kernel &k = kernel();

	// The location's own switch counts for lines of the copy thread.
	if (what & 1)
		memset(mox_packet_debug, what & 2 ? 0xff : 1, sizeof mox_packet_debug);
	if (what & 4) {
		const uint8_t caps = input.byte();
		k.net_admin = caps & 1;
		k.net_raw = caps & 2;
		mox::restriction_set(caps & 4);
		const char *const places[] = { "/root", "/data/var/run/vsd/3",
					       "/data/var/run/vsd/4000000000",
					       "/data/var/run/vsd/0" };
		k.cwd = places[caps / 8 % 4];
		k.cwd_renders = !(caps & 32);
	}
	if (what & 8) {
		signal_after_ = 1u + input.byte();
		k.at.watch(Point::kCondResched, [this](const void *) {
			if (signal_after_ != 0 && --signal_after_ == 0)
				kernel().killed = true;
		});
		k.killed = signal_after_ == 256;
	}
	if (what & 16) {
		k.total_memory = kLittleMemory << input.below(16);
		mox::budget_init(1u << input.below(16));
	}
	if (what & 32) {
		failing_ = static_cast<Fail>(input.below(static_cast<unsigned>(Fail::kCount)));
		// The first ones mostly; one, or all from then on.
		const uint8_t after = input.byte();
		fails_after_ = after % 8 * (after & 8 ? 8 : 1);
		failures_ = after & 128 ? ~0u : 1;
		k.fault = [this](Fail call) { return fails(call); };
	}
}

World::~World()
{
	fake::Kernel &k = kernel();

	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	mox::restriction_set(false);
	k.at.erase(Point::kCondResched);
	k.killed = false;
	k.fault = nullptr;
	k.net_admin = k.net_raw = true;
	k.cwd = "/root";
	k.cwd_renders = true;
}

bool World::fails(Fail call)
{
	if (call != failing_ || !may_fail(call) || failures_ == 0)
		return false;
	if (fails_after_ != 0) {
		fails_after_--;
		return false;
	}
	failures_--;
	return true;
}

} // namespace fuzz
