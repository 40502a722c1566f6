/* SPDX-License-Identifier: GPL-2.0-only */
/* The command lines of what moxctl reads from the family "mox_capture". */
#ifndef MOXCTL_CAPTURE_OPTIONS_H
#define MOXCTL_CAPTURE_OPTIONS_H

#include "options.h"

#include <string>

namespace CLI {
class App;
}

namespace moxctl {

/** The words as they were typed; empty: not given. */
struct CaptureWords {
	std::string location, pid, cookie;
	std::string interface, vlan, mac, ether_type, address, protocol, port;
};

/** Adds a command that has this action. */
CLI::App *add_command(CLI::App &parent, const char *name, const char *what, Options &options,
		      Action action);

/** Adds --location, --pid and --cookie to a report. */
void describe_selection(CLI::App &command, CaptureWords &words);
void describe_location(CLI::App &command, CaptureWords &words);

/** Adds the commands watch, metrics, trace, restrict and info. */
void describe_capture(CLI::App &app, CaptureWords &words, Options &options);

/**
 * What the words mean, for the command that options.action names: selection, or trace. lookup resolves interface names.
 * Throws UsageError.
 */
void look_up_capture(const CaptureWords &words, const mox::InterfaceLookup &lookup,
		     Options &options);

} // namespace moxctl

#endif
