/* SPDX-License-Identifier: GPL-2.0-only */
/* lldpagent's command line. */
#ifndef LLDPAGENT_OPTIONS_H
#define LLDPAGENT_OPTIONS_H

#include "agent.h"
#include "status.h"

namespace lldp {

struct Options {
	bool show = false; /**< ask a running agent, and end */
	StateForm form = StateForm::kText;
	std::string status = "/run/lldpagent.sock";

	// Of an agent.
	std::vector<Port> ports; /**< at least one, indexes and names unique */
	Identity identity;
	std::size_t most_of_a_port = 32;
	bool quiet = false;
};

/** A command line that ends the program at once: help (status 0, text for standard output) or an error. */
struct Ending {
	int status;
	std::string text;
};

/** Exit status of a wrong command line, and of everything else that fails. */
constexpr int kUsageStatus = 2, kFailureStatus = 1;

/** What is announced where the command line gives nothing. */
struct Defaults {
	std::string name;
	std::string description;
};

/** Reads the command line. Nothing in the optional when options are ready to be used. */
std::optional<Ending> read_options(int argc, const char *const *argv, const Defaults &defaults,
				   Options &options);

} // namespace lldp

#endif
