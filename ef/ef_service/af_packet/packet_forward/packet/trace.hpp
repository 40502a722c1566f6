// SPDX-License-Identifier: GPL-2.0-only
/*
 * The trace lines that a packet with the platform's trace mark leaves at every
 * hook and at every delivery, whatever the debug switches are.
 */
#pragma once

#include "packet/info.hpp"

namespace mox {

/** Where a packet is traced: "RCV" or "FW" in its lines. */
enum class TraceTag { kReceive, kForward };

/** Print the layer-2 and layer-3 trace lines of a packet. Any context. */
void trace_packet(const pkt_info &info, TraceTag tag);
/** Print the trace lines of a packet at the WLAN location. Any context. */
void trace_wlan_packet(const void *efbuff, TraceTag tag);

} // namespace mox
