/* SPDX-License-Identifier: GPL-2.0-only */
#include "pacing.h"

#include <poll.h>
#include <time.h>

namespace moxsend {
namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t kLongestLag = kNanosecondsPerSecond / 10;

} // namespace

std::uint64_t SystemClock::now()
{
	timespec time{};
	clock_gettime(CLOCK_MONOTONIC, &time);
	return static_cast<std::uint64_t>(time.tv_sec) * kNanosecondsPerSecond +
	       static_cast<std::uint64_t>(time.tv_nsec);
}

void SystemClock::wait_until(std::uint64_t deadline)
{
	std::uint64_t time = now();
	std::uint64_t left = deadline > time ? deadline - time : 0;
	timespec timeout{ static_cast<time_t>(left / kNanosecondsPerSecond),
			  static_cast<long>(left % kNanosecondsPerSecond) };
	ppoll(nullptr, 0, &timeout, &waiting_);
}

std::uint64_t Pacer::due() const
{
	if (rate_ <= 0)
		return 0;
	// From the frame's number, not from the frame before: what is lost in rounding does not add up.
	return start_ + static_cast<std::uint64_t>(static_cast<double>(frames_) *
						   kNanosecondsPerSecond / rate_);
}

void Pacer::advance(std::uint64_t now)
{
	if (now > due() + kLongestLag) {
		start_ = now;
		frames_ = 0;
	}
	++frames_;
}

} // namespace moxsend
