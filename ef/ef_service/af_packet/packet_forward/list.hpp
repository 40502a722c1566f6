// SPDX-License-Identifier: GPL-2.0
/*
 * The kernel's intrusive list, as the units use it.
 *
 * A record finds itself from its link by the link's offset: every record below
 * is standard layout, and a link handed to record_of() always comes from a
 * list that holds links of that very member.
 */
#pragma once

#include "seam/seam.h"

inline void list_init(list_head *head)
{
	head->next = head;
	head->prev = head;
}

inline bool list_empty(const list_head *head)
{
	return head->next == head;
}

/** The record whose member at Offset is the link. */
template <typename Record, size_t Offset> inline Record *record_of(list_head *link)
{
	return reinterpret_cast<Record *>(reinterpret_cast<unsigned char *>(link) - Offset);
}

/** A range over the records of a list; the current record may be unlinked while walking. */
template <typename Record, size_t Offset> class ListRange {
public:
	class iterator {
	public:
		explicit iterator(list_head *at) : at_(at), next_(at->next) {}
		Record *operator*() const { return record_of<Record, Offset>(at_); }
		iterator &operator++()
		{
			at_ = next_;
			next_ = at_->next;
			return *this;
		}
		bool operator!=(const iterator &other) const { return at_ != other.at_; }

	private:
		list_head *at_;
		list_head *next_;
	};

	explicit ListRange(const list_head *head) : head_(const_cast<list_head *>(head)) {}
	iterator begin() const { return iterator(head_->next); }
	iterator end() const { return iterator(head_); }

private:
	list_head *head_;
};

inline auto items_of(const packet_regular *regular)
{
	return ListRange<regular_item, offsetof(regular_item, node)>(&regular->items);
}

inline auto datas_of(const regular_item *item)
{
	return ListRange<regular_data, offsetof(regular_data, node)>(&item->datas);
}

/** Rules linked through lib_node: a library's regulars, or a match list. */
inline auto regulars_of(const list_head *head)
{
	return ListRange<packet_regular, offsetof(packet_regular, lib_node)>(head);
}

inline auto entries_of(const list_head *head)
{
	return ListRange<filter_list_data, offsetof(filter_list_data, node)>(head);
}
