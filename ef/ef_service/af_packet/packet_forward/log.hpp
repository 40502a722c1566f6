// SPDX-License-Identifier: GPL-2.0
/*
 * The module's log lines. All go through mox_printk; most are debug lines,
 * tagged with the CPU that prints and printed only while the general debug
 * switch is on.
 */
#pragma once

#include "platform.h"
#include "sync.hpp"

/* Level markers as printk knows them. */
#define MOX_KERN_EMERG "\001" "0"
#define MOX_KERN_ERR "\001" "3"
#define MOX_KERN_INFO "\001" "6"

extern "C" {
/**
 * Debug switches. Byte 0 is the general one. Bytes 1 to 8, by location number,
 * also gate the copy thread's own lines; the others gate nothing and are kept
 * because operators set them.
 */
extern u8 mox_packet_debug[19];
}

/** The general debug switch. */
inline bool debug_on()
{
	return load(mox_packet_debug[0]) != 0;
}

/** A tagged line, whatever the switches say: for frames with the platform's trace mark. */
#define MOX_TRACE(format, ...) \
	mox_printk("[MOX-PACKET(%d)]: " format, seam_cpu() __VA_OPT__(, ) __VA_ARGS__)

/** A tagged line while the general debug switch is on. */
#define MOX_DEBUG(format, ...)                                 \
	do {                                                   \
		if (debug_on())                                \
			MOX_TRACE(format __VA_OPT__(, ) __VA_ARGS__); \
	} while (0)
