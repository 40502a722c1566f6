/* SPDX-License-Identifier: GPL-2.0-only */
/* moxcap: captures frames from the forwarding platform. */
#include "capture.h"
#include "common/ending.h"
#include "mox/error.h"
#include "format.h"
#include "options.h"

#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

std::string interface_name(std::uint32_t index)
{
	char name[IF_NAMESIZE];
	return if_indextoname(index, name) ? name : "";
}

/** One write for the whole text: printed at once, and not mixed with the lines of other programs. */
void print_to(int fd, const std::string &text)
{
	std::size_t done = 0;
	while (done < text.size()) {
		ssize_t written = write(fd, text.data() + done, text.size() - done);
		if (written < 0 && errno != EINTR) {
			tool::stop_requested = 1; // the reader has ended
			return;
		}
		done += written > 0 ? static_cast<std::size_t>(written) : 0;
	}
}

} // namespace

int main(int argc, char **argv)
{
	moxcap::Options options;
	if (auto ending = moxcap::read_options(argc, argv, mox::system_interface_index, options))
		return tool::end_at_once(*ending);

	// With the capture file on standard output the text has to go elsewhere.
	int text_fd = options.file == "-" ? STDERR_FILENO : STDOUT_FILENO;
	signal(SIGPIPE, SIG_IGN);
	sigset_t waiting = tool::catch_ending_signals({ SIGINT, SIGTERM, SIGHUP });
	try {
		mox::CaptureSocket socket = moxcap::prepare_socket(options);
		moxcap::Recorder recorder(options, interface_name,
					  [text_fd](const std::string &text) {
						  print_to(text_fd, text);
					  });
		socket.set_location(options.location);
		if (!options.quiet)
			print_to(STDERR_FILENO, moxcap::format_opening(options));
		moxcap::Counters counters = moxcap::run_capture(socket, options, recorder,
								tool::stop_requested, waiting);
		if (!options.quiet)
			print_to(STDERR_FILENO, moxcap::format_summary(options.label, counters));
		if (options.counters)
			print_to(text_fd, moxcap::format_counters(options.label, counters));
	} catch (const std::exception &error) {
		std::fprintf(stderr, "moxcap: %s\n", error.what());
		return moxcap::kSystemStatus;
	}
	return 0;
}
