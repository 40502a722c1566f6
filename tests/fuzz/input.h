// SPDX-License-Identifier: GPL-2.0-only
// The bytes of a case, taken from the front. Behind the last one every number is 0.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

class Input {
public:
	Input(const uint8_t *bytes, size_t size) : at_(bytes), left_(size) {}

	bool empty() const { return left_ == 0; }
	size_t left() const { return left_; }
	template <typename T> T number()
	{
		T value = 0;
		for (size_t i = 0; i < sizeof(T) && left_ != 0; i++, left_--)
			value = static_cast<T>(value | static_cast<T>(*at_++) << 8 * i);
		return value;
	}
	uint8_t byte() { return number<uint8_t>(); }
	// Below n, which is 256 at most.
	unsigned below(unsigned n) { return byte() % n; }
	// As many as there are, if there are fewer.
	std::vector<uint8_t> bytes(size_t count)
	{
		count = std::min(count, left_);
		std::vector<uint8_t> out(at_, at_ + count);
		at_ += count;
		left_ -= count;
		return out;
	}
	std::vector<uint8_t> rest() { return bytes(left_); }

private:
	const uint8_t *at_;
	size_t left_;
};

} // namespace fuzz
