// SPDX-License-Identifier: GPL-2.0
/*
 * Hook registration: which receive functions the platform calls. A location's
 * hooks are registered while its library holds a rule.
 */
#pragma once

#include "platform.h"
#include "regular.hpp"

/** A receiver that the platform calls through a module record. */
struct packet_module {
	u8 registered; /* under the hook lock */
	const char *name;
	platform::descriptor descriptor;
};

extern "C" {
extern packet_module g_lev2_packet_module;
extern packet_module g_ipv4_packet_module;
extern packet_module g_ipv6_packet_module;
extern packet_module g_wlan_packet_module;

/**
 * Register a module record, unless it is. 0, or the platform's own value after
 * a log line. Never sleeps; the hook lock is held.
 */
int mox_packet_reg_module(packet_module *module);
/** Deregister a module record, if it is registered. Never sleeps; the hook lock is held. */
void mox_packet_dereg_module(packet_module *module);
/* The platform's multicast lists are not this module's affair: both do nothing. */
void mox_packet_flush_input_mclist(void);
void mox_packet_flush_output_mclist(void);
}

/** Make the hook lock ready for use. */
void hook_lock_init();

/**
 * Bring the hooks of a location (1 to 10) in line with its library: registered
 * while the library holds rules. Called after every change of a library, with
 * its lock released. Never sleeps; what the platform answers changes nothing.
 */
void hook_follow_library(u32 location, packet_regular_lib *lib);

/**
 * Take the hooks of a location (1 to 8) away, or put them back if its library
 * holds rules. The platform's last answer, or 0 when nothing was to do. The
 * next change of the library brings the hooks in line with it again. Never sleeps.
 */
int hook_switch(u32 location, packet_regular_lib *lib, bool away);
