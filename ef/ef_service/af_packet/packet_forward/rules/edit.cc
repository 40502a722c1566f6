// SPDX-License-Identifier: GPL-2.0
#include "rules/edit.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "rules/ranges.hpp"

namespace mox {
namespace {

/** The rule's first item of a type, or null; const if the rule is. */
template <typename Regular> auto first_item(u32 type, Regular *regular)
{
	for (auto *item : items_of(regular))
		if (item->type == type)
			return item;
	return decltype(*items_of(regular).begin()){ nullptr };
}

/** The item's first datum that equals data, or null; const if the item is. */
template <typename Item> auto first_data(const regular_data *data, Item *item)
{
	for (auto *held : datas_of(item))
		if (held->type == data->type &&
		    pkt_regular_data_match(held->type, held->value, data->value))
			return held;
	return decltype(*datas_of(item).begin()){ nullptr };
}

} // namespace

const regular_item *find_item(u32 type, const packet_regular *regular)
{
	return first_item(type, regular);
}

const regular_data *find_data(const regular_data *data, const regular_item *item)
{
	return first_data(data, item);
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
	return first_item(type, regular);
}

regular_data *mox_packet_search_data_from_item(const regular_data *data, regular_item *item)
{
	return first_data(data, item);
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
		/* A repeated value is no error: the rule holds it already. */
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
