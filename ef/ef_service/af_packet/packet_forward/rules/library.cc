// SPDX-License-Identifier: GPL-2.0
/*
 * A library indexes each rule in its filter list: under the values of one item
 * of the rule, the key item, stands a match copy with the rule's other items,
 * so that a packet is looked up by key first. A rule whose copy or key could
 * not be allocated stays counted and listed, with fewer keys.
 */
#include "rules/library.hpp"

#include "base/log.hpp"
#include "rules/edit.hpp"
#include "rules/ranges.hpp"

namespace mox {
namespace {

/** The link after which a new fetch rule goes: the last of the leading run of traps, or the head. */
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

/**
 * Put the rule at its treatment's place among the library's rules. A value
 * beyond the known treatments goes where a fetch rule would.
 */
void place_in_regulars(packet_regular *regular, list_head *head)
{
	switch (regular->treatment) {
	case PACKET_FETCH_LOCAL:
	case PACKET_TRAP:
		mox_packet_list_ins_head_safe(&regular->lib_node, head);
		break;
	case PACKET_COPY:
	case PACKET_COPY_LOCAL:
	case PACKET_TREATMENT_NONE:
		mox_packet_list_add_tail_safe(&regular->lib_node, head);
		break;
	default:
		mox_packet_list_ins_head_safe(&regular->lib_node, behind_traps(head));
		break;
	}
}

void place_in_entry(packet_regular *copy, filter_list_data *entry)
{
	switch (copy->treatment) {
	case PACKET_COPY:
		mox_packet_list_add_tail_safe(&copy->lib_node, &entry->match_list);
		break;
	case PACKET_TRAP:
		mox_packet_list_ins_head_safe(&copy->lib_node, &entry->match_list);
		break;
	case PACKET_FETCH:
		mox_packet_list_ins_head_safe(&copy->lib_node, behind_traps(&entry->match_list));
		break;
	case PACKET_COPY_LOCAL:
		mox_packet_list_add_tail_safe(&copy->lib_node, &entry->local_match_list);
		break;
	case PACKET_FETCH_LOCAL:
		mox_packet_list_ins_head_safe(&copy->lib_node, &entry->local_match_list);
		break;
	default:
		/* Only indexed treatments are filed. */
		break;
	}
}

/** Copy an item; data and items for which there is no memory are left out. */
void copy_item(const regular_item *from, packet_regular *copy)
{
	regular_item *item = mox_packet_alloc_init_item(from->type);
	if (!item) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc item failed\n");
		return;
	}
	for (const regular_data *datum : datas_of(from)) {
		OwnedData data = make_data(datum->type, datum->value, sizeof(datum->value));
		if (!data) {
			MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc data fail\n");
			continue;
		}
		mox_packet_add_data_to_item(data.release(), item);
	}
	mox_packet_add_item_to_regular(item, copy);
}

/**
 * File a copy of the rule under a key, making the key's entry when there is
 * none. False without memory for the entry.
 */
bool file_under(const packet_regular *regular, u32 type, const void *value, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->lock)
{
	filter_list_data *entry = pkt_search_data_from_filter_list(type, value, lib);
	if (entry) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-FILTER-LIST: same regular data\n");
	} else {
		entry = pkt_add_new_filter_data(type, value, lib);
		if (!entry) {
			MOX_DEBUG("PKT-ADD-REGULAR-TO-FILTER-LIST: add fail, continue!\n");
			return false;
		}
	}
	pkt_add_regular_to_match_list(regular, entry);
	return true;
}

/** Choose the rule's key item and file the rule under each of its values. */
void index_regular(const packet_regular *regular, packet_regular_lib *lib) SEAM_REQUIRES(lib->lock)
{
	for (const regular_item *item : items_of(regular)) {
		if (mox_packet_item_empty(item)) {
			if (file_under(regular, item->type, nullptr, lib))
				return;
			continue;
		}
		if (!type_is_key(item->type))
			continue;
		for (const regular_data *datum : datas_of(item))
			file_under(regular, datum->type, datum->value, lib);
		return;
	}
}

void add_to_library(packet_regular *regular, packet_regular_lib *lib)
{
	WriteGuard guard(&lib->lock);

	for (packet_regular *listed : regulars_of(&lib->regulars)) {
		if (listed == regular) {
			/* No line end: operators' filters know the line as it is. */
			MOX_DEBUG("MOX-PACKET-INSERT-REGULAR: pid %d repeat set regular error",
				  regular->owner ? regular->owner->pid : 0);
			return;
		}
	}
	lib->regular_count++;
	place_in_regulars(regular, &lib->regulars);
	if (treatment_indexed(regular->treatment))
		index_regular(regular, lib);
}

/* The texts of a withdrawal, which differ for keys with and without a value. */
struct WithdrawalTexts {
	const char *shared;      /* another rule carries the key */
	const char *shared_copy; /* for each copy of this owner */
	const char *last;        /* no other rule does */
	const char *last_copy;   /* for each copy in the departing treatment's list */
};

constexpr WithdrawalTexts kItemTexts = {
	"PKT-DEL-REGULAR-FROM-FILTER-LIST: same item in lib\n",
	"PKT-DEL-REGULAR-FROM-FILTER-LIST: same item data in match list, del\n",
	"PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, del\n",
	"PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, empty match list\n",
};

constexpr WithdrawalTexts kDataTexts = {
	"PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in lib\n",
	"PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in match list, del\n",
	"PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, del\n",
	"PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, empty match list\n",
};

list_head *copies_of(filter_list_data *entry, u32 treatment)
{
	return treatment_local(treatment) ? &entry->local_match_list : &entry->match_list;
}

void free_copy(packet_regular *copy)
{
	mox_packet_list_del_safe(&copy->lib_node);
	pkt_free_regular_data(copy);
}

/** Take the rule's copies from under a key; the key goes with its last rule. */
void withdraw_key(const packet_regular *regular, u32 type, const void *value, bool shared,
		  const WithdrawalTexts &texts, packet_regular_lib *lib) SEAM_REQUIRES(lib->lock)
{
	if (shared)
		MOX_DEBUG("%s", texts.shared);
	filter_list_data *entry = pkt_search_data_from_filter_list(type, value, lib);
	if (!entry)
		return;
	list_head *copies = copies_of(entry, regular->treatment);
	if (shared) {
		for (packet_regular *copy : regulars_of(copies)) {
			if (copy->owner != regular->owner)
				continue;
			MOX_DEBUG("%s", texts.shared_copy);
			free_copy(copy);
		}
		return;
	}
	MOX_DEBUG("%s", texts.last);
	pkt_del_filter_list_data(entry);
	for (packet_regular *copy : regulars_of(copies)) {
		MOX_DEBUG("%s", texts.last_copy);
		free_copy(copy);
	}
	pkt_free_filter_list_data(entry);
	lib->filter_count--;
}

void remove_from_library(packet_regular *regular, packet_regular_lib *lib)
{
	WriteGuard guard(&lib->lock);

	/* The caller's running flag guarantees that the rule is listed. */
	lib->regular_count--;
	mox_packet_list_del_safe(&regular->lib_node);
	list_init(&regular->lib_node);
	for (const regular_item *item : items_of(regular)) {
		if (mox_packet_item_empty(item)) {
			withdraw_key(regular, item->type, nullptr,
				     pkt_search_item_in_regular_lib(item, lib) != nullptr,
				     kItemTexts, lib);
			continue;
		}
		if (!type_is_key(item->type))
			continue;
		for (const regular_data *datum : datas_of(item))
			withdraw_key(regular, datum->type, datum->value,
				     pkt_search_data_in_regular_lib(datum, lib) != nullptr,
				     kDataTexts, lib);
	}
}

} // namespace

} // namespace mox

using namespace mox;

extern "C" {

filter_list_data *pkt_add_new_filter_data(u32 type, const void *value, packet_regular_lib *lib)
{
	filter_list_data *entry = pkt_alloc_filter_list_data(type, value);
	if (!entry)
		return nullptr;
	list_head *after = &lib->filter_list;
	for (filter_list_data *listed : entries_of(&lib->filter_list)) {
		if (listed->type > type)
			break;
		after = &listed->node;
	}
	mox_packet_list_ins_head_safe(&entry->node, after);
	lib->filter_count++;
	return entry;
}

void pkt_add_regular_to_match_list(const packet_regular *regular, filter_list_data *entry)
{
	packet_regular *copy = pkt_alloc_regular_data();
	if (!copy) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc regular failed\n");
		return;
	}
	copy->owner = regular->owner;
	copy->treatment = regular->treatment;
	copy->location = regular->location;
	bool key_seen = false;
	for (const regular_item *item : items_of(regular)) {
		if (type_is_key(item->type) && !key_seen) {
			key_seen = true; /* the entry's key replaces it */
			continue;
		}
		copy_item(item, copy);
	}
	place_in_entry(copy, entry);
}

filter_list_data *pkt_search_data_from_filter_list(u32 type, const void *value,
						   packet_regular_lib *lib)
{
	for (filter_list_data *entry : entries_of(&lib->filter_list))
		if (entry->type == type && pkt_regular_data_match(type, entry->value, value))
			return entry;
	return nullptr;
}

const regular_item *pkt_search_item_in_regular_lib(const regular_item *item,
						   const packet_regular_lib *lib)
{
	for (const packet_regular *regular : regulars_of(&lib->regulars)) {
		if (!treatment_indexed(regular->treatment))
			continue;
		if (const regular_item *held = find_item(item->type, regular))
			return held;
	}
	return nullptr;
}

const regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
						   const packet_regular_lib *lib)
{
	for (const packet_regular *regular : regulars_of(&lib->regulars)) {
		if (!treatment_indexed(regular->treatment))
			continue;
		const regular_item *item = find_item(data->type, regular);
		if (!item)
			continue;
		if (const regular_data *held = find_data(data, item))
			return held;
	}
	return nullptr;
}

void mox_packet_insert_regular(packet_regular *regular, packet_regular_lib *lib, u32 add)
{
	if (add)
		add_to_library(regular, lib);
	else
		remove_from_library(regular, lib);
}
} // extern "C"
