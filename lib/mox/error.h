/* SPDX-License-Identifier: MIT */
/*
 * The exceptions of the library. The text of each can be shown to an operator as it is.
 */
#ifndef MOX_ERROR_H
#define MOX_ERROR_H

#include "mox/export.h"

#include <stdexcept>
#include <string>

namespace mox {

/** A name or value that the caller gave does not exist; the text names it and lists what is allowed. */
class MOX_API UsageError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** The kernel refused a socket call; the text names the call, the reason and the remedy. */
class MOX_API SocketError : public std::runtime_error {
public:
	SocketError(const std::string &text, int error) : std::runtime_error(text), error_(error) {}

	/** The positive errno value of the refused call. */
	int error() const { return error_; }

private:
	int error_;
};

} // namespace mox

#endif
