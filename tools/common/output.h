/* SPDX-License-Identifier: GPL-2.0-only */
/* Texts to standard output and standard error, and what becomes of the program when they cannot be written. */
#ifndef MOX_TOOLS_COMMON_OUTPUT_H
#define MOX_TOOLS_COMMON_OUTPUT_H

#include <csignal>
#include <string>
#include <string_view>

namespace tool {

/** The text of a failed write: what it was written to, the reason, and the remedy where there is one. */
std::string write_failure(std::string_view to, int error);

/** A descriptor for texts. */
class Output {
public:
	/**
	 * waiting: the signal mask while a descriptor that does not block has no room; it has to outlive the object.
	 * SIGPIPE has to be ignored.
	 */
	Output(int fd, const sigset_t &waiting) : fd_(fd), waiting_(waiting) {}

	/**
	 * Prints the text with one write, where that suffices: at once, and not mixed with the lines of other programs.
	 * After a failure, or a signal during the wait for room, sets stop_requested, and prints nothing more.
	 */
	void print(std::string_view text);

	/** Why not everything was printed; empty when all was, the reader has ended, or a signal came. */
	std::string failure() const;

private:
	int write_all(std::string_view text) const;

	int fd_;
	const sigset_t &waiting_;
	int error_ = 0;
};

} // namespace tool

#endif
