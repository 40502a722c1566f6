// SPDX-License-Identifier: GPL-2.0-only
// Messages of the family for reading, taken apart. Whatever the interface's tables do not have,
// or have in another size, fails the running test.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "mox_capture.h"

namespace capture {

using Bytes = std::vector<uint8_t>;

// The attributes of a message, or of a nested attribute.
class Attributes {
public:
	bool has(int number) const { return found_.count(number) != 0; }
	size_t count(int number) const;
	// The payload; a failure and no bytes when it is absent.
	const Bytes &bytes(int number) const;
	template <typename T> T number(int number) const
	{
		const Bytes &payload = bytes(number);
		T value{};
		if (payload.size() == sizeof(value))
			std::memcpy(&value, payload.data(), sizeof(value));
		return value;
	}
	uint32_t u32(int number) const { return this->number<uint32_t>(number); }
	int32_t s32(int number) const { return this->number<int32_t>(number); }
	uint64_t u64(int number) const { return this->number<uint64_t>(number); }
	std::string text(int number) const;
	std::vector<std::string> texts(int number) const;
	std::vector<uint32_t> numbers(int number) const;
	const Attributes &nest(int number) const;
	const std::vector<Attributes> &nests(int number) const;

private:
	friend class Decoder;
	std::map<int, std::vector<Bytes>> found_;
	std::map<int, std::vector<Attributes>> nests_;
};

struct Message : Attributes {
	uint16_t flags = 0;
	uint32_t sequence = 0, client = 0;
	uint8_t command = 0;
	size_t size = 0; // headers included
};

// The messages of a buffer, each with the attributes that its command answers with.
std::vector<Message> decode(const Bytes &bytes);

} // namespace capture
