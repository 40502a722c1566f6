// SPDX-License-Identifier: GPL-2.0-only
/* Ranges over the lists of rules, items, values and keys. What a const head leads to is const. */
#pragma once

#include "base/list.hpp"

namespace mox {

inline auto items_of(packet_regular *regular)
{
	return ListRange<regular_item, offsetof(regular_item, node)>(&regular->items);
}

inline auto items_of(const packet_regular *regular)
{
	return ListRange<const regular_item, offsetof(regular_item, node)>(&regular->items);
}

inline auto datas_of(regular_item *item)
{
	return ListRange<regular_data, offsetof(regular_data, node)>(&item->datas);
}

inline auto datas_of(const regular_item *item)
{
	return ListRange<const regular_data, offsetof(regular_data, node)>(&item->datas);
}

/** Rules linked through lib_node: a library's regulars, or a match list. */
inline auto regulars_of(list_head *head)
{
	return ListRange<packet_regular, offsetof(packet_regular, lib_node)>(head);
}

inline auto regulars_of(const list_head *head)
{
	return ListRange<const packet_regular, offsetof(packet_regular, lib_node)>(head);
}

/** The keys of a filter list. */
inline auto entries_of(list_head *head)
{
	return ListRange<filter_list_data, offsetof(filter_list_data, node)>(head);
}

inline auto entries_of(const list_head *head)
{
	return ListRange<const filter_list_data, offsetof(filter_list_data, node)>(head);
}

} // namespace mox
