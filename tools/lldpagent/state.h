/* SPDX-License-Identifier: GPL-2.0-only */
/* The agent's state for an operator and for scripts. */
#ifndef LLDPAGENT_STATE_H
#define LLDPAGENT_STATE_H

#include "agent.h"

namespace lldp {

/** Neighbours and counters as text. */
std::string state_as_text(const Agent &agent, Time now);

/**
 * The same as one JSON object, with a newline behind it. Received texts have every byte beyond printable
 * ASCII escaped as if it were Latin-1, so that any bytes make valid JSON.
 */
std::string state_as_json(const Agent &agent, Time now);

} // namespace lldp

#endif
