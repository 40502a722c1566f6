// SPDX-License-Identifier: GPL-2.0-only
// The branches of the module that the calling thread's system calls take, where the kernel has KCOV.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

class Kcov {
public:
	/// Opens the kernel's file, which only root may; on() says whether the kernel has it.
	Kcov();
	~Kcov();
	Kcov(const Kcov &) = delete;

	bool on() const { return places_ != nullptr; }
	/// From here on the calling thread's system calls are recorded, until end(). A record holds
	/// kPlaces branches; what comes behind them is lost.
	void begin();
	/// Ends the recording. The number of steps from one branch to another that no recording
	/// before has had.
	size_t end();
	/// Steps seen so far.
	size_t seen() const { return seen_; }

private:
	static constexpr size_t kPlaces = 64 * 1024, kSteps = 1 << 18;

	int fd_ = -1;
	unsigned long *places_ = nullptr; ///< the first word is the number of those behind it
	std::vector<bool> steps_ = std::vector<bool>(kSteps);
	size_t seen_ = 0;
};

} // namespace fuzz
