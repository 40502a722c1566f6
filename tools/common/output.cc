/* SPDX-License-Identifier: GPL-2.0-only */
#include "common/output.h"

#include "common/ending.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tool {

std::string write_failure(std::string_view to, int error)
{
	std::string text = "cannot write to " + std::string(to) + ": " + std::strerror(error);
	return error == ENOSPC || error == EDQUOT ? text + " (is the disk full?)" : text;
}

void Output::print(std::string_view text)
{
	if (error_ == 0)
		error_ = write_all(text);
	if (error_ != 0)
		stop_requested = 1;
}

std::string Output::failure() const
{
	// Who ends the reader, or sends the signal, needs no more of the text.
	if (error_ == 0 || error_ == EPIPE || error_ == EINTR)
		return {};
	return write_failure(fd_ == STDERR_FILENO ? "standard error" : "standard output", error_);
}

/** 0, or an errno; EINTR: a signal ended the wait for room. */
int Output::write_all(std::string_view text) const
{
	while (!text.empty()) {
		ssize_t written = write(fd_, text.data(), text.size());
		if (written >= 0) {
			text.remove_prefix(static_cast<std::size_t>(written));
		} else if (errno == EAGAIN) {
			pollfd room{ fd_, POLLOUT, 0 };
			if (ppoll(&room, 1, nullptr, &waiting_) < 0)
				return errno;
		} else if (errno != EINTR) {
			return errno;
		}
	}
	return 0;
}

} // namespace tool
