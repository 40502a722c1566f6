/* SPDX-License-Identifier: GPL-2.0 */
/* Reads the kernel log while a request is served, so that a report may be longer than the log's buffer. */
#ifndef MOXCTL_LOG_FOLLOWER_H
#define MOXCTL_LOG_FOLLOWER_H

#include "kernel_log.h"
#include "report_filter.h"

#include <atomic>
#include <exception>
#include <thread>

namespace moxctl {

class LogFollower {
public:
    /** Begins to read, in a thread of its own. Both have to outlive this object; filter is in use until stop. */
    LogFollower(KernelLog& log, ReportFilter& filter);
    ~LogFollower();
    LogFollower(const LogFollower&) = delete;
    LogFollower& operator=(const LogFollower&) = delete;

    /** Reads what has been logged up to now, and ends. Throws Failure when the log could not be read. */
    void stop();

private:
    void follow();
    void join();

    KernelLog& log_;
    ReportFilter& filter_;
    std::atomic<bool> last_round_{false};
    std::exception_ptr error_;
    std::thread thread_; // the last: it uses the others
};

} // namespace moxctl

#endif
