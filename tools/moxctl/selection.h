/* SPDX-License-Identifier: GPL-2.0-only */
/* Which entries a report has. */
#ifndef MOXCTL_SELECTION_H
#define MOXCTL_SELECTION_H

#include <cstdint>
#include <optional>

namespace moxctl {

/** An entry has to satisfy everything that is given. */
struct Selection {
	std::uint32_t location = 0; /**< enum mox_packet_location; 0: all */
	std::optional<std::uint32_t> pid = {};
	std::optional<std::uint64_t> cookie = {};

	bool empty() const { return location == 0 && !pid && !cookie; }
};

} // namespace moxctl

#endif
