// SPDX-License-Identifier: GPL-2.0-only
#include "corpus.h"

#include <algorithm>

#include "calls.h"

namespace fuzz {

vm::Bytes Corpus::next()
{
	if (kept_.empty() || random_() % 8 == 0)
		return Player::invent(random_);
	Bytes bytes = kept_[random_() % kept_.size()];
	for (unsigned n = 1 + unsigned(random_() % 8); n > 0; --n)
		change(bytes);
	return bytes;
}

void Corpus::keep(const Bytes &bytes)
{
	if (kept_.size() < kMost)
		kept_.push_back(bytes);
	else
		kept_[random_() % kMost] = bytes;
}

void Corpus::change(Bytes &bytes)
{
	const size_t at = bytes.empty() ? 0 : random_() % bytes.size();
	switch (random_() % 6) {
	case 0:
		bytes.insert(bytes.begin() + long(at), uint8_t(random_() >> 8));
		break;
	case 1:
		if (!bytes.empty())
			bytes.erase(bytes.begin() + long(at));
		break;
	case 2: {
		// The end of another one behind the beginning of this.
		const Bytes &other = kept_[random_() % kept_.size()];
		bytes.resize(at);
		const size_t from = other.empty() ? 0 : random_() % other.size();
		bytes.insert(bytes.end(), other.begin() + long(from), other.end());
		break;
	}
	case 3:
		if (!bytes.empty())
			bytes[at] ^= uint8_t(1u << random_() % 8);
		break;
	default:
		if (!bytes.empty())
			bytes[at] = uint8_t(random_() >> 8);
	}
	bytes.resize(std::min(bytes.size(), Player::kBytes));
}

} // namespace fuzz
