/* SPDX-License-Identifier: GPL-2.0-only */
/* Requests to the family "mox_capture". */
#ifndef MOXCTL_CAPTURE_REQUEST_H
#define MOXCTL_CAPTURE_REQUEST_H

#include "mox_capture.h"

#include <cstdint>
#include <span>
#include <vector>

namespace moxctl {

/** The attributes of a request, each once. Widths are those of the header's table. */
class CaptureRequest {
public:
	/** A number; throws Failure for one that the attribute's kind does not hold. */
	void add(mox_capture_request_attr attribute, std::uint64_t value);
	void add(mox_capture_request_attr attribute, std::span<const std::uint8_t> bytes);

	std::span<const std::uint8_t> attributes() const { return attributes_; }

private:
	std::vector<std::uint8_t> attributes_;
};

} // namespace moxctl

#endif
