// SPDX-License-Identifier: GPL-2.0
/*
 * Entering a rule in its location's library and withdrawing it.
 *
 * A library indexes each rule in its filter list: under the values of one item
 * of the rule, the key item, stands a match copy with the rule's other items,
 * so that a packet is looked up by key first. A rule whose copy or key could
 * not be allocated stays counted and listed, with fewer keys.
 */
#include "hooks.hpp"
#include "list.hpp"
#include "log.hpp"
#include "regular.hpp"

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

/** Copy an item with what of its data can be had. */
void copy_item(const regular_item *from, packet_regular *copy)
{
	regular_item *item = mox_packet_alloc_init_item(from->type);
	if (!item) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc item failed\n");
		return;
	}
	for (regular_data *datum : datas_of(from)) {
		regular_data *data = mox_packet_alloc_init_data(datum->type);
		if (!data) {
			MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc data fail\n");
			continue;
		}
		__builtin_memcpy(data->value, datum->value, sizeof(data->value));
		mox_packet_add_data_to_item(data, item);
	}
	mox_packet_add_item_to_regular(item, copy);
}

/**
 * File a copy of the rule under a key, making the key's entry when there is
 * none. False when the entry cannot be had.
 */
bool file_under(const packet_regular *regular, u32 type, const void *value,
		packet_regular_lib *lib) SEAM_REQUIRES(lib->lock)
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
	for (regular_item *item : items_of(regular)) {
		if (mox_packet_item_empty(item)) {
			if (file_under(regular, item->type, nullptr, lib))
				return;
			continue;
		}
		/* Names the owner, not the packet: never a key. */
		if (item->type == PACKET_PID_T)
			continue;
		for (regular_data *datum : datas_of(item))
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

	/* That the rule is listed is what the caller's running flag says. */
	lib->regular_count--;
	mox_packet_list_del_safe(&regular->lib_node);
	list_init(&regular->lib_node);
	for (regular_item *item : items_of(regular)) {
		if (mox_packet_item_empty(item)) {
			withdraw_key(regular, item->type, nullptr,
				     pkt_search_item_in_regular_lib(item, lib) != nullptr,
				     kItemTexts, lib);
			continue;
		}
		if (item->type == PACKET_PID_T)
			continue;
		for (regular_data *datum : datas_of(item))
			withdraw_key(regular, datum->type, datum->value,
				     pkt_search_data_in_regular_lib(datum, lib) != nullptr,
				     kDataTexts, lib);
	}
}

} // namespace

packet_regular_lib *location_library(u32 location)
{
	switch (location) {
	case PACKET_LOCAL_LOC:
		return &g_local_packet_regular_lib;
	case PACKET_LEV2_LOC:
		return &g_lev2_packet_regular_lib;
	case PACKET_IPv4_LOC:
		return &g_ipv4_packet_regular_lib;
	case PACKET_IPv6_LOC:
		return &g_ipv6_packet_regular_lib;
	case PACKET_MPLS_LOC:
		return &g_mpls_packet_regular_lib;
	case PACKET_TRILL_LOC:
		return &g_trill_packet_regular_lib;
	case PACKET_RESV_LOC:
	case PACKET_LEV2_RESV_LOC:
	case PACKET_LEV3_RESV_LOC:
		return &g_resv_packet_regular_lib;
	case PACKET_WLAN_LOC:
		return &g_wlan_packet_regular_lib;
	default:
		return nullptr;
	}
}

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
	for (regular_item *item : items_of(regular)) {
		if (item->type != PACKET_PID_T && !key_seen) {
			key_seen = true; /* the entry's key stands for it */
			continue;
		}
		copy_item(item, copy);
	}
	place_in_entry(copy, entry);
}

filter_list_data *pkt_search_data_from_filter_list(u32 type, const void *value,
						   const packet_regular_lib *lib)
{
	for (filter_list_data *entry : entries_of(&lib->filter_list))
		if (entry->type == type && pkt_regular_data_match(type, entry->value, value))
			return entry;
	return nullptr;
}

regular_item *pkt_search_item_in_regular_lib(const regular_item *item,
					     const packet_regular_lib *lib)
{
	for (packet_regular *regular : regulars_of(&lib->regulars)) {
		if (!treatment_indexed(regular->treatment))
			continue;
		if (regular_item *held = mox_packet_search_item_from_regular(item->type, regular))
			return held;
	}
	return nullptr;
}

regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
					     const packet_regular_lib *lib)
{
	for (packet_regular *regular : regulars_of(&lib->regulars)) {
		if (!treatment_indexed(regular->treatment))
			continue;
		regular_item *item = mox_packet_search_item_from_regular(data->type, regular);
		if (!item)
			continue;
		if (regular_data *held = mox_packet_search_data_from_item(data, item))
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

int mox_packet_handle_regular(packet_regular *regular, u32 add)
{
	u32 location = regular->location;
	packet_regular_lib *lib = location_library(location);
	if (!lib) {
		MOX_DEBUG("MOX-PACKET-HANDLE-REGULAR: location illegal!\n");
		return -1;
	}
	mox_packet_insert_regular(regular, lib, add);
	hook_follow_library(location, lib);
	return 0;
}

int mox_packet_add_regular(packet_regular *regular)
{
	return mox_packet_handle_regular(regular, 1);
}

int mox_packet_remove_regular(packet_regular *regular)
{
	return mox_packet_handle_regular(regular, 0);
}
} // extern "C"
