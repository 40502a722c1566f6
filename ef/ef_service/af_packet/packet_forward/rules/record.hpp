// SPDX-License-Identifier: GPL-2.0-only
/* The rule record of the add and delete options, read from user space and checked. */
#pragma once

#include "base/owned.hpp"
#include "base/sync.hpp"

namespace mox {

/** Free a buffer that read() took, which is counted. Process. */
void free_record_buffer(u8 *bytes);

class RuleRecord : Pinned {
public:
	RuleRecord() = default;

	/**
	 * Copy the record from user space and check its lengths: 0, -EINVAL,
	 * -ENOMEM or -EFAULT. What no record can use of a longer length is only
	 * read, not kept; -EINTR if the caller is killed meanwhile. May sleep.
	 */
	int read(const seam_uptr *value, unsigned int len);
	/**
	 * Charge the socket for what the record adds to its rule: 0 or -ENOMEM, with
	 * nothing changed. The socket lock is held; process.
	 */
	int charge(mox_packet_sock *po) const;
	/**
	 * Add every element to the socket's rule, or delete it: 0, -EINVAL or
	 * -ENOMEM; what came before the error stays. The rule is out of its
	 * library; lock is taken for some elements at a time. Process.
	 */
	int apply(mox_packet_sock *po, seam_spinlock *lock, bool add) const;

private:
	int read_unused(const seam_uptr *value, u32 from, u32 to);
	const u8 *elements() const { return bytes_.get() + sizeof(mox_packet_rule); }
	u32 new_elements(mox_packet_sock *po) const;
	int apply_data(mox_packet_sock *po, seam_spinlock *lock, bool add) const;
	int apply_datum(mox_packet_sock *po, const u8 *element, bool add, list_head *spent) const;
	int apply_packet_all(mox_packet_sock *po, bool add) const;

	Owned<u8, free_record_buffer> bytes_;
	mox_packet_rule head_{};
	u32 caller_vsd_ = 0;
};

} // namespace mox
