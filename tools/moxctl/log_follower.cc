/* SPDX-License-Identifier: GPL-2.0-only */
#include "log_follower.h"

namespace moxctl {

LogFollower::LogFollower(KernelLog &log) : log_(log), thread_([this] { follow(); }) {}

LogFollower::~LogFollower()
{
	join();
}

void LogFollower::follow()
{
	try {
		for (std::string raw;;) {
			// Asked before the log is emptied: what was logged before the call of stop is read for certain.
			bool last = last_round_;
			KernelLog::Read read;
			while ((read = log_.read(raw)) != KernelLog::Read::kNone) {
				if (read == KernelLog::Read::kRecord)
					records_ += raw;
				ends_.push_back(records_.size());
			}
			if (last)
				break;
			log_.wait();
		}
	} catch (...) {
		error_ = std::current_exception();
	}
}

void LogFollower::join()
{
	last_round_ = true;
	log_.interrupt();
	if (thread_.joinable())
		thread_.join();
}

void LogFollower::stop(ReportFilter &filter)
{
	join();
	if (error_)
		std::rethrow_exception(error_);
	std::size_t begin = 0;
	for (std::size_t end : ends_) {
		if (end == begin)
			filter.overwritten();
		else if (auto record = decode_record(
				 std::string_view(records_).substr(begin, end - begin)))
			filter.take(*record);
		begin = end;
	}
	filter.finish();
}

} // namespace moxctl
