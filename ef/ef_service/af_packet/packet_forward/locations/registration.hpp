// SPDX-License-Identifier: GPL-2.0-only
/*
 * Hook registration: which receive functions the platform calls. A location's
 * hooks are registered while its library holds a rule.
 */
#pragma once

#include "locations/table.hpp"

extern "C" {
/**
 * Register a module record, unless it is. 0, or the platform's own value after
 * a log line. Never sleeps; the hook lock is held.
 */
int mox_packet_reg_module(packet_module *module);
/** Deregister a module record, if it is registered. Never sleeps; the hook lock is held. */
void mox_packet_dereg_module(packet_module *module);
/* The module keeps no multicast lists of the platform: both do nothing. */
void mox_packet_flush_input_mclist(void);
void mox_packet_flush_output_mclist(void);
}

namespace mox {

/** Initialise the hook lock. */
void hook_lock_init();

/**
 * Bring the hooks of a location (1 to 10) in line with its library: registered
 * while the library holds rules. Called after every change of a library, with
 * its lock released. Never sleeps; the platform's answer changes nothing.
 */
void hook_follow_library(u32 location);

/**
 * Deregister the hooks of a location (1 to 8), or register them again if its
 * library holds rules. The platform's last answer, or 0 when there was nothing
 * to do. The next change of the library brings the hooks in line with it again.
 * Never sleeps.
 */
int hook_switch(u32 location, bool away);

} // namespace mox
