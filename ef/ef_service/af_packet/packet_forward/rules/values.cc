// SPDX-License-Identifier: GPL-2.0
#include "rules/values.hpp"

#include "base/list.hpp"

namespace mox {

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
	LibraryTree::erase(root, datum, key);
	if (list_empty(&datum->equals))
		return { nullptr, datum->entry };
	equal = record_of<regular_data, offsetof(regular_data, equals)>(datum->equals.next);
	list_unlink(&datum->equals);
	equal->entry = datum->entry;
	(void)LibraryTree::insert(root, equal, key);
	return { equal, equal->entry };
}

} // namespace mox
