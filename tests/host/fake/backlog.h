// SPDX-License-Identifier: GPL-2.0-only
// The kernel's limit of its own packet queues.
#pragma once

namespace fake {

inline constexpr int kBacklogDefault = 1000;
extern int max_backlog; // a test that changes it sets it back

} // namespace fake
