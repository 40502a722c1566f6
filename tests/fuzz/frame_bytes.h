// SPDX-License-Identifier: GPL-2.0-only
// Frames with headers that fit each other, changed in a few bytes, and filters and traces that are
// about such a frame, or miss it by one byte.
#pragma once

#include "input.h"
#include "oracle/frames.h"

namespace fuzz {

struct Frame {
	oracle::Meta meta;
	oracle::Bytes bytes;
};

Frame any_frame(Input &input);
// The operators' filter, as the body of a request.
oracle::Bytes filter_on(Input &input, const Frame &frame);
// Attributes of a trace.
oracle::Bytes trace_of(Input &input, const Frame &frame, uint32_t location);
// One attribute, as netlink has it.
oracle::Bytes attribute_of(uint16_t type, const oracle::Bytes &payload);

} // namespace fuzz
