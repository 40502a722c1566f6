/* SPDX-License-Identifier: GPL-2.0-only */
/* lldpagent: LLDP on the ports of the forwarding platform. */
#include "common/ending.h"
#include "error.h"
#include "options.h"
#include "serve.h"
#include "socket.h"
#include "status.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

lldp::Defaults defaults()
{
	utsname names{};
	uname(&names);
	return { names.nodename,
		 std::string(names.sysname) + " " + names.release + " " + names.machine };
}

int announce(const lldp::Options &options)
{
	auto log = [&options](const std::string &line) {
		if (!options.quiet)
			std::fprintf(stderr, "lldpagent: %s\n", line.c_str());
	};
	sigset_t waiting = tool::catch_ending_signals({ SIGINT, SIGTERM });
	lldp::StatusServer status(options.status);
	// The listener before the first announcement: a neighbour may answer it at once.
	lldp::Listener listener(options.ports);
	lldp::Senders senders(options.ports);
	lldp::Agent agent(options.identity, options.ports, senders.macs(), options.most_of_a_port,
			  senders, log);
	log("announcing " + options.identity.name + " on " + std::to_string(options.ports.size()) +
	    (options.ports.size() == 1 ? " port" : " ports"));
	lldp::run_until_stopped(agent, listener, status, tool::stop_requested, waiting);
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	lldp::Options options;
	if (auto ending = lldp::read_options(argc, argv, defaults(), options))
		return tool::end_at_once(*ending);
	try {
		if (!options.show)
			return announce(options);
		std::fputs(lldp::ask_status(options.status, options.form).c_str(), stdout);
		return std::fflush(stdout) == 0 ? 0 : lldp::kFailureStatus;
	} catch (const std::exception &error) {
		std::fprintf(stderr, "lldpagent: %s\n", error.what());
		return lldp::kFailureStatus;
	}
}
