/* SPDX-License-Identifier: GPL-2.0-only */
/* moxcap: captures frames from the forwarding platform. */
#include "capture.h"
#include "common/ending.h"
#include "common/output.h"
#include "mox/error.h"
#include "format.h"
#include "options.h"

#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace {

std::string interface_name(std::uint32_t index)
{
	char name[IF_NAMESIZE];
	return if_indextoname(index, name) ? name : "";
}

/** Complains of a text that was not printed; returns the exit status. */
int status_of(const tool::Output &output)
{
	std::string failure = output.failure();
	if (failure.empty())
		return 0;
	std::fprintf(stderr, "moxcap: %s\n", failure.c_str());
	return moxcap::kSystemStatus;
}

} // namespace

int main(int argc, char **argv)
{
	moxcap::Options options;
	if (auto ending = moxcap::read_options(argc, argv, mox::system_interface_index, options))
		return tool::end_at_once(*ending);

	signal(SIGPIPE, SIG_IGN);
	sigset_t waiting = tool::catch_ending_signals({ SIGINT, SIGTERM, SIGHUP });
	// With the capture file on standard output the text has to go elsewhere.
	tool::Output text(options.file == "-" ? STDERR_FILENO : STDOUT_FILENO, waiting);
	tool::Output remarks(STDERR_FILENO, waiting);
	try {
		mox::CaptureSocket socket = moxcap::prepare_socket(options);
		moxcap::Recorder recorder(options, interface_name,
					  [&text](const std::string &line) { text.print(line); });
		socket.set_location(options.location);
		if (!options.quiet)
			remarks.print(moxcap::format_opening(options));
		moxcap::Counters counters = moxcap::run_capture(socket, options, recorder,
								tool::stop_requested, waiting);
		if (!options.quiet)
			remarks.print(moxcap::format_summary(options.label, counters));
		if (options.counters)
			text.print(moxcap::format_counters(options.label, counters));
	} catch (const std::exception &error) {
		std::fprintf(stderr, "moxcap: %s\n", error.what());
		return moxcap::kSystemStatus;
	}
	return std::max(status_of(text), status_of(remarks));
}
