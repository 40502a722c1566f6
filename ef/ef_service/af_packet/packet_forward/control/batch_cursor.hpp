// SPDX-License-Identifier: GPL-2.0
/* The cursor of reports that are longer than a lock should be held. */
#pragma once

#include "seam/seam.h"

namespace mox {

/**
 * Cursor of a report that drops the library lock between batches.
 *
 *     BatchCursor cursor(limit, BatchCursor::InFile::kNever);
 *     do {
 *             lock;
 *             cursor.begin_batch();
 *             for (each place of the list)
 *                     if (cursor.enter_place() && the place is printed)
 *                             cursor.count_printed();
 *             unlock;
 *     } while (cursor.end_batch());
 *
 * A place is whatever the report counts: a socket, a key, a line group. Each
 * batch walks the list from its start and skips the places that earlier batches
 * entered. When the list changes between two batches, a place may be entered
 * twice or not at all; a list that grows is walked up to its first length, so
 * that every report ends.
 */
class BatchCursor {
public:
	/** What ends a batch in the dump file; in the log it is always the limit. */
	enum class InFile {
		kNever,      /* one batch for the whole list */
		kWhenStaged, /* the staging buffer is nearly full: it is written between batches */
	};

	/** limit: places that a batch prints to the log. */
	BatchCursor(u32 limit, InFile in_file) : limit_(limit), in_file_(in_file) {}

	/** Start a batch; the lock is held. */
	void begin_batch();
	/** Step to the next place of the list: whether it is this batch's. The lock is held. */
	bool enter_place();
	/** Count the place that was entered last as printed. */
	void count_printed() { printed_++; }
	/** End a batch, after the lock was dropped: whether there is another one. None is for a caller that is killed. May sleep. Process. */
	bool end_batch();

private:
	static constexpr u32 kUnknown = ~0u;

	bool batch_full() const;

	const u32 limit_;
	const InFile in_file_;
	u32 entered_ = 0;       /* places entered, over all batches */
	u32 at_ = 0;            /* places walked over in this batch */
	u32 printed_ = 0;       /* places printed in this batch */
	u32 length_ = kUnknown; /* places that the list had in the first batch */
	bool full_ = false;     /* this batch is over; the rest is only counted */
};

} // namespace mox
