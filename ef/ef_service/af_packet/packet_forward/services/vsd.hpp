// SPDX-License-Identifier: GPL-2.0-only
/* The virtual switch device (vsd) of the calling process, as its working directory names it. */
#pragma once

#include "seam/seam.h"

extern "C" {
/**
 * Render the working directory, with its NUL, at the start of a buffer of 4096 bytes.
 * Returns 0, always: a path that does not fit or cannot be rendered leaves an
 * empty text, which is no vsd's path. Process.
 */
int simple_getcwd(char *buf);
}

namespace mox {

/**
 * The vsd number of the current process: the decimal number behind the vsd
 * prefix of its working directory, 0 anywhere else and for a number that is
 * negative as a signed word. Without memory for the path it logs that and
 * answers 0. Process.
 */
u32 current_vsd();

} // namespace mox
