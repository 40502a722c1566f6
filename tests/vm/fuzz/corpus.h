// SPDX-License-Identifier: GPL-2.0-only
// Cases that a worker has found worth keeping, and new ones made of them.
#pragma once

#include <random>
#include <vector>

#include "support/socket.h"

namespace fuzz {

class Corpus {
public:
	using Bytes = vm::Bytes;

	explicit Corpus(unsigned seed) : random_(seed) {}

	/// The next case: a new one, or one of those kept with up to eight changes.
	Bytes next();
	/// Keeps a case. Of more than kMost an old one gives way.
	void keep(const Bytes &bytes);
	size_t size() const { return kept_.size(); }

	static constexpr size_t kMost = 4096;

private:
	void change(Bytes &bytes);

	std::minstd_rand random_;
	std::vector<Bytes> kept_;
};

} // namespace fuzz
