/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Reads the kernel log while a request is served, so that a report may be longer than the log's buffer. The module
 * prints faster than records can be taken apart: that is left until the request is done.
 */
#ifndef MOXCTL_LOG_FOLLOWER_H
#define MOXCTL_LOG_FOLLOWER_H

#include "kernel_log.h"
#include "report_filter.h"

#include <atomic>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace moxctl {

class LogFollower {
public:
	/** Begins to read, in a thread of its own. log has to outlive this object. */
	explicit LogFollower(KernelLog &log);
	~LogFollower();
	LogFollower(const LogFollower &) = delete;
	LogFollower &operator=(const LogFollower &) = delete;

	/**
     * Reads what has been logged up to now, ends, and hands all of it to filter. Throws Failure when the log could not
     * be read.
     */
	void stop(ReportFilter &filter);

private:
	void follow();
	void join();

	KernelLog &log_;
	std::atomic<bool> last_round_{ false };
	// Of the thread, until it has ended.
	std::string records_; /**< one behind the other */
	std::vector<std::size_t>
		ends_; /**< of each in records_; an empty one stands for overwritten records */
	std::exception_ptr error_;
	std::thread thread_; // the last: it uses the others
};

} // namespace moxctl

#endif
