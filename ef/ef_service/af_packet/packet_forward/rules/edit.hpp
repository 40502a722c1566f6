// SPDX-License-Identifier: GPL-2.0-only
/*
 * Editing a rule: equality of values, and adding and removing values. No lock
 * is taken: a rule is edited only while it is out of its library.
 */
#pragma once

#include "rules/memory.hpp"

extern "C" {
/**
 * Whether two values of a rule type are equal. The types without a value are
 * equal to anything, null included; otherwise null equals nothing. Any.
 */
bool pkt_regular_data_match(u32 type, const void *one, const void *other);

/** The rule's first item of a type, or null. */
regular_item *mox_packet_search_item_from_regular(u32 type, packet_regular *regular);
/** The item's first datum that equals data, or null. */
regular_data *mox_packet_search_data_from_item(const regular_data *data, regular_item *item);
/** Append. */
void mox_packet_add_item_to_regular(regular_item *item, packet_regular *regular);
void mox_packet_add_data_to_item(regular_data *data, regular_item *item);

/**
 * Give the rule a value. 0: the datum is the rule's, or was freed because the
 * rule holds an equal one; -ENOMEM: the datum is still the caller's.
 */
int mox_packet_add_data_to_regular(regular_data *data, packet_regular *regular);
/** Take the equal value out of the rule, if it is there; data stays the caller's. */
void mox_packet_del_data_from_regular(const regular_data *data, packet_regular *regular);
}

namespace mox {

/** Take the equal value out of the rule: it is the caller's. Null if it is not there. */
regular_data *take_data(const regular_data *data, packet_regular *regular);

/** mox_packet_add_data_to_regular, which takes the datum over. 0 or -ENOMEM. */
int add_data(OwnedData data, packet_regular *regular);

} // namespace mox
