// SPDX-License-Identifier: GPL-2.0-only
// What tests of costs share: the time of one frame in a hook and in delivery, the longest time with bottom halves off,
// and rules of many values. The test kernel is slow and the host may be busy, so that the shortest of several
// measurements counts: nothing makes a measurement too short.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace vm {

/// Room for so many open files.
void allow_files(unsigned count);

/// A rule record of `count` values of 2, 4 or 6 bytes, from value number `first` on.
Rule many(uint16_t type, unsigned first, unsigned count);
/// The frame's source MAC replaced by value number `n` of many(PACKET_SRC_MAC_EQUAL).
lab::Frame from_mac(lab::Frame frame, unsigned n);

/// Nanoseconds of one frame.
struct FrameCost {
	double hook = 0;     ///< in the function at LEV2, without the call's own cost
	double delivery = 0; ///< in the copy thread; 0: the frame was not wanted
	unsigned queued = 0; ///< of a batch of kBatch
};
constexpr unsigned kBatch = 64;

/// Measures on CPU 0, where the caller and the copy thread must be pinned. `readers` are emptied after each batch.
FrameCost frame_cost(const lab::Frame &frame, const std::vector<Socket *> &readers = {});

double median(std::vector<double> values);

/// What longest_ms() returns when no timer interrupt came, as happens when the emulator waits for the host: more than
/// any limit.
inline constexpr double kNotMeasured = 1e9;

/// The longest time in milliseconds for which bottom halves were off on the CPU of the caller, which must be pinned,
/// while `act` ran.
double longest_ms(const std::function<void()> &act);

/// One line of a test's output: a name and what was measured.
void show(const std::string &what, double value, const char *unit);

} // namespace vm
