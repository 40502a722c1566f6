// SPDX-License-Identifier: GPL-2.0-only
/*
 * The debug packet filter: the packets that an operator has chosen to trace.
 * It changes no packet's fate and takes no lock.
 */
#pragma once

#include "base/log.hpp"
#include "packet/info.hpp"

extern "C" {
/**
 * The filter in force; all zero at load. vid is stored as a packet's tag word
 * is: VLAN id, with the vsd of the process that set it in the top four bits,
 * big-endian. Written word by word while receive paths read it: a packet of
 * that moment may be compared with a mixture.
 */
extern mox_packet_filter g_pktd_kdbg_filter;

/**
 * Whether a packet has everything that the filter's flags ask for: 1 or 0. The
 * caller tests the enable byte. Any context.
 */
int pktd_match_filter_debug(const void *efbuff, const pkt_info *info);
/** Print the fields that take part, while the general debug switch is on. Any. */
void show_pktd_filter_debug(const mox_packet_filter *filter);
}

namespace mox {

/** Replace the filter as a whole. Callers are serialised. */
void pktd_filter_store(const mox_packet_filter &filter);

/** Whether the filter is off, or the packet matches it. */
inline bool pktd_filter_passes(const pkt_info &info)
{
	return load(g_pktd_kdbg_filter.enable) == 0 ||
	       pktd_match_filter_debug(info.efbuff, &info) != 0;
}

} // namespace mox
