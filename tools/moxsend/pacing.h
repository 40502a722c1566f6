/* SPDX-License-Identifier: GPL-2.0-only */
/* When the next frame is due. */
#ifndef MOXSEND_PACING_H
#define MOXSEND_PACING_H

#include <csignal>
#include <cstdint>

namespace moxsend {

/** Nanoseconds of a monotonic clock; tests replace it. */
class Clock {
public:
	virtual ~Clock() = default;
	virtual std::uint64_t now() = 0;
	/**
     * Returns at the deadline, or earlier when a signal came. Signals are delivered here and nowhere else, also
     * when the deadline has passed.
     */
	virtual void wait_until(std::uint64_t deadline) = 0;
};

/** The system's monotonic clock. `waiting` is the signal mask while it waits. */
class SystemClock : public Clock {
public:
	explicit SystemClock(const sigset_t &waiting) : waiting_(waiting) {}
	std::uint64_t now() override;
	void wait_until(std::uint64_t deadline) override;

private:
	sigset_t waiting_;
};

/**
 * A schedule of frames at a constant rate. The time of each frame is fixed from the start, so that a late frame does
 * not delay those behind it. A schedule that was missed by more than 100 ms (the machine slept, the program was
 * stopped) starts anew; the missed frames would otherwise be sent as one burst.
 */
class Pacer {
public:
	/** rate in frames a second; 0: no schedule, every frame is due at once. */
	Pacer(double rate, std::uint64_t start) : rate_(rate), start_(start) {}

	/** When the next frame is due; 0 without a schedule. */
	std::uint64_t due() const;
	/** The next frame is sent at this time. */
	void advance(std::uint64_t now);

private:
	double rate_;
	std::uint64_t start_;
	std::uint64_t frames_ = 0;
};

} // namespace moxsend

#endif
