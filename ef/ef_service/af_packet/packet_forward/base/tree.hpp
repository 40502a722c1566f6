// SPDX-License-Identifier: GPL-2.0
/*
 * An ordered tree whose links lie in the records, so that it allocates nothing:
 * a binary search tree by value that is a heap by a random priority (a treap).
 * Its depth is logarithmic whatever the values, since users choose values but
 * not priorities.
 */
#pragma once

#include "seam/seam_types.h"

namespace mox {

/**
 * Traits has, for a record type Record: left(record) and right(record), which
 * return references to the two links, priority(record), and compare(key, record)
 * with a result below, at or above 0. Context: that of the caller's lock.
 */
template <typename Record, typename Traits> class Tree {
public:
	/** The record that equals key, or null. */
	template <typename Key> static Record *find(Record *root, const Key &key)
	{
		while (root) {
			int order = Traits::compare(key, root);
			if (order == 0)
				return root;
			root = order < 0 ? Traits::left(root) : Traits::right(root);
		}
		return nullptr;
	}

	/**
	 * Insert a record whose key is key, or return the equal one that is there
	 * already; null when the record was inserted.
	 */
	template <typename Key> static Record *insert(Record **root, Record *record, const Key &key)
	{
		Record **place = root; /* the first link whose record gives way to the new one */
		while (*place && Traits::priority(*place) >= Traits::priority(record)) {
			int order = Traits::compare(key, *place);
			if (order == 0)
				return *place;
			place = order < 0 ? &Traits::left(*place) : &Traits::right(*place);
		}
		if (Record *equal = find(*place, key))
			return equal;
		/* Split what is below that link: smaller to the left, greater to the right. */
		Record *below = *place;
		Record **smaller = &Traits::left(record);
		Record **greater = &Traits::right(record);
		*place = record;
		while (below) {
			if (Traits::compare(key, below) > 0) {
				*smaller = below;
				smaller = &Traits::right(below);
				below = *smaller;
			} else {
				*greater = below;
				greater = &Traits::left(below);
				below = *greater;
			}
		}
		*smaller = nullptr;
		*greater = nullptr;
		return nullptr;
	}

	/** Take out the record that equals key, and return it; null when there is none. */
	template <typename Key> static Record *erase(Record **root, const Key &key)
	{
		Record **place = root;
		while (*place) {
			int order = Traits::compare(key, *place);
			if (order == 0)
				break;
			place = order < 0 ? &Traits::left(*place) : &Traits::right(*place);
		}
		Record *record = *place;
		if (record)
			cut(place);
		return record;
	}

private:
	/** Take out the record that a link leads to: what is below it moves up. */
	static void cut(Record **place)
	{
		Record *left = Traits::left(*place);
		Record *right = Traits::right(*place);
		while (left && right) {
			if (Traits::priority(left) >= Traits::priority(right)) {
				*place = left;
				place = &Traits::right(left);
				left = *place;
			} else {
				*place = right;
				place = &Traits::left(right);
				right = *place;
			}
		}
		*place = left ? left : right;
	}
};

} // namespace mox
