/* SPDX-License-Identifier: GPL-2.0-only */
/* A clock that moves only while the program waits. */
#ifndef FAKE_CLOCK_H
#define FAKE_CLOCK_H

#include "pacing.h"

#include <algorithm>
#include <functional>
#include <vector>

class FakeClock : public moxsend::Clock {
public:
	std::uint64_t time = 1'000'000'000'000;
	std::uint64_t oversleep = 0;      // how late a wait ends
	std::vector<std::uint64_t> waits; // the deadlines
	std::function<void()> on_wait;    // a signal handler, for instance
	bool interrupted = false;         // the coming wait ends at once

	std::uint64_t now() override { return time; }
	void wait_until(std::uint64_t deadline) override
	{
		waits.push_back(deadline);
		if (on_wait)
			on_wait();
		if (!interrupted)
			time = std::max(time, deadline + (deadline > time ? oversleep : 0));
		interrupted = false;
	}
};

#endif
