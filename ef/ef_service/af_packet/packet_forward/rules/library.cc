// SPDX-License-Identifier: GPL-2.0-only
/*
 * A library indexes each rule in its filter list: under the values of one item
 * of the rule, the key item, stands a match copy with the rule's other items,
 * so that a packet is looked up by key first. A rule whose copy or key could
 * not be allocated stays counted and listed, with fewer keys.
 */
#include "rules/library.hpp"

#include "base/log.hpp"
#include "rules/edit.hpp"
#include "rules/index.hpp"
#include "rules/pauses.hpp"
#include "rules/places.hpp"
#include "rules/ranges.hpp"
#include "rules/values.hpp"

namespace mox {
namespace {

/** Copy an item; data and items for which there is no memory are left out. */
void copy_item(const regular_item *from, packet_regular *copy)
{
	Pauses pauses;
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
		pauses.step();
	}
	mox_packet_add_item_to_regular(item, copy);
}

/** A match copy of the rule, not linked anywhere; null without memory for it. */
packet_regular *copy_rule(const packet_regular *regular)
{
	packet_regular *copy = pkt_alloc_regular_data();
	if (!copy) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-MATCH-LIST: alloc regular failed\n");
		return nullptr;
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
	return copy;
}

/**
 * File a copy of the rule under a key, where hooks find it. filed is where the
 * rule keeps its copy, or null. Nothing without memory.
 */
void file_copy(const packet_regular *regular, filter_list_data *entry, packet_regular **filed,
	       CopyAnchors &anchors, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	packet_regular *copy = copy_rule(regular);
	if (!copy)
		return;
	copy->entry = entry;
	copy->filed_at = filed;
	if (filed)
		*filed = copy;
	place_in_entry(copy, lib->rules_entered);
	anchors.enter_copy(copy);
}

/** Whether values of a type are compared; all values of the others are equal. */
bool type_has_value(u32 type)
{
	const RuleType *row = rule_type(type);

	return !row || row->has_value();
}

/**
 * The entry for a value of which datum stands for all in the library; null for an
 * item without data.
 */
filter_list_data *find_entry(u32 type, const void *value, const regular_data *datum,
			     packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	/* All values of such a type are equal: it has one entry at most. */
	if (!type_has_value(type))
		return lib->last_entry[type];
	if (lib->nameless != 0)
		return pkt_search_data_from_filter_list(type, value, lib);
	return datum ? datum->entry : nullptr;
}

/**
 * File a copy of the rule under a key, making the key's entry when there is
 * none. datum stands for the key's value in the library, filed is where the rule
 * keeps its copy. False without memory for the entry.
 */
bool file_under(const packet_regular *regular, u32 type, const void *value, regular_data *datum,
		packet_regular **filed, CopyAnchors &anchors, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	filter_list_data *entry = find_entry(type, value, datum, lib);
	if (entry) {
		MOX_DEBUG("PKT-ADD-REGULAR-TO-FILTER-LIST: same regular data\n");
	} else {
		entry = pkt_add_new_filter_data(type, value, lib);
		if (!entry) {
			MOX_DEBUG("PKT-ADD-REGULAR-TO-FILTER-LIST: add fail, continue!\n");
			return false;
		}
		if (datum)
			datum->entry = entry;
	}
	file_copy(regular, entry, filed, anchors, lib);
	return true;
}

/** Enter the data of the key item, and file the rule under each of them. */
void file_under_values(packet_regular *regular, regular_item *item, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	CopyAnchors anchors(lib);
	Pauses pauses;

	library_values_enter(item, lib);
	for (regular_data *datum : datas_of(item)) {
		file_under(regular, datum->type, datum->value, library_value_of(datum, lib),
			   &datum->filed, anchors, lib);
		pauses.step();
	}
}

/**
 * Enter the rule's items and values, choose its key item, and file the rule under
 * each of that item's values.
 */
void index_regular(packet_regular *regular, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	bool filed = false;

	for (regular_item *item : items_of(regular)) {
		list_link(&item->lib_node, &lib->items[item->type]);
		if (mox_packet_item_empty(item)) {
			if (filed)
				continue;
			CopyAnchors anchors(lib);
			filed = file_under(regular, item->type, nullptr, nullptr, &regular->filed,
					   anchors, lib);
		} else if (filed || !type_is_key(item->type)) {
			library_values_enter(item, lib);
		} else {
			file_under_values(regular, item, lib);
			filed = true;
		}
	}
}

void add_to_library(packet_regular *regular, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	if (!list_empty(&regular->lib_node)) {
		/* No line end: operators' filters know the line as it is. */
		MOX_DEBUG("MOX-PACKET-INSERT-REGULAR: pid %d repeat set regular error",
			  regular->owner ? regular->owner->pid : 0);
		return;
	}
	store(lib->regular_count, lib->regular_count + 1);
	place_in_regulars(regular, lib);
	/* Delivery before hooks: no frame may be taken that no socket is found for. */
	index_enter_rule(regular, lib);
	if (!treatment_indexed(regular->treatment))
		return;
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

/** Move the reports that are at a link of a list of this kind, which leaves it, to the next one. */
void move_reports(lib_reading kind, const list_head *leaving, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	for (lib_report &report : lib->reports) {
		if (report.next[kind] != leaving)
			continue;
		report.next[kind] = leaving->next;
		report.moved |= 1u << kind;
	}
}

void free_copy(packet_regular *copy, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	index_leave_copy(copy, lib);
	if (copy->filed_at)
		*copy->filed_at = nullptr;
	move_reports(LIB_READS_COPY, &copy->lib_node, lib);
	leave_entry(copy);
	pkt_free_regular_data(copy);
}

/** Take an entry out of the list of keys; its copies are still linked in it. */
void unlink_entry(filter_list_data *entry, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	if (entry->nameless)
		lib->nameless--;
	move_reports(LIB_READS_KEY, &entry->node, lib);
	leave_filter_list(entry, lib);
}

/**
 * Free the copies of a rule in a list of an entry: filed, the one that the rule
 * keeps for the value. Keys without a name may hold one for another value.
 */
void free_own_copies(const packet_regular *regular, filter_list_data *entry, packet_regular *filed,
		     const char *text, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	if (lib->nameless == 0) {
		if (!filed || filed->entry != entry)
			return;
		MOX_DEBUG("%s", text);
		free_copy(filed, lib);
		return;
	}
	for (packet_regular *copy : regulars_of(copies_of(entry, regular->treatment))) {
		if (copy->owner != regular->owner)
			continue;
		MOX_DEBUG("%s", text);
		free_copy(copy, lib);
	}
}

/**
 * Let nothing find the copies that an entry still holds when it goes. Only a rule
 * whose item of a type without values has no datum leaves any, and no user can
 * make one.
 */
void abandon_copies(list_head *copies, packet_regular_lib *lib) SEAM_REQUIRES(lib->change_lock)
{
	for (packet_regular *copy : regulars_of(copies)) {
		index_leave_copy(copy, lib);
		if (copy->filed_at)
			*copy->filed_at = nullptr;
	}
}

/**
 * Take the rule's copies from under a key; the key goes with its last rule.
 * filed is the rule's own copy there, or null.
 */
void withdraw_key(const packet_regular *regular, filter_list_data *entry, packet_regular *filed,
		  bool shared, const WithdrawalTexts &texts, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	if (shared)
		MOX_DEBUG("%s", texts.shared);
	if (!entry)
		return;
	if (shared) {
		free_own_copies(regular, entry, filed, texts.shared_copy, lib);
		return;
	}
	MOX_DEBUG("%s", texts.last);
	unlink_entry(entry, lib);
	for (packet_regular *copy : regulars_of(copies_of(entry, regular->treatment))) {
		MOX_DEBUG("%s", texts.last_copy);
		free_copy(copy, lib);
	}
	if (!list_empty(&entry->match_list))
		abandon_copies(&entry->match_list, lib);
	if (!list_empty(&entry->local_match_list))
		abandon_copies(&entry->local_match_list, lib);
	pkt_free_filter_list_data(entry);
}

/** Withdraw one item: of its values, each that is a key or a condition. */
void withdraw_item(packet_regular *regular, regular_item *item, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	const bool indexed = treatment_indexed(regular->treatment);
	/* With nameless keys a copy may stay that is filed under a value. */
	const bool in_groups = indexed && lib->nameless == 0;
	/* Hooks find no copies of the data before this one any more. */
	list_head *anchored = item->datas.next;
	Pauses pauses;

	if (indexed)
		list_unlink(&item->lib_node);
	if (mox_packet_item_empty(item)) {
		withdraw_key(regular, find_entry(item->type, nullptr, nullptr, lib), regular->filed,
			     !list_empty(&lib->items[item->type]), kItemTexts, lib);
		return;
	}
	const bool key = type_is_key(item->type);
	const bool valued = type_has_value(item->type);
	const bool together = indexed && library_values_few_others(item, lib);
	for (regular_data *datum : datas_of(item)) {
		pauses.step();
		if (in_groups && anchored == &datum->node)
			anchored = index_leave_copies(item, anchored, lib);
		ValueLeft left{};
		if (!indexed)
			left.other = library_value(datum->type, datum->value, lib);
		else if (together && list_empty(&datum->equals))
			left.entry = datum->entry;
		else
			left = library_value_leave(datum, lib);
		if (!key)
			continue;
		filter_list_data *entry = left.other ? left.other->entry : left.entry;
		if (lib->nameless != 0 || !valued)
			entry = find_entry(item->type, datum->value, nullptr, lib);
		withdraw_key(regular, entry, datum->filed, left.other != nullptr, kDataTexts, lib);
	}
	if (together)
		library_values_drop(item, lib);
}

void remove_from_library(packet_regular *regular, packet_regular_lib *lib)
	SEAM_REQUIRES(lib->change_lock)
{
	/* The caller's running flag guarantees that the rule is listed. */
	store(lib->regular_count, lib->regular_count - 1);
	index_leave_rule(regular, lib);
	move_reports(LIB_READS_RULE, &regular->lib_node, lib);
	mox_packet_list_del_safe(&regular->lib_node);
	list_init(&regular->lib_node);
	for (regular_item *item : items_of(regular))
		withdraw_item(regular, item, lib);
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
	entry->nameless = !value && type_has_value(type);
	lib->nameless += entry->nameless;
	place_in_filter_list(entry, lib);
	return entry;
}

void pkt_add_regular_to_match_list(const packet_regular *regular,
				   filter_list_data *entry) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	packet_regular_lib *lib = location_library(regular->location);
	CopyAnchors anchors(lib);

	file_copy(regular, entry, nullptr, anchors, lib);
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
	const list_head *items = &lib->items[item->type];

	return list_empty(items) ? nullptr
				 : record_of<const regular_item, offsetof(regular_item, lib_node)>(
					   items->next);
}

const regular_data *pkt_search_data_in_regular_lib(const regular_data *data,
						   const packet_regular_lib *lib)
{
	return library_value(data->type, data->value, lib);
}

void mox_packet_insert_regular(packet_regular *regular, packet_regular_lib *lib, u32 add)
{
	if (add)
		add_to_library(regular, lib);
	else
		remove_from_library(regular, lib);
}
} // extern "C"
