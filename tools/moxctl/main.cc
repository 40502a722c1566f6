/* SPDX-License-Identifier: GPL-2.0-only */
/* moxctl: reads what mox_ef_socket does, and switches its debugging and hooks. */
#include "commands.h"
#include "common/ending.h"
#include "dump_file.h"
#include "mox/packet_socket.h"
#include "options.h"

#include <net/if.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>

namespace {

std::string interface_name(std::uint32_t index)
{
	char name[IF_NAMESIZE];
	return if_indextoname(index, name) ? name : "";
}

void sleep_for(std::chrono::milliseconds time, const sigset_t *mask)
{
	const timespec limit{ .tv_sec = static_cast<time_t>(time.count() / 1000),
			      .tv_nsec = static_cast<long>(time.count() % 1000 * 1000000) };
	ppoll(nullptr, 0, &limit, mask);
}

} // namespace

int main(int argc, char **argv)
{
	moxctl::Options options;
	if (auto ending = moxctl::read_options(argc, argv, mox::system_interface_index, options))
		return tool::end_at_once(*ending);

	// Commands that run until a signal end in order: the signal is taken where they wait.
	std::optional<sigset_t> waiting;
	if (moxctl::runs_until_stopped(options.action))
		waiting = tool::catch_ending_signals({ SIGINT, SIGTERM });
	const sigset_t *mask = waiting ? &*waiting : nullptr;

	moxctl::World world{
		.open_netlink = [mask] { return moxctl::open_netlink(mask); },
		.open_kernel_log = moxctl::open_kernel_log,
		.working_directory = moxctl::working_directory,
		.root = {},
		.print =
			[](const std::string &text) {
				std::fwrite(text.data(), 1, text.size(), stdout);
			},
		.complain =
			[](const std::string &line) {
				std::fprintf(stderr, "moxctl: %s\n", line.c_str());
			},
		.interface_name = interface_name,
		.terminal = isatty(STDOUT_FILENO) != 0,
		.flush = [] { std::fflush(stdout); },
		.stopped = [] { return tool::stop_requested != 0; },
		.sleep = [mask](std::chrono::milliseconds time) { sleep_for(time, mask); },
		.clock =
			[] {
				return std::chrono::duration_cast<std::chrono::milliseconds>(
					std::chrono::steady_clock::now().time_since_epoch());
			},
	};
	int status;
	try {
		status = moxctl::run_command(options, world);
	} catch (const moxctl::Failure &failure) {
		world.complain(failure.what());
		return failure.status();
	} catch (const std::exception &error) {
		world.complain(error.what());
		return moxctl::status_failure;
	}
	if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
		world.complain("cannot write to standard output");
		return moxctl::status_failure;
	}
	return status;
}
