// SPDX-License-Identifier: GPL-2.0-only
/*
 * The hash buckets of an index (rules/index.hpp): chains of anchors in the order of
 * the rules that they lead to. Hooks read heads and present bits without a lock: each
 * is stored whole. All else of their buckets changes under the library lock, and all
 * of delivery's under the change lock.
 */
#pragma once

#include "rules/index.hpp"

namespace mox {

/* A bucket with so many candidates of one value counts as crowded; more are not counted. */
inline constexpr u32 kCrowded = 8;
/* Links of a chain that a look at its crowd follows. */
inline constexpr u32 kCrowdReach = 32;

/** Where an anchor stands. */
struct Spot {
	u32 slot;
	Value value;
};

/**
 * A set of buckets with what it holds. Before(rule, other) is the order of its
 * chains.
 */
template <u32 bits, auto Before> class Buckets {
public:
	Buckets(rule_index *index, rule_anchor **heads) : index_(index), heads_(heads) {}

	/** Candidates that the spot has already, up to kCrowded. */
	u32 crowd(u32 hash) const
	{
		u32 found = 0;
		u32 seen = 0;
		for (const rule_anchor *at = heads_[bucket(hash)]; at; at = at->next) {
			found += at->hash == hash;
			if (found == kCrowded || ++seen == kCrowdReach)
				break;
		}
		return found;
	}

	void link(rule_anchor *anchor, packet_regular *rule, u32 view, const Spot &spot)
	{
		fill(anchor, rule, view, spot);
		link_filled(anchor);
	}

	/** The part of link() that needs no lock: no bucket has the anchor yet. */
	static void fill(rule_anchor *anchor, packet_regular *rule, u32 view, const Spot &spot)
	{
		anchor->hash = index_hash(view, spot.slot, spot.value);
		anchor->spot = view * kSlots + spot.slot;
		anchor->low = spot.value.low;
		anchor->high = spot.value.high;
		anchor->rule = rule;
	}

	void link_filled(rule_anchor *anchor)
	{
		rule_anchor **head = &heads_[bucket(anchor->hash)];
		rule_anchor *first = *head;
		if (!first) {
			anchor->next = nullptr;
			anchor->prev = anchor;
			store(*head, anchor);
		} else {
			insert_sorted(head, first, anchor);
		}
		if (index_->anchors[anchor->spot]++ != 0)
			return;
		u32 view = anchor->spot / kSlots;
		set_present(view, index_->present[view] | 1u << anchor->spot % kSlots);
	}

	void unlink(rule_anchor *anchor)
	{
		rule_anchor **head = &heads_[bucket(anchor->hash)];
		if (*head == anchor)
			store(*head, anchor->next);
		else
			anchor->prev->next = anchor->next;
		if (anchor->next)
			anchor->next->prev = anchor->prev;
		else if (*head)
			(*head)->prev = anchor->prev;
		anchor->prev = nullptr;
		if (--index_->anchors[anchor->spot] != 0)
			return;
		u32 view = anchor->spot / kSlots;
		set_present(view, index_->present[view] & ~(1u << anchor->spot % kSlots));
	}

private:
	static u32 bucket(u32 hash) { return hash >> (32 - bits); }

	/* From both ends: what is new goes near one of them, most often to the last place. */
	static void insert_sorted(rule_anchor **head, rule_anchor *first, rule_anchor *anchor)
	{
		rule_anchor *front = first;
		rule_anchor *back = first->prev;
		while (anchor->rule != back->rule && Before(anchor->rule, back->rule)) {
			if (Before(anchor->rule, front->rule)) {
				back = front == first ? nullptr : front->prev;
				break;
			}
			front = front->next;
			back = back->prev;
		}
		/* back is the last that comes before the new one, or null. */
		anchor->next = back ? back->next : first;
		anchor->prev = back ? back : first->prev;
		if (back)
			back->next = anchor;
		else
			store(*head, anchor);
		if (anchor->next)
			anchor->next->prev = anchor;
		else
			first->prev = anchor;
	}

	/* Hooks read the words without a lock: each is stored whole. */
	void set_present(u32 view, u32 slots)
	{
		u32 reserved = 0;

		store(index_->present[view], slots);
		for (u32 other = 1; other < RULE_VIEWS; other++)
			reserved |= index_->present[other];
		store(index_->reserved_views, reserved);
	}

	rule_index *index_;
	rule_anchor **heads_;
};

} // namespace mox
