// SPDX-License-Identifier: GPL-2.0-only
/* The capture sockets in the kernel's socket diagnosis: ss -0. */
#pragma once

#include "seam/seam_capture.h"

namespace mox {

/**
 * Register, once, for family 17, which ends the automatic loading of the kernel's own
 * handler. When that is there already, ss lists no capture sockets, and nothing else
 * changes. Process.
 */
void diag_init();
void diag_deinit();
/** Whether it is registered. Any. */
bool diag_up();

} // namespace mox
