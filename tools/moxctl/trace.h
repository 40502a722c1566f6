/* SPDX-License-Identifier: GPL-2.0-only */
/* Frames followed through the module. */
#ifndef MOXCTL_TRACE_H
#define MOXCTL_TRACE_H

#include "capture_client.h"
#include "capture_values.h"
#include "options.h"
#include "status.h"
#include "world.h"

#include <string>

namespace moxctl {

/** A trace record as one line without its end. */
std::string trace_line(const Record &record, InterfaceNames &interfaces);

/**
 * Traces frames and prints a line for each record, as JSON with options.json, until options.count records, until
 * options.seconds have passed, or until a signal. Returns status_incomplete when records were lost. Throws Failure.
 */
Status trace(const Options &options, CaptureClient &client, const World &world);

} // namespace moxctl

#endif
