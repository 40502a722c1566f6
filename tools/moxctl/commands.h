/* SPDX-License-Identifier: GPL-2.0-only */
/* Executes a command. */
#ifndef MOXCTL_COMMANDS_H
#define MOXCTL_COMMANDS_H

#include "options.h"
#include "status.h"
#include "world.h"

namespace moxctl {

/** Returns status_ok or status_incomplete; throws Failure. */
Status run_command(const Options &options, const World &world);

} // namespace moxctl

#endif
