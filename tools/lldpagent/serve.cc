/* SPDX-License-Identifier: GPL-2.0-only */
#include "serve.h"

#include "common/ending.h"
#include "error.h"
#include "state.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace lldp {
namespace {

// A flood of frames must not delay announcements and answers to the operator.
constexpr unsigned kBatch = 64;

Time now()
{
	return std::chrono::steady_clock::now();
}

timespec until(Time due)
{
	auto left = std::max(due - now(), Time::duration::zero());
	auto whole = std::chrono::floor<std::chrono::seconds>(left);
	timespec time{};
	time.tv_sec = static_cast<time_t>(whole.count());
	time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - whole).count());
	return time;
}

} // namespace

void run_until_stopped(Agent &agent, Listener &listener, StatusServer &status,
		       const volatile std::sig_atomic_t &stop, const sigset_t &waiting)
{
	// The longest frame of the platform; LLDP's own limit is that of an Ethernet frame.
	static std::uint8_t buffer[9216];

	while (!stop) {
		agent.run(now());
		pollfd ready[] = { { listener.fd(), POLLIN, 0 }, { status.fd(), POLLIN, 0 } };
		timespec left = until(agent.due());
		if (ppoll(ready, std::size(ready), &left, &waiting) < 0) {
			if (errno == EINTR)
				continue;
			throw SystemError(std::string("cannot wait for frames: ") +
					  std::strerror(errno));
		}
		if (ready[0].revents)
			for (unsigned i = 0; i < kBatch; ++i) {
				auto received = listener.receive(buffer);
				if (!received)
					break;
				agent.receive(received->ifindex, received->frame, now());
			}
		tool::deliver_pending_signals(waiting);
		if (ready[1].revents)
			status.answer([&agent](StateForm form) {
				return form == StateForm::kJson ? state_as_json(agent, now())
								: state_as_text(agent, now());
			});
	}
	agent.shut_down();
}

} // namespace lldp
