// SPDX-License-Identifier: GPL-2.0-only
#include "rules/edit.hpp"

#include "base/errors.hpp"
#include "base/list.hpp"
#include "base/log.hpp"
#include "rules/ranges.hpp"
#include "rules/values.hpp"

namespace mox {
namespace {

/** Append to the list of an item, but not to its tree. */
void append(regular_data *data, regular_item *item)
{
	list_link(&data->node, item->datas.prev);
	item->count++;
}

} // namespace

regular_data *take_data(const regular_data *data, packet_regular *regular)
{
	regular_item *item = mox_packet_search_item_from_regular(data->type, regular);
	if (!item)
		return nullptr;
	regular_data *held = ItemTree::erase(&item->root, ValueKey(data->type, data->value));
	if (!held)
		return nullptr;
	mox_packet_del_data(held);
	item->count--;
	if (mox_packet_item_empty(item)) {
		mox_packet_del_item(item);
		mox_packet_free_item(item);
	}
	return held;
}

int add_data(OwnedData data, packet_regular *regular)
{
	int error = mox_packet_add_data_to_regular(data.get(), regular);
	if (!error)
		(void)data.release();
	return error;
}

} // namespace mox

using namespace mox;

extern "C" {

bool pkt_regular_data_match(u32 type, const void *one, const void *other)
{
	const RuleType *row = rule_type(type);

	if (!row) {
		MOX_DEBUG("MOX-PACKET-SEARCH-DATA-FROME-ITEM: illegal type\n");
		return false;
	}
	if (!row->has_value())
		return true;
	if (!one || !other)
		return false;
	return __builtin_memcmp(one, other, row->compared) == 0;
}

regular_item *mox_packet_search_item_from_regular(u32 type, packet_regular *regular)
{
	/* At most one item a type: a short list. */
	for (regular_item *item : items_of(regular))
		if (item->type == type)
			return item;
	return nullptr;
}

regular_data *mox_packet_search_data_from_item(const regular_data *data, regular_item *item)
{
	if (data->type != item->type)
		return nullptr;
	return ItemTree::find(item->root, ValueKey(data->type, data->value));
}

void mox_packet_add_item_to_regular(regular_item *item, packet_regular *regular)
{
	mox_packet_list_add_tail_safe(&item->node, &regular->items);
}

void mox_packet_add_data_to_item(regular_data *data, regular_item *item)
{
	append(data, item);
	(void)ItemTree::insert(&item->root, data, ValueKey(data->type, data->value));
}

int mox_packet_add_data_to_regular(regular_data *data, packet_regular *regular)
{
	regular_item *item = mox_packet_search_item_from_regular(data->type, regular);

	if (item) {
		/* A repeated value is no error: the rule holds it already. */
		if (ItemTree::insert(&item->root, data, ValueKey(data->type, data->value)))
			mox_packet_free_data(data);
		else
			append(data, item);
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
	if (regular_data *held = take_data(data, regular))
		mox_packet_free_data(held);
}
} // extern "C"
