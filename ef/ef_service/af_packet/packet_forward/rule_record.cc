// SPDX-License-Identifier: GPL-2.0
#include "rule_record.hpp"

#include "errors.hpp"
#include "list.hpp"
#include "log.hpp"
#include "names.hpp"
#include "regular.hpp"
#include "vsd.hpp"

namespace {

/* Bytes that one element takes, and gives to its datum, by rule type. */
constexpr u8 kStride[MOX_PACKET_RULE_TYPES] = {
	2, 6, 6, 2, 2, 1, 1, 2, 2, 2, 4, 1, 0, 0, 1, 1, 0, 4, 0, 2,
};

u32 stride_of(u16 type)
{
	return type < MOX_PACKET_RULE_TYPES ? kStride[type] : 0;
}

/** The two MAC types lack the word that the other types' lines have. */
void log_success(u16 type)
{
	bool mac = type == PACKET_DEST_MAC_EQUAL || type == PACKET_SRC_MAC_EQUAL;

	/* Deletions say ADD-REGUALR as well, in this spelling: log filters depend on it. */
	MOX_DEBUG("ADD-REGUALR: %s%s success\n", mac ? "" : "type ", rule_type_name(type));
}

int optlen_illegal(unsigned int len)
{
	MOX_DEBUG("PACKET-SETSOCKOPT: optlen illegal, optlen: %d\n", static_cast<int>(len));
	return err::kInval;
}

} // namespace

RuleRecord::~RuleRecord()
{
	if (!bytes_)
		return;
	seam_vfree(bytes_);
	bump(g_packet_regular_data_free);
}

int RuleRecord::read(const seam_uptr *value, unsigned int len)
{
	if (len < sizeof(head_))
		return optlen_illegal(len);
	bytes_ = static_cast<u8 *>(seam_vzalloc(len));
	if (!bytes_) {
		MOX_DEBUG("PACKET-SETSOCKOPT: ENOMEM\n");
		return err::kNoMem;
	}
	bump(g_packet_regular_data_alloc);
	if (seam_copy_from_uptr(bytes_, value, len)) {
		MOX_DEBUG("PACKET-SETSOCKOPT: copy from user failed\n");
		return err::kFault;
	}
	__builtin_memcpy(&head_, bytes_, sizeof(head_));

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

int RuleRecord::apply_datum(mox_packet_sock *po, const u8 *element, bool add) const
{
	regular_data *data = mox_packet_alloc_init_data(head_.type);
	if (!data) {
		MOX_DEBUG("MOX-PACKET-DEAL-REGULAR-DATA: Alloc data failed\n");
		return err::kNoMem;
	}
	__builtin_memcpy(data->value, element, stride_of(head_.type));
	if (!add) {
		mox_packet_del_data_from_regular(data, &po->regular);
		mox_packet_free_data(data);
		return 0;
	}
	int error = mox_packet_add_data_to_regular(data, &po->regular);
	if (error)
		mox_packet_free_data(data);
	return error;
}

/** PACKET_ALL has no data: the item itself says it, and its count is not looked at. */
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

int RuleRecord::apply(mox_packet_sock *po, bool add) const
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
	if (head_.type == PACKET_ALL) {
		int error = apply_packet_all(po, add);
		if (error)
			return error;
	} else {
		const u32 stride = stride_of(head_.type);
		/* Without a value every element says the same: one does for all. */
		u32 left = stride == 0 && head_.count > 1 ? 1 : head_.count;
		for (const u8 *element = elements(); left != 0; left--, element += stride) {
			int error = apply_datum(po, element, add);
			if (error)
				return error;
		}
	}
	log_success(head_.type);
	return 0;
}
