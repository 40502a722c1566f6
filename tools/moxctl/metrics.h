/* SPDX-License-Identifier: GPL-2.0-only */
/* Counters as OpenMetrics text. */
#ifndef MOXCTL_METRICS_H
#define MOXCTL_METRICS_H

#include "capture_client.h"
#include "options.h"
#include "status.h"
#include "world.h"

namespace moxctl {

/** Sockets with series of their own; the others are summed up, so that the labels' cardinality has a bound. */
inline constexpr std::size_t kMostSeries = 1000;

/**
 * Prints everything that the module counts, or replaces the file options.output. The text is valid OpenMetrics and valid
 * in the older format of Prometheus, which a node exporter reads. The two name the TYPE of a counter differently, so
 * counters have none. Throws Failure; then the file stays as it was.
 */
Status print_metrics(const Options &options, CaptureClient &client, const World &world);

} // namespace moxctl

#endif
