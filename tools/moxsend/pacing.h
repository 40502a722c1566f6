/* SPDX-License-Identifier: GPL-2.0 */
/* When the next frame is due. */
#ifndef MOXSEND_PACING_H
#define MOXSEND_PACING_H

#include <csignal>
#include <cstdint>

namespace moxsend {

/** Nanoseconds of a clock that only goes forward; tests put their own in place. */
class Clock {
public:
    virtual ~Clock() = default;
    virtual std::uint64_t now() = 0;
    /**
     * Returns at the deadline, or earlier when a signal came. Signals are let in here and nowhere else; a deadline
     * that has passed does that alone.
     */
    virtual void wait_until(std::uint64_t deadline) = 0;
};

/** The system's monotonic clock. `waiting` is the signal mask while it waits. */
class SystemClock : public Clock {
public:
    explicit SystemClock(const sigset_t& waiting) : waiting_(waiting) {}
    std::uint64_t now() override;
    void wait_until(std::uint64_t deadline) override;

private:
    sigset_t waiting_;
};

/**
 * A schedule of so many frames a second: each frame has its place from the start on, so that what one waits too long
 * the next one waits less. A schedule that was missed by more than 100 ms (the machine slept, the program was
 * stopped) starts anew, for what was missed would otherwise come as one burst.
 */
class Pacer {
public:
    /** rate in frames a second; 0: no schedule, every frame is due at once. */
    Pacer(double rate, std::uint64_t start) : rate_(rate), start_(start) {}

    /** When the coming frame is due; 0 without a schedule. */
    std::uint64_t due() const;
    /** The coming frame goes out at this time. */
    void advance(std::uint64_t now);

private:
    double rate_;
    std::uint64_t start_;
    std::uint64_t frames_ = 0;
};

} // namespace moxsend

#endif
