/* SPDX-License-Identifier: GPL-2.0-only */
/* The debug packet filter from the words of a command line. */
#ifndef MOXCTL_FILTER_OPTIONS_H
#define MOXCTL_FILTER_OPTIONS_H

#include "mox/values.h"
#include "mox_packet.h"

#include <string>

namespace moxctl {

/** The criteria as typed; empty: not given. */
struct FilterWords {
	std::string vlan, src_mac, dst_mac, src_if, dst_if, src_ip, dst_ip;
	bool every_packet = false;
};

/**
 * A filter that is in force and matches packets that satisfy every criterion. lookup resolves interface names. Throws
 * UsageError for a value that is not valid, for addresses of two IP versions, and when neither a criterion nor
 * every_packet is given.
 */
mox_packet_filter make_filter(const FilterWords &words, const mox::InterfaceLookup &lookup);

} // namespace moxctl

#endif
