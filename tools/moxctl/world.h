/* SPDX-License-Identifier: GPL-2.0-only */
/* What commands use of the system. */
#ifndef MOXCTL_WORLD_H
#define MOXCTL_WORLD_H

#include "kernel_log.h"
#include "netlink_socket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace moxctl {

/** What a command uses of the system; tests replace it. */
struct World {
	std::function<std::unique_ptr<NetlinkSocket>()> open_netlink;
	std::function<std::unique_ptr<KernelLog>()> open_kernel_log;
	std::function<std::string()> working_directory;
	std::string root; /**< precedes the dump file's path */
	/** To standard output. */
	std::function<void(const std::string &)> print;
	/** One line to standard error, without its end. */
	std::function<void(const std::string &)> complain;

	/** The name of an interface; empty when there is none of this index. */
	std::function<std::string(std::uint32_t)> interface_name = {};
	/** Standard output is a terminal. */
	bool terminal = false;
	/** Passes on what was printed. */
	std::function<void()> flush = [] {};
	/** Whether a signal ended the command. */
	std::function<bool()> stopped = [] { return false; };
	/** Waits, but no longer than until a signal. */
	std::function<void(std::chrono::milliseconds)> sleep = {};
	/** A clock that only counts up. */
	std::function<std::chrono::milliseconds()> clock = {};
};

} // namespace moxctl

#endif
