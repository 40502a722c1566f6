// SPDX-License-Identifier: GPL-2.0-only
#include "rules/places.hpp"

#include "rules/memory.hpp"
#include "rules/ranges.hpp"

namespace mox {
namespace {

packet_regular *regular_of(list_head *lib_node)
{
	return record_of<packet_regular, offsetof(packet_regular, lib_node)>(lib_node);
}

filter_list_data *entry_of(list_head *node)
{
	return record_of<filter_list_data, offsetof(filter_list_data, node)>(node);
}

/**
 * The link after which a new fetch rule goes: the last of the leading run of
 * traps, or the head. A fetch-local rule at the head ends the run, and leaves it
 * as it was when it leaves: the run is looked at anew each time.
 */
list_head *behind_traps(list_head *head)
{
	list_head *at = head;
	for (packet_regular *listed : regulars_of(head)) {
		if (listed->treatment != PACKET_TRAP)
			break;
		at = &listed->lib_node;
	}
	return at;
}

/*
 * The list of rules grows at both ends and after its leading traps: what goes to
 * the head gets a smaller number than all before it, what goes to the tail a greater
 * one, and a fetch rule after a trap the trap's number, with a second one that is
 * smaller than that of older fetch rules after the same trap. 64 bits last for ever.
 */
constexpr u64 kMiddle = 1ull << 62;

rule_place head_place(u64 number)
{
	return { kMiddle - number, 0 };
}

rule_place tail_place(u64 number)
{
	return { kMiddle + number, 0 };
}

rule_place behind_place(const packet_regular *trap, u64 number)
{
	return { trap->place.high, ~number };
}

constexpr u64 kSpan = 1ull << 62;

/** Places in an entry's lists: traps, then fetches, local ones too, newest first, then copies. */
u64 place_among_copies(u32 treatment, u64 number)
{
	switch (treatment) {
	case PACKET_TRAP:
		return kSpan - number;
	case PACKET_FETCH:
	case PACKET_FETCH_LOCAL:
		return 2 * kSpan - number;
	default:
		return 2 * kSpan + number;
	}
}

} // namespace

void place_in_regulars(packet_regular *regular, packet_regular_lib *lib)
{
	list_head *head = &lib->regulars;
	const u64 number = ++lib->rules_entered;
	list_head *at;

	switch (regular->treatment) {
	case PACKET_FETCH_LOCAL:
	case PACKET_TRAP:
		regular->place = head_place(number);
		mox_packet_list_ins_head_safe(&regular->lib_node, head);
		break;
	case PACKET_COPY:
	case PACKET_COPY_LOCAL:
	case PACKET_TREATMENT_NONE:
		regular->place = tail_place(number);
		mox_packet_list_add_tail_safe(&regular->lib_node, head);
		break;
	default:
		at = behind_traps(head);
		regular->place = at == head ? head_place(number)
					    : behind_place(regular_of(at), number);
		mox_packet_list_ins_head_safe(&regular->lib_node, at);
		break;
	}
}

void place_in_entry(packet_regular *copy, u64 number)
{
	filter_list_data *entry = copy->entry;

	copy->place = { place_among_copies(copy->treatment, number), 0 };
	switch (copy->treatment) {
	case PACKET_COPY:
		list_link(&copy->lib_node, entry->match_list.prev);
		break;
	case PACKET_TRAP:
		list_link(&copy->lib_node, &entry->match_list);
		if (!entry->last_trap)
			entry->last_trap = copy;
		break;
	case PACKET_FETCH:
		list_link(&copy->lib_node,
			  entry->last_trap ? &entry->last_trap->lib_node : &entry->match_list);
		break;
	case PACKET_COPY_LOCAL:
		list_link(&copy->lib_node, entry->local_match_list.prev);
		break;
	case PACKET_FETCH_LOCAL:
		list_link(&copy->lib_node, &entry->local_match_list);
		break;
	default:
		break;
	}
}

void leave_entry(packet_regular *copy)
{
	filter_list_data *entry = copy->entry;

	if (entry->last_trap == copy) {
		list_head *before = copy->lib_node.prev;
		entry->last_trap = before == &entry->match_list ? nullptr : regular_of(before);
	}
	list_unlink(&copy->lib_node);
}

void place_in_filter_list(filter_list_data *entry, packet_regular_lib *lib)
{
	list_head *after = &lib->filter_list;

	for (u32 lower = entry->type + 1; lower-- > 0;) {
		if (lib->last_entry[lower]) {
			after = &lib->last_entry[lower]->node;
			break;
		}
	}
	list_link(&entry->node, after);
	entry->place = ++lib->entries_made;
	lib->last_entry[entry->type] = entry;
	lib->filter_count++;
}

void leave_filter_list(filter_list_data *entry, packet_regular_lib *lib)
{
	filter_list_data *&last = lib->last_entry[entry->type];

	if (last == entry) {
		list_head *before = entry->node.prev;
		last = nullptr;
		if (before != &lib->filter_list && entry_of(before)->type == entry->type)
			last = entry_of(before);
	}
	pkt_del_filter_list_data(entry);
	lib->filter_count--;
}

u64 rule_number(const packet_regular *rule)
{
	return rule->place.high > kMiddle ? rule->place.high - kMiddle : 0;
}

u64 copy_number(const packet_regular *copy)
{
	return copy->place.high > 2 * kSpan ? copy->place.high - 2 * kSpan : 0;
}

} // namespace mox
