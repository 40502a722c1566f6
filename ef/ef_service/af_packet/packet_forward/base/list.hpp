// SPDX-License-Identifier: GPL-2.0-only
/*
 * The kernel's intrusive list, as the units use it.
 *
 * A record finds itself from its link by the link's offset: every record in a
 * list is standard layout, and a link handed to record_of() always comes from a
 * list that holds links of that very member.
 */
#pragma once

#include "seam/seam.h"

namespace mox {

/** Make a head empty, or a link unlinked. */
inline void list_init(list_head *head)
{
	head->next = head;
	head->prev = head;
}

inline bool list_empty(const list_head *head)
{
	return head->next == head;
}

/** Unlink, without a barrier: the list has no reader. */
inline void list_unlink(list_head *link)
{
	link->next->prev = link->prev;
	link->prev->next = link->next;
}

/** Insert behind another link or a head, without a barrier: the list has no reader. */
inline void list_link(list_head *link, list_head *behind)
{
	link->next = behind->next;
	link->prev = behind;
	behind->next->prev = link;
	behind->next = link;
}

/** Mark the link of a record that is about to be freed: a later use faults at a known address. */
inline void list_poison(list_head *link)
{
	link->next = reinterpret_cast<list_head *>(SEAM_LIST_POISON1);
	link->prev = reinterpret_cast<list_head *>(SEAM_LIST_POISON2);
}

/** A link or a byte of a record, const if the record is. */
template <typename Record, typename As> struct as_const_as {
	using type = As;
};
template <typename Record, typename As> struct as_const_as<const Record, As> {
	using type = const As;
};

/** The record whose member at Offset is the link. */
template <typename Record, size_t Offset>
inline Record *record_of(typename as_const_as<Record, list_head>::type *link)
{
	using Byte = typename as_const_as<Record, unsigned char>::type;
	return reinterpret_cast<Record *>(reinterpret_cast<Byte *>(link) - Offset);
}

/**
 * A range over the records of a list; the current record may be unlinked while
 * walking. The records of a const head are const.
 */
template <typename Record, size_t Offset> class ListRange {
	using Link = typename as_const_as<Record, list_head>::type;

public:
	class iterator {
	public:
		explicit iterator(Link *at) : at_(at), next_(at->next) {}
		Record *operator*() const { return record_of<Record, Offset>(at_); }
		iterator &operator++()
		{
			at_ = next_;
			next_ = at_->next;
			return *this;
		}
		bool operator!=(const iterator &other) const { return at_ != other.at_; }

	private:
		Link *at_;
		Link *next_;
	};

	explicit ListRange(Link *head) : head_(head) {}
	iterator begin() const { return iterator(head_->next); }
	iterator end() const { return iterator(head_); }

private:
	Link *head_;
};

} // namespace mox

extern "C" {
/* List changes that a reader on another CPU sees whole: a full barrier follows. */
void mox_packet_list_del_safe(list_head *link);
void mox_packet_list_add_tail_safe(list_head *link, list_head *head);
void mox_packet_list_ins_head_safe(list_head *link, list_head *head);
}
