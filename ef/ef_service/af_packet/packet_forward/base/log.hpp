// SPDX-License-Identifier: GPL-2.0-only
/*
 * The module's log lines. All go through mox_printk; most are debug lines,
 * tagged with the CPU that prints and printed only while the general debug
 * switch is on.
 */
#pragma once

#include "platform.h"
#include "base/sync.hpp"

/* printk's level markers: the byte 1 and a digit. */
#define MOX_KERN_EMERG "\0010"
#define MOX_KERN_ERR "\0013"
#define MOX_KERN_INFO "\0016"

extern "C" {
/**
 * Debug switches. Byte 0 is the general one. Bytes 1 to 8, by location number,
 * also gate the copy thread's own lines. The others, of the packet paths, gate nothing
 * and exist because operators set them: there, only the platform's trace mark prints.
 */
extern u8 mox_packet_debug[MOX_DEBUG_RECEIVE_ALL + 1];
}

namespace mox {

/** The general debug switch. */
inline bool debug_on()
{
	return load(mox_packet_debug[0]) != 0;
}

} // namespace mox

/** A tagged line, whatever the switches say: for frames with the platform's trace mark. */
#define MOX_TRACE(format, ...) \
	mox_printk("[MOX-PACKET(%d)]: " format, seam_cpu() __VA_OPT__(, ) __VA_ARGS__)

/** A tagged line while the general debug switch is on. */
#define MOX_DEBUG(format, ...)                                        \
	do {                                                          \
		if (mox::debug_on())                                  \
			MOX_TRACE(format __VA_OPT__(, ) __VA_ARGS__); \
	} while (0)
