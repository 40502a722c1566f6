// SPDX-License-Identifier: GPL-2.0
/* The rule record of the add and delete options, read from user space and checked. */
#pragma once

#include "sync.hpp"

class RuleRecord : Pinned {
public:
	RuleRecord() = default;
	~RuleRecord();

	/**
	 * Copy the record from user space and check its lengths: 0, -EINVAL,
	 * -ENOMEM or -EFAULT. May sleep.
	 */
	int read(const seam_uptr *value, unsigned int len);
	/**
	 * Add every element to the socket's rule, or delete it: 0, -EINVAL or
	 * -ENOMEM; what came before the error stays. The rule is out of its
	 * library and the rule lock is held.
	 */
	int apply(mox_packet_sock *po, bool add) const;

private:
	const u8 *elements() const { return bytes_ + sizeof(mox_packet_rule); }
	int apply_datum(mox_packet_sock *po, const u8 *element, bool add) const;
	int apply_packet_all(mox_packet_sock *po, bool add) const;

	u8 *bytes_ = nullptr;
	mox_packet_rule head_{};
	u32 caller_vsd_ = 0;
};
