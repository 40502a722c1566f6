// SPDX-License-Identifier: GPL-2.0
#include "control/batch_cursor.hpp"

#include "base/report.hpp"

namespace mox {

void BatchCursor::begin_batch()
{
	at_ = 0;
	printed_ = 0;
	full_ = false;
}

bool BatchCursor::enter_place()
{
	if (at_++ < entered_)
		return false;
	full_ = full_ || batch_full();
	if (full_ || entered_ == length_)
		return false;
	entered_++;
	return true;
}

bool BatchCursor::end_batch()
{
	if (length_ == kUnknown)
		length_ = at_;
	if (!full_ || entered_ >= length_)
		return false;
	if (in_file_ == InFile::kWhenStaged)
		report_flush();
	seam_cond_resched();
	return !seam_fatal_signal_pending();
}

bool BatchCursor::batch_full() const
{
	if (report_staged())
		return in_file_ == InFile::kWhenStaged && report_nearly_full();
	return printed_ == limit_;
}

} // namespace mox
