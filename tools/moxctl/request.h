/* SPDX-License-Identifier: GPL-2.0-only */
/* The requests of a command, as bytes. */
#ifndef MOXCTL_REQUEST_H
#define MOXCTL_REQUEST_H

#include "options.h"

#include <cstdint>
#include <vector>

namespace moxctl {

/** Payload of the request's attribute: a struct mox_packet_request, cut behind the body that its type has. */
using Request = std::vector<std::uint8_t>;

/** The requests of a command, in the order in which to send them; at least one. */
std::vector<Request> requests_of(const Options &options);

} // namespace moxctl

#endif
