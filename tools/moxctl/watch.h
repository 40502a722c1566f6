/* SPDX-License-Identifier: GPL-2.0-only */
/* Rates of locations and sockets, again and again. */
#ifndef MOXCTL_WATCH_H
#define MOXCTL_WATCH_H

#include "capture_client.h"
#include "options.h"
#include "status.h"
#include "world.h"

namespace moxctl {

/** Sockets that are shown: those with the most matched frames. */
inline constexpr std::size_t kBusiest = 10;

/**
 * Prints frames per second between two samples, every options.interval seconds, options.count times or until a signal:
 * in place on a terminal, one after the other elsewhere, one line of JSON each with options.json. Throws Failure.
 */
Status watch(const Options &options, CaptureClient &client, const World &world);

} // namespace moxctl

#endif
