/* SPDX-License-Identifier: GPL-2.0 */
/* Executes a command. */
#ifndef MOXCTL_COMMANDS_H
#define MOXCTL_COMMANDS_H

#include "kernel_log.h"
#include "netlink.h"
#include "options.h"
#include "status.h"

#include <functional>
#include <memory>
#include <string>

namespace moxctl {

/** What a command uses of the system; tests replace it. */
struct World {
	std::function<std::unique_ptr<NetlinkSocket>()> open_netlink;
	std::function<std::unique_ptr<KernelLog>()> open_kernel_log;
	std::function<std::string()> working_directory;
	std::string root; /**< stands in front of the dump file's path */
	std::function<void(const std::string &)> print; /**< to standard output */
	std::function<void(const std::string &)>
		complain; /**< one line to standard error, without its end */
};

/** Returns status_ok or status_incomplete; throws Failure. */
Status run_command(const Options &options, const World &world);

} // namespace moxctl

#endif
