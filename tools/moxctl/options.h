/* SPDX-License-Identifier: GPL-2.0-only */
/* moxctl's command line. */
#ifndef MOXCTL_OPTIONS_H
#define MOXCTL_OPTIONS_H

#include "capture_request.h"
#include "mox/values.h"
#include "mox_packet.h"
#include "selection.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace moxctl {

enum class Action {
	kShowRules,
	kShowQueues,
	kShowMemory,
	kShowThread,
	kShowProcess,
	kSwitches, /**< debug and hook */
	kFilter,
	kTech,
	kShowSockets,
	kShowLosses,
	kWatch,
	kMetrics,
	kTrace,
	kRestrict,
	kLiftRestriction,
	kRestrictStatus,
	kInfo,
};

/** Whether a command runs until a signal ends it. */
constexpr bool runs_until_stopped(Action action)
{
	return action == Action::kWatch || action == Action::kTrace;
}

struct Options {
	Action action = Action::kShowRules;
	std::uint32_t location = 0; /**< show rules: 1 to 8, 0: all */
	std::string process;        /**< show process: the name; empty: by pid */
	std::uint32_t pid = 0;
	bool json = false;
	bool log =
		false; /**< show: the report in the kernel log, also of a module that can be read */
	bool all = false;          /**< show losses: counters that are 0 as well */
	Selection selection;       /**< show, watch: of what the family for reading has */
	double interval = 1;       /**< watch: seconds */
	std::uint64_t count = 0;   /**< watch, trace: so many, 0: no limit */
	std::uint64_t seconds = 0; /**< trace: so long, 0: no limit */
	CaptureRequest trace;
	std::vector<std::uint32_t>
		switches;     /**< enum mox_packet_debug_type, in the order to set them */
	bool is_open = false; /**< the value to set them to: for a hook, 1 takes it away */
	mox_packet_filter filter{};
	std::string output;  /**< tech, metrics: file, empty: standard output */
	double timeout = 10; /**< seconds */
	std::string note;    /**< for the operator, printed first */
};

/** A command line that ends the program at once: help (status 0, text for standard output) or an error. */
struct Ending {
	int status;
	std::string text;
};

/**
 * Reads the command line. lookup resolves interface names. Returns nothing in the optional when options are
 * ready to be used.
 */
std::optional<Ending> read_options(int argc, const char *const *argv,
				   const mox::InterfaceLookup &lookup, Options &options);

} // namespace moxctl

#endif
