// SPDX-License-Identifier: GPL-2.0-only
// The shapes that many rules have in the receive rounds: what tells one rule from the next, and what all share.
#pragma once

#include <vector>

#include "bench_support.hpp"

namespace bench {

struct Frame {
	moxlab::Bytes bytes;
	uint32_t source; ///< interface index
};

struct Shape {
	const char *name;
	/// The items of rule number i, in the order in which they are added: the first is the key.
	std::vector<Item> (*items)(unsigned i);
	/// The frame that rule number i alone asks for.
	Frame (*wanted)(unsigned i);
	/// A frame that no rule asks for, although it has what all rules share.
	Frame (*unwanted)();
};

extern const std::vector<Shape> kShapes;

/// Rules that share everything that a frame could be looked up by. Only with unwanted frames.
extern const std::vector<Shape> kHurting;
/// The shape of those that hurts most.
const Shape &hurting_most();

/// Rules of 14 types, so many of each: every type that has values.
extern const Shape kAllTypes;
constexpr unsigned kAllTypesCount = 14, kOfEachType = 73;

/// Interface indexes of the frames: the usual one, and the one of rule number i.
constexpr uint32_t kSource = 60000;
uint32_t own_interface(unsigned i);

Item value16(uint16_t type, uint16_t value); ///< in network order

} // namespace bench
