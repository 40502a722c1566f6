/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_request.h"

#include "capture_sets.h"
#include "netlink_message.h"

namespace moxctl {

void CaptureRequest::add(mox_capture_request_attr attribute, std::uint64_t value)
{
	const AttributeRow &row = attributes_of(Set::kRequest)[attribute - 1];
	std::size_t width = width_of(row.kind);
	if (width < sizeof(value) && value >> (8 * width) != 0)
		throw Failure("the request's " + lower_name(row.name) + " does not hold " +
			      std::to_string(value));
	// Host byte order on either kind of machine.
	std::uint8_t bytes[sizeof(value)];
	for (std::size_t i = 0; i < width; ++i) {
		std::size_t place = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? i : width - 1 - i;
		bytes[place] = static_cast<std::uint8_t>(value >> (8 * i));
	}
	append_attribute(attributes_, attribute, { bytes, width });
}

void CaptureRequest::add(mox_capture_request_attr attribute, std::span<const std::uint8_t> bytes)
{
	append_attribute(attributes_, attribute, bytes);
}

} // namespace moxctl
