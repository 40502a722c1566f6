/* SPDX-License-Identifier: GPL-2.0-only */
/* The agent's loop: frames, announcements and the operator's questions, as they come. */
#ifndef LLDPAGENT_SERVE_H
#define LLDPAGENT_SERVE_H

#include "agent.h"
#include "socket.h"
#include "status.h"

#include <csignal>

namespace lldp {

/**
 * Runs the agent until `stop` is set by a signal handler, then announces a shutdown on every port. Such signals have
 * to be blocked outside of this call, and are let through as `waiting` says while it waits and after each batch of
 * frames. Throws SystemError, and mox::SocketError if frames cannot be received.
 */
void run_until_stopped(Agent &agent, Listener &listener, StatusServer &status,
		       const volatile std::sig_atomic_t &stop, const sigset_t &waiting);

} // namespace lldp

#endif
