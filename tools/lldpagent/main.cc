/* SPDX-License-Identifier: GPL-2.0-only */
/* lldpagent: LLDP on the ports of the forwarding platform. */
#include "common/ending.h"
#include "error.h"
#include "options.h"
#include "socket.h"
#include "state.h"

#include <poll.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

// A flood of frames must not delay announcements and answers to the operator.
constexpr unsigned kBatch = 64;

lldp::Time now()
{
	return std::chrono::steady_clock::now();
}

timespec until(lldp::Time due)
{
	auto left = std::max(due - now(), lldp::Time::duration::zero());
	auto whole = std::chrono::floor<std::chrono::seconds>(left);
	timespec time{};
	time.tv_sec = static_cast<time_t>(whole.count());
	time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - whole).count());
	return time;
}

lldp::Defaults defaults()
{
	utsname names{};
	uname(&names);
	return { names.nodename,
		 std::string(names.sysname) + " " + names.release + " " + names.machine };
}

void run(lldp::Agent &agent, lldp::Listener &listener, lldp::StatusServer &status,
	 const sigset_t &waiting)
{
	// The longest frame of the platform; LLDP's own limit is that of an Ethernet frame.
	static std::uint8_t buffer[9216];

	while (!tool::stop_requested) {
		agent.run(now());
		pollfd ready[] = { { listener.fd(), POLLIN, 0 }, { status.fd(), POLLIN, 0 } };
		timespec left = until(agent.due());
		if (ppoll(ready, std::size(ready), &left, &waiting) < 0) {
			if (errno == EINTR)
				continue;
			throw lldp::SystemError(std::string("cannot wait for frames: ") +
						std::strerror(errno));
		}
		if (ready[0].revents)
			for (unsigned i = 0; i < kBatch; ++i) {
				auto received = listener.receive(buffer);
				if (!received)
					break;
				agent.receive(received->ifindex, received->frame, now());
			}
		if (ready[1].revents)
			status.answer([&agent](lldp::StateForm form) {
				return form == lldp::StateForm::kJson ? state_as_json(agent, now())
								      : state_as_text(agent, now());
			});
	}
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
	run(agent, listener, status, waiting);
	agent.shut_down();
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
