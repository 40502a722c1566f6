/* SPDX-License-Identifier: GPL-2.0-only */
/* A limit for lines that others cause: so many a minute, and a count of the others. */
#ifndef LLDPAGENT_LINE_LIMIT_H
#define LLDPAGENT_LINE_LIMIT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace lldp {

/** What the default number of neighbours of a port needs to be found, to change and to leave within a minute. */
inline constexpr std::size_t kMostLinesAMinute = 100;

/** Minutes begin with the first line after the end of the one before. */
class LineLimit {
public:
	using Time = std::chrono::steady_clock::time_point;

	/** Whether a line may be printed now; one that may not is counted. */
	bool admit(Time now)
	{
		if (!begin_ || now >= *begin_ + kMinute) {
			begin_ = now;
			lines_ = 0;
		}
		if (lines_ < kMostLinesAMinute) {
			++lines_;
			return true;
		}
		++left_out_;
		return false;
	}

	/** The number of lines that were left out, once, and when the minute is over; 0 before. */
	std::uint64_t take_left_out(Time now)
	{
		auto end = due();
		if (!end || now < *end)
			return 0;
		std::uint64_t left_out = left_out_;
		left_out_ = 0;
		return left_out;
	}

	/** When take_left_out returns a number; nothing while no line was left out. */
	std::optional<Time> due() const
	{
		if (left_out_ == 0)
			return std::nullopt;
		return *begin_ + kMinute;
	}

private:
	static constexpr std::chrono::minutes kMinute{ 1 };

	std::optional<Time> begin_;
	std::size_t lines_ = 0;
	std::uint64_t left_out_ = 0;
};

} // namespace lldp

#endif
