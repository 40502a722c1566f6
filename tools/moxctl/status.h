/* SPDX-License-Identifier: GPL-2.0-only */
/* How moxctl ends. */
#ifndef MOXCTL_STATUS_H
#define MOXCTL_STATUS_H

#include <stdexcept>
#include <string>

namespace moxctl {

/** Exit statuses; the manual page lists them. */
enum Status {
	status_ok = 0,
	status_failure = 1,    /**< the kernel refused, or a file or a permission is missing */
	status_usage = 2,      /**< wrong command line */
	status_incomplete = 3, /**< there is a report, but lines of it are missing */
	status_timeout = 4,    /**< no answer within the time limit */
};

/** Ends the program; the text names what failed and the remedy. */
class Failure : public std::runtime_error {
public:
	explicit Failure(const std::string &text, Status status = status_failure)
		: std::runtime_error(text), status_(status)
	{
	}
	Status status() const { return status_; }

private:
	Status status_;
};

} // namespace moxctl

#endif
