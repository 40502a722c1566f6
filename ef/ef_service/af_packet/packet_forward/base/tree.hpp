// SPDX-License-Identifier: GPL-2.0-only
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
 * with a result below, at or above 0; unite() needs key(record), too. Context: that
 * of the caller's lock.
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
	template <typename Key> static Record *insert(Record **root, Record *record, Key key)
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
		Record *below = *place;
		*place = record;
		(void)split(below, key, &Traits::left(record), &Traits::right(record));
		return nullptr;
	}

	/**
	 * Insert the records of another tree: less work for many than to insert each. For a
	 * pair of equals visitor.equal(stays, leaves) is called, for each record that is
	 * compared visitor.step(). At most kOpen subtrees wait for their turn; the records of
	 * further ones are inserted one by one.
	 */
	template <u32 kOpen = 32, typename Visitor>
	static void unite(Record **root, Record *other, Visitor &visitor)
	{
		struct {
			Record **place;
			Record *other;
		} open[kOpen];
		u32 count = 0;
		Record **place = root;
		for (;;) {
			while (other) {
				visitor.step();
				Record *top = *place;
				if (!top || Traits::priority(top) < Traits::priority(other)) {
					*place = other;
					other = top;
					continue;
				}
				Record *smaller;
				Record *greater;
				if (Record *equal = split(other, Traits::key(top), &smaller,
							  &greater))
					visitor.equal(top, equal);
				place = smaller ? &Traits::left(top) : &Traits::right(top);
				other = smaller ? smaller : greater;
				if (!smaller || !greater)
					continue;
				if (count < kOpen)
					open[count++] = { &Traits::right(top), greater };
				else
					insert_each(&Traits::right(top), greater, visitor);
			}
			if (count == 0)
				return;
			count--;
			place = open[count].place;
			other = open[count].other;
		}
	}

	/** Take out the record that equals key, and return it; null when there is none. */
	template <typename Key> static Record *erase(Record **root, Key key)
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
	/**
	 * Split a tree: what is smaller than key, and what is greater. Returns the record that
	 * equals it, which is in neither, or null. In line, and insert() takes a copy of
	 * its key: else the key would be read from memory for each record.
	 */
	template <typename Key>
	[[gnu::always_inline]] static Record *split(Record *tree, const Key &key, Record **smaller,
						    Record **greater)
	{
		while (tree) {
			int order = Traits::compare(key, tree);
			if (order == 0)
				break;
			if (order > 0) {
				*smaller = tree;
				smaller = &Traits::right(tree);
				tree = *smaller;
			} else {
				*greater = tree;
				greater = &Traits::left(tree);
				tree = *greater;
			}
		}
		*smaller = tree ? Traits::left(tree) : nullptr;
		*greater = tree ? Traits::right(tree) : nullptr;
		return tree;
	}

	template <typename Visitor>
	static void insert_each(Record **root, Record *other, Visitor &visitor)
	{
		while (Record *record = other) {
			visitor.step();
			cut(&other);
			if (Record *equal = insert(root, record, Traits::key(record)))
				visitor.equal(equal, record);
		}
	}

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
