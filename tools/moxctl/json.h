/* SPDX-License-Identifier: GPL-2.0-only */
/* Reports as JSON. */
#ifndef MOXCTL_JSON_H
#define MOXCTL_JSON_H

#include "report.h"

#include <string>

namespace moxctl {

/**
 * One JSON object and a line end. kind is the ReportKind asked for; "complete" and "problems" say whether anything is
 * missing. Values are typed: numbers where the report prints decimals. ARP operations, which the report prints with
 * their bytes swapped, are put right, and attribute words are unsigned.
 */
std::string to_json(const Report &report, unsigned kind);

} // namespace moxctl

#endif
