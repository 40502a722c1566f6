/* SPDX-License-Identifier: GPL-2.0 */
/* moxctl: asks mox_ef_socket for reports, and switches its debugging and hooks. */
#include "commands.h"
#include "common/ending.h"
#include "dump_file.h"
#include "mox/packet_socket.h"
#include "options.h"

#include <cstdio>

int main(int argc, char **argv)
{
	moxctl::Options options;
	if (auto ending = moxctl::read_options(argc, argv, mox::system_interface_index, options))
		return tool::end_at_once(*ending);

	moxctl::World world{
		.open_netlink = moxctl::open_netlink,
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
