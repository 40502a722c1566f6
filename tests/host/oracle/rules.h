// SPDX-License-Identifier: GPL-2.0-only
// The rule records of the reference: the same facts as the module's records,
// held in plain vectors. Nothing here is shared with the module, so that a
// mistake in one is not repeated in the other. Numbers and widths come from the
// tests' contract.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "contract/rules.h"

namespace oracle {

using enum contract::Type;
using enum contract::Treatment;
using contract::Cache;

// The eight bytes of a rule value, as they lie in memory.
using Value = std::array<uint8_t, 8>;

template <typename T> T load(const uint8_t *p)
{
	T v;
	std::memcpy(&v, p, sizeof v);
	return v;
}

inline Value bytes_value(const std::vector<uint8_t> &bytes)
{
	Value v{};
	for (size_t i = 0; i < bytes.size() && i < v.size(); i++)
		v[i] = bytes[i];
	return v;
}

template <typename T> Value int_value(T n)
{
	Value v{};
	std::memcpy(v.data(), &n, sizeof n);
	return v;
}

struct Item {
	uint32_t type = 0;
	std::vector<Value> datas;
};

// A socket's own regular, or a match copy of it. A copy carries the owner by
// identity only, as the module's does.
struct Regular {
	int owner = -1;
	uint32_t treatment = 0;
	uint32_t location = 0;
	std::vector<Item> items;
};

struct Entry {
	uint32_t type = 0;
	std::optional<Value> value;
	std::vector<Regular> match_list;
	std::vector<Regular> local_match_list;
};

struct Library {
	std::vector<const Regular *> regulars;
	std::vector<Entry> filter_list;
};

// What the module counts about its memory. failures[0]: data, entries and
// copies together; failures[1]: items.
struct Counters {
	std::array<uint32_t, kTypes> data{};
	std::array<uint32_t, kTypes> item{};
	uint32_t entries = 0;
	uint32_t copies = 0;
	uint32_t data_failures = 0;
	uint32_t item_failures = 0;

	bool operator==(const Counters &) const = default;
};

// Equality of two rule values; a null side stands for "no value at all".
bool value_equal(uint32_t type, const Value *a, const Value *b);

} // namespace oracle
