// SPDX-License-Identifier: GPL-2.0-only
/*
 * A rule in reports. The rule stands still: the socket lock is held, or the change
 * lock of its library. A rule with many values is printed in parts.
 */
#pragma once

#include "seam/seam.h"

extern "C" {
/** The lines for every type of a rule, its location and its treatment. No lock but a mutex; process. */
void mox_packet_dump_regular(const packet_regular *regular);
/** The line for a rule type, and the one for a value of it. Any context. */
void mox_packet_dump_regular_type(u32 type);
void mox_packet_dump_regular_data(u32 type, const u8 *value);
}

namespace mox {

/** Where the report of a rule goes on: at its begin, at first. A null rule is none. */
struct RulePosition {
	explicit RulePosition(const packet_regular *regular);

	const list_head *item;  /* the next item */
	const list_head *datum; /* its next datum; null: the item has not begun */
};

/*
 * Print the items of a socket's rule, or of a match copy, from a position on. False,
 * and the position moved, when the page is full or many lines were printed; true at
 * the end.
 */
bool dump_rule_items(const packet_regular *regular, RulePosition *at);
bool dump_copy_items(const packet_regular *copy, RulePosition *at);
/** The two lines behind the items of a socket's rule. Any context. */
void dump_rule_end(const packet_regular *regular);

} // namespace mox
