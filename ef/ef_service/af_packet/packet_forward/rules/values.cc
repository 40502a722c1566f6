// SPDX-License-Identifier: GPL-2.0-only
#include "rules/values.hpp"

#include "rules/pauses.hpp"
#include "rules/ranges.hpp"

namespace mox {
namespace {

/* So few data of an item are inserted one by one. */
constexpr u32 kOneByOne = 4;
/* An item has few others if they have at most one of so many of its own data. */
constexpr u32 kFewOthers = 4;

using LibraryTraits = ValueTraits<&regular_data::lib>;

auto items_of_type(list_head *items)
{
	return ListRange<regular_item, offsetof(regular_item, lib_node)>(items);
}

/** Makes one ring of two when equal data come together in a tree. */
struct Uniting {
	Pauses pauses;

	void step() { pauses.step(); }
	static void equal(regular_data *stands, regular_data *other)
	{
		list_head *after = stands->equals.next;
		list_head *last = other->equals.prev;
		stands->equals.next = &other->equals;
		other->equals.prev = &stands->equals;
		last->next = after;
		after->prev = last;
		/* The other one may be what stood for the value, and have its key. */
		if (!stands->entry)
			stands->entry = other->entry;
	}
};

} // namespace

regular_data *library_value(u32 type, const void *value, const packet_regular_lib *lib)
{
	return LibraryTree::find(lib->values[type], ValueKey(type, value));
}

regular_data *library_value_enter(regular_data *datum, packet_regular_lib *lib)
{
	list_init(&datum->equals);
	datum->entry = nullptr;
	regular_data *equal = LibraryTree::insert(&lib->values[datum->type], datum,
						  ValueKey(datum->type, datum->value));
	if (!equal)
		return datum;
	list_link(&datum->equals, &equal->equals);
	return equal;
}

ValueLeft library_value_leave(regular_data *datum, packet_regular_lib *lib)
{
	ValueKey key(datum->type, datum->value);
	regular_data **root = &lib->values[datum->type];
	/* Without equals it stands for itself; with them it has to be looked up who does. */
	regular_data *equal = list_empty(&datum->equals) ? datum : LibraryTree::find(*root, key);

	if (equal != datum) {
		list_unlink(&datum->equals);
		return { equal, equal->entry };
	}
	(void)LibraryTree::erase(root, key);
	if (list_empty(&datum->equals))
		return { nullptr, datum->entry };
	equal = record_of<regular_data, offsetof(regular_data, equals)>(datum->equals.next);
	list_unlink(&datum->equals);
	equal->entry = datum->entry;
	(void)LibraryTree::insert(root, equal, key);
	return { equal, equal->entry };
}

bool library_values_few_others(const regular_item *item, const packet_regular_lib *lib)
{
	const list_head *items = &lib->items[item->type];
	Pauses pauses;
	u32 others = 0;

	for (const list_head *at = items->next; at != items; at = at->next) {
		if (at == &item->lib_node)
			continue;
		auto *other = record_of<const regular_item, offsetof(regular_item, lib_node)>(at);
		others += 1 + other->count;
		if (others > item->count / kFewOthers)
			return false;
		pauses.step();
	}
	return true;
}

void library_values_enter(regular_item *item, packet_regular_lib *lib)
{
	Uniting uniting;

	if (item->count <= kOneByOne) {
		for (regular_data *datum : datas_of(item))
			(void)library_value_enter(datum, lib);
		return;
	}
	/* Priorities are the same in all trees: so is the shape of a tree of the same data. */
	for (regular_data *datum : datas_of(item)) {
		list_init(&datum->equals);
		datum->entry = nullptr;
		datum->lib = datum->item;
		uniting.step();
	}
	LibraryTree::unite(&lib->values[item->type], item->root, uniting);
}

void library_values_drop(const regular_item *item, packet_regular_lib *lib)
{
	regular_data *old = lib->values[item->type];
	regular_data *root = nullptr;
	Pauses pauses;

	for (regular_item *other : items_of_type(&lib->items[item->type])) {
		for (regular_data *datum : datas_of(other)) {
			pauses.step();
			if (!list_empty(&datum->equals) &&
			    LibraryTree::find(old, LibraryTraits::key(datum)) != datum)
				continue;
			(void)LibraryTree::erase(&old, LibraryTraits::key(datum));
			(void)LibraryTree::insert(&root, datum, LibraryTraits::key(datum));
		}
	}
	lib->values[item->type] = root;
}

} // namespace mox
