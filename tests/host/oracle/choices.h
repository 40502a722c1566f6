// SPDX-License-Identifier: GPL-2.0-only
// Where random choices come from: a generator with a seed, or bytes that a fuzzer has chosen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace oracle {

class Choices {
public:
	void seed(uint64_t seed)
	{
		is_seeded_ = true;
		engine_.seed(seed);
	}
	// From then on the bytes decide, the first one first; they stay where they are. Behind the
	// last one every choice is 0.
	void take_from(const uint8_t *bytes, size_t size)
	{
		is_seeded_ = false;
		bytes_ = bytes;
		left_ = size;
	}
	bool exhausted() const { return !is_seeded_ && left_ == 0; }

	uint64_t operator()() { return is_seeded_ ? engine_() : number(sizeof(uint64_t)); }
	// A number below n, which is not 0. Of bytes as few are used as n needs.
	uint64_t below(uint64_t n)
	{
		if (is_seeded_)
			return engine_() % n;
		size_t size = 1;
		while (size < sizeof(uint64_t) && n > uint64_t{ 1 } << 8 * size)
			size++;
		return n == 1 ? 0 : number(size) % n;
	}

private:
	uint64_t number(size_t size)
	{
		uint64_t value = 0;
		for (; size != 0 && left_ != 0; size--, left_--)
			value = value << 8 | *bytes_++;
		return value;
	}

	bool is_seeded_ = true;
	std::mt19937_64 engine_;
	const uint8_t *bytes_ = nullptr;
	size_t left_ = 0;
};

} // namespace oracle
