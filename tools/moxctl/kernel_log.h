/* SPDX-License-Identifier: GPL-2.0-only */
/* The kernel log, record by record, as read from /dev/kmsg. */
#ifndef MOXCTL_KERNEL_LOG_H
#define MOXCTL_KERNEL_LOG_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace moxctl {

/** One call of the kernel's printk, or one line that a program wrote to /dev/kmsg. */
struct LogRecord {
	unsigned priority = 0;      /**< facility * 8 + level */
	std::uint64_t sequence = 0; /**< without gaps, unless records were overwritten */
	std::string
		caller; /**< "T" and thread id or "C" and CPU, where the kernel is built to record it */
	std::string text; /**< as printed, but for one line end at its end */
};

/** Takes one read of /dev/kmsg apart: escapes are undone, dictionary lines left out. Nothing when it is no record. */
std::optional<LogRecord> decode_record(std::string_view raw);

/** Source of log records; tests replace it. */
class KernelLog {
public:
	enum class Read {
		kRecord,      /**< one was stored */
		kNone,        /**< all that there are have been read */
		kOverwritten, /**< records were lost; reading goes on behind them */
	};
	virtual ~KernelLog() = default;
	/** Does not wait. Throws Failure when the log cannot be read. */
	virtual Read read(std::string &raw) = 0;
	/** Waits until there may be something to read or interrupt is called, now or earlier. */
	virtual void wait() = 0;
	/** Ends a wait, from another thread. */
	virtual void interrupt() = 0;
};

/** /dev/kmsg from its present end on. Throws Failure, with the remedy, when it may not be read. */
std::unique_ptr<KernelLog> open_kernel_log();

/** The text for an errno value of opening or reading the kernel log: what it means and the remedy. */
std::string kernel_log_error(int error);

} // namespace moxctl

#endif
