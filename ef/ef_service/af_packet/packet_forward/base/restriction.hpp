// SPDX-License-Identifier: GPL-2.0-only
/*
 * The restriction that an administrator may put in force: whoever opens a capture socket
 * needs CAP_NET_RAW from then on, and whoever uses PACKET_GENL CAP_NET_ADMIN, both in
 * the initial user namespace. Off when the module is loaded.
 */
#pragma once

namespace mox {

/** Any. */
void restriction_set(bool on);
bool restriction_on();

} // namespace mox
