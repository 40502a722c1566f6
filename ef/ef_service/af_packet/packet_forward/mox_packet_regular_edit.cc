// SPDX-License-Identifier: GPL-2.0
/*
 * Editing a rule: equality of values, and adding and removing values. No lock
 * is taken: a rule is edited only while it is out of its library.
 */
#include "errors.hpp"
#include "list.hpp"
#include "log.hpp"
#include "regular.hpp"

namespace {

/* How many bytes of the value decide equality; 0 for the types without a value. */
constexpr u8 kComparedBytes[MOX_PACKET_RULE_TYPES] = {
	2, 6, 6, 2, 2, 1, 1, 2, 2, 2, 4, 1, 0, 0, 1, 1, 0, 4, 0, 2,
};

} // namespace

extern "C" {

bool pkt_regular_data_match(u32 type, const void *one, const void *other)
{
	if (type >= MOX_PACKET_RULE_TYPES) {
		MOX_DEBUG("MOX-PACKET-SEARCH-DATA-FROME-ITEM: illegal type\n");
		return false;
	}
	if (type_without_value(type))
		return true;
	if (!one || !other)
		return false;
	return __builtin_memcmp(one, other, kComparedBytes[type]) == 0;
}

regular_item *mox_packet_search_item_from_regular(u32 type, const packet_regular *regular)
{
	for (regular_item *item : items_of(regular))
		if (item->type == type)
			return item;
	return nullptr;
}

regular_data *mox_packet_search_data_from_item(const regular_data *data, const regular_item *item)
{
	for (regular_data *held : datas_of(item))
		if (held->type == data->type &&
		    pkt_regular_data_match(held->type, held->value, data->value))
			return held;
	return nullptr;
}

void mox_packet_add_item_to_regular(regular_item *item, packet_regular *regular)
{
	mox_packet_list_add_tail_safe(&item->node, &regular->items);
}

void mox_packet_add_data_to_item(regular_data *data, regular_item *item)
{
	mox_packet_list_add_tail_safe(&data->node, &item->datas);
}

int mox_packet_add_data_to_regular(regular_data *data, packet_regular *regular)
{
	regular_item *item = mox_packet_search_item_from_regular(data->type, regular);

	if (item) {
		/* A repeated value is no error: the rule already says so. */
		if (mox_packet_search_data_from_item(data, item))
			mox_packet_free_data(data);
		else
			mox_packet_add_data_to_item(data, item);
		return 0;
	}
	item = mox_packet_alloc_init_item(data->type);
	if (!item) {
		MOX_DEBUG("MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed\n");
		return err::kNoMem;
	}
	mox_packet_add_data_to_item(data, item);
	mox_packet_add_item_to_regular(item, regular);
	return 0;
}

void mox_packet_del_data_from_regular(const regular_data *data, packet_regular *regular)
{
	regular_item *item = mox_packet_search_item_from_regular(data->type, regular);
	if (!item)
		return;
	regular_data *held = mox_packet_search_data_from_item(data, item);
	if (!held)
		return;
	mox_packet_del_data(held);
	mox_packet_free_data(held);
	if (mox_packet_item_empty(item)) {
		mox_packet_del_item(item);
		mox_packet_free_item(item);
	}
}
} // extern "C"
