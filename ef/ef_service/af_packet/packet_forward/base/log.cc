// SPDX-License-Identifier: GPL-2.0-only
#include "base/log.hpp"

extern "C" {
constinit u8 mox_packet_debug[MOX_DEBUG_RECEIVE_ALL + 1]{};
}

static_assert(sizeof(mox_packet_debug) == 19);
