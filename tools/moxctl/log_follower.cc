/* SPDX-License-Identifier: GPL-2.0 */
#include "log_follower.h"

namespace moxctl {

LogFollower::LogFollower(KernelLog& log, ReportFilter& filter)
    : log_(log), filter_(filter), thread_([this] { follow(); })
{
}

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
            while ((read = log_.read(raw)) != KernelLog::Read::none) {
                if (read == KernelLog::Read::overwritten)
                    filter_.overwritten();
                else if (auto record = decode_record(raw))
                    filter_.take(*record);
            }
            if (last)
                break;
            log_.wait();
        }
        filter_.finish();
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

void LogFollower::stop()
{
    join();
    if (error_)
        std::rethrow_exception(error_);
}

} // namespace moxctl
