// SPDX-License-Identifier: GPL-2.0-only
// Unrest for the stress tests: frames for every hook, and sockets that come, change their mind, and go.
#pragma once

#include <random>
#include <vector>

#include "support/fixture.h"

namespace vm {

struct HookTraffic {
	lab::Hook hook;
	lab::Frame frame;
};

/// A frame or two for each location that has a hook.
const std::vector<HookTraffic> &hook_traffic();

/// One socket's life: some rules, some changes, some reading.
void live_a_sockets_life(std::minstd_rand &random);

} // namespace vm
