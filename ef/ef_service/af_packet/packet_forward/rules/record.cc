// SPDX-License-Identifier: GPL-2.0-only
#include "rules/record.hpp"

#include "base/errors.hpp"
#include "base/list.hpp"
#include "base/log.hpp"
#include "rules/budget.hpp"
#include "rules/edit.hpp"
#include "rules/pauses.hpp"
#include "rules/types.hpp"
#include "rules/values.hpp"
#include "services/vsd.hpp"

namespace mox {
namespace {

/* Elements that are added or deleted while the socket's lock is held once. */
constexpr u32 kElementsOfHold = 32;

/* The longest record that is used whole: the head, and the most elements of the widest type. */
constexpr u32 kElementsMax = 0xFFFF * widest_element();
constexpr u32 kRecordMax = sizeof(mox_packet_rule) + kElementsMax;
static_assert(kRecordMax == 6 + 65535 * 6);

/* Bytes of a longer one that are read in one piece. */
constexpr u32 kPiece = 4096;
static_assert(kPiece <= kRecordMax, "the buffer of a longer record takes a piece");

u32 stride_of(u16 type)
{
	const RuleType *row = rule_type(type);

	return row ? row->width : 0;
}

/** The two MAC types lack the word that the other types' lines have. */
void log_success(u16 type)
{
	const RuleType *row = rule_type(type);

	/* Deletions say ADD-REGUALR as well, in this spelling: log filters depend on it. */
	MOX_DEBUG("ADD-REGUALR: %s%s success\n", row->form == MOX_FORM_MAC ? "" : "type ",
		  row->name);
}

/**
 * Data that are freed at the end, when the rule's lock is released: freeing may give
 * many empty slabs back to the kernel at once, which takes long.
 */
struct SpentData : Pinned {
	list_head list;

	SpentData() { list_init(&list); }
	~SpentData()
	{
		for (regular_data *data :
		     ListRange<regular_data, offsetof(regular_data, node)>(&list))
			mox_packet_free_data(data);
	}
};

int optlen_illegal(unsigned int len)
{
	MOX_DEBUG("PACKET-SETSOCKOPT: optlen illegal, optlen: %d\n", static_cast<int>(len));
	return err::kInval;
}

} // namespace

void free_record_buffer(u8 *bytes)
{
	seam_vfree(bytes);
	bump(g_packet_regular_data_free);
}

/**
 * Read the bytes that no record uses, as memory that is not there must still be
 * refused. Each piece overwrites the one before it: the length costs no memory.
 */
int RuleRecord::read_unused(const seam_uptr *value, u32 from, u32 to)
{
	while (from < to) {
		u32 piece = to - from < kPiece ? to - from : kPiece;
		if (seam_copy_from_uptr_at(bytes_.get(), value, from, piece))
			return err::kFault;
		from += piece;
		seam_cond_resched();
		if (seam_fatal_signal_pending())
			return err::kIntr;
	}
	return 0;
}

int RuleRecord::read(const seam_uptr *value, unsigned int len)
{
	if (len < sizeof(head_))
		return optlen_illegal(len);
	const u32 used = len < kRecordMax ? len : kRecordMax;
	bytes_ = Owned<u8, free_record_buffer>(static_cast<u8 *>(seam_vzalloc(used)));
	if (!bytes_) {
		MOX_DEBUG("PACKET-SETSOCKOPT: ENOMEM\n");
		return err::kNoMem;
	}
	bump(g_packet_regular_data_alloc);
	int error = read_unused(value, used, len);
	if (error == err::kIntr)
		return error;
	if (error || seam_copy_from_uptr(bytes_.get(), value, used)) {
		MOX_DEBUG("PACKET-SETSOCKOPT: copy from user failed\n");
		return err::kFault;
	}
	__builtin_memcpy(&head_, bytes_.get(), sizeof(head_));

	/*
	 * The elements are read at the type's own stride, whatever size the
	 * caller states, so the length must cover both. 16 bits times 16 bits
	 * cannot overflow a u32 with the head's 6 bytes added: 0xFFFE0007.
	 */
	u32 room = len - sizeof(head_);
	if (room < u32{ head_.count } * head_.size ||
	    room < u32{ head_.count } * stride_of(head_.type))
		return optlen_illegal(len);

	/* Interface indexes belong to a vsd. Asked here, where sleeping is allowed. */
	if (head_.type == PACKET_SRC_INTF_EQUAL)
		caller_vsd_ = current_vsd();
	return 0;
}

/**
 * Add an element to the rule, or delete it; what that leaves to be freed is appended
 * to spent. 0, -ENOMEM, or another negative errno.
 */
int RuleRecord::apply_datum(mox_packet_sock *po, const u8 *element, bool add,
			    list_head *spent) const
{
	OwnedData data = make_data(head_.type, element, stride_of(head_.type));
	if (!data) {
		MOX_DEBUG("MOX-PACKET-DEAL-REGULAR-DATA: Alloc data failed\n");
		return err::kNoMem;
	}
	if (add)
		return add_data(move(data), &po->regular);
	if (regular_data *held = take_data(data.get(), &po->regular))
		list_link(&held->node, spent->prev);
	list_link(&data.release()->node, spent->prev);
	return 0;
}

/** PACKET_ALL is an item without data; the record's count is not read. */
int RuleRecord::apply_packet_all(mox_packet_sock *po, bool add) const
{
	regular_item *item = mox_packet_search_item_from_regular(PACKET_ALL, &po->regular);

	if (add && !item) {
		item = mox_packet_alloc_init_item(PACKET_ALL);
		if (!item) {
			MOX_DEBUG("MOX-PACKET-DEAL-PACKET-ALL-REGULAR: alloc item failed\n");
			return err::kNoMem;
		}
		mox_packet_add_item_to_regular(item, &po->regular);
	} else if (!add && item) {
		mox_packet_del_item(item);
		mox_packet_free_item(item);
	}
	return 0;
}

/**
 * Elements that the rule does not hold yet. An element that is there more than once
 * counts each time, but for equal neighbours.
 */
u32 RuleRecord::new_elements(mox_packet_sock *po) const
{
	const u32 stride = stride_of(head_.type);
	const regular_item *item = mox_packet_search_item_from_regular(head_.type, &po->regular);
	const u8 *element = elements();
	Pauses pauses;
	Value last{};
	u32 count = 0;

	for (u32 n = 0; n < head_.count; n++, element += stride) {
		u8 bytes[REGULAR_VALUE_SIZE]{};
		__builtin_memcpy(bytes, element, stride);
		Value value = rule_value(head_.type, bytes);
		pauses.step();
		if ((n != 0 && value == last) || (item && item_value(item, value)))
			continue;
		last = value;
		count++;
	}
	return count;
}

int RuleRecord::charge(mox_packet_sock *po) const
{
	/* What apply() refuses takes nothing. */
	if (head_.type >= MOX_PACKET_RULE_TYPES || caller_vsd_ != 0)
		return 0;
	const u32 stride = stride_of(head_.type);
	if (head_.type == PACKET_ALL)
		return budget_charge(po, head_.type, 0);
	if (head_.count == 0)
		return 0;
	if (stride == 0)
		return mox_packet_search_item_from_regular(head_.type, &po->regular)
			       ? 0
			       : budget_charge(po, head_.type, 1);
	/* Usually all of them fit, and need not be looked at. */
	if (budget_fits(po, head_.type, head_.count))
		return budget_charge(po, head_.type, head_.count);
	const u32 count = new_elements(po);
	return count ? budget_charge(po, head_.type, count) : 0;
}

int RuleRecord::apply_data(mox_packet_sock *po, seam_spinlock *lock, bool add) const
{
	const u32 stride = stride_of(head_.type);
	/* Elements without a value are all equal: one is enough. */
	u32 left = stride == 0 && head_.count > 1 ? 1 : head_.count;
	const u8 *element = elements();

	while (left != 0) {
		SpentData spent;
		{
			SpinGuard guard(lock);
			for (u32 n = 0; n < kElementsOfHold && left != 0; n++, left--) {
				int error = apply_datum(po, element, add, &spent.list);
				if (error)
					return error;
				element += stride;
			}
		}
		if (left != 0)
			seam_cond_resched();
	}
	return 0;
}

int RuleRecord::apply(mox_packet_sock *po, seam_spinlock *lock, bool add) const
{
	if (head_.type >= MOX_PACKET_RULE_TYPES) {
		MOX_DEBUG("ADD-REGUALR: type error\n");
		return err::kInval;
	}
	if (caller_vsd_ != 0) {
		MOX_DEBUG("MOX-PACKET-DEAL-REGULAR-DATA: get vsd id %d fail.\n",
			  static_cast<int>(caller_vsd_));
		return err::kInval;
	}
	int error;
	if (head_.type == PACKET_ALL) {
		SpinGuard guard(lock);
		error = apply_packet_all(po, add);
	} else {
		error = apply_data(po, lock, add);
	}
	if (error)
		return error;
	log_success(head_.type);
	return 0;
}

} // namespace mox
