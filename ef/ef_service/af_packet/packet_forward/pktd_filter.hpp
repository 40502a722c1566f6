// SPDX-License-Identifier: GPL-2.0
/*
 * The debug packet filter: which packets the operator who traces is after. It
 * changes no packet's fate and takes no lock.
 */
#pragma once

#include "log.hpp"
#include "receive.hpp"

extern "C" {
/**
 * The filter in force; all zero at load. vid is stored as a packet's tag word
 * is: VLAN id, with the vsd of the process that set it in the top four bits,
 * big-endian. Written word by word while receive paths read it: a packet of
 * that moment may meet a mixture.
 */
extern mox_packet_filter g_pktd_kdbg_filter;

/**
 * Whether a packet has everything that the filter's flags ask for: 1 or 0. The
 * enable byte is the caller's to look at. Any.
 */
int pktd_match_filter_debug(const void *efbuff, const pkt_info *info);
/** Print the fields that take part, while the general debug switch is on. Any. */
void show_pktd_filter_debug(const mox_packet_filter *filter);
}

/** Replace the filter as a whole. Callers are serialised. */
void pktd_filter_store(const mox_packet_filter &filter);

/** Whether the filter, if it is in force, lets the packet pass. */
inline bool pktd_filter_passes(const pkt_info &info)
{
	return load(g_pktd_kdbg_filter.enable) == 0 ||
	       pktd_match_filter_debug(info.efbuff, &info) != 0;
}

/**
 * A packet path's own debug switch. The paths consult it for packets that the
 * platform did not mark and the filter let pass, and print nothing all the
 * same: only the trace mark prints.
 */
inline bool path_switch_on(u32 number)
{
	return load(mox_packet_debug[number]) != 0;
}
